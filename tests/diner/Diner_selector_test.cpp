// SPDX-License-Identifier: MIT
#include "glue/diner/Diner_selector.h"
#include "support/Test_diner.h"
#include <climits>
#include <gtest/gtest.h>
#include <memory>
#include <tuple>

namespace {

class Selector : public testing::Test {
protected:
    Selector() {
        for (auto* d : {&b2, &a2, &z1}) d->begin(true, false, &selector);
    }
    std::string order() {
        std::string names;
        for (int i = -1; i <= selector.num_diners(); ++i) {
            if (const Diner* d = selector[i]) names += d->get_descriptor().name + std::string(" ");
        }
        return names;
    }
    Diner_selector selector;
    Test_diner<> b2{"b", 2}, a2{"a", 2}, z1{"z", 1};
};

TEST_F(Selector, runs_one_at_a_time_of_its_diners_by_id_then_name) {
    EXPECT_EQ(order(), "z a b ");
    // An index or a name and id; the result, who is selected then, starts and stops of all three so far.
    const std::tuple<int, const char*, int, int, Test_diner<>*, int, int> steps[] = {
        {-1, nullptr, 0, -1, nullptr, 0, 0}, {0, nullptr, 0, 0, &z1, 1, 0}, {-1, "z", 1, 0, &z1, 1, 0},
        {3, nullptr, 0, -1, &z1, 1, 0},      {-1, "z", 2, -1, &z1, 1, 0},   {-1, "b", 2, 0, &b2, 2, 1},
        {1, nullptr, 0, 0, &a2, 3, 2}};
    for (const auto& [index, name, id, result, selected, starts, stops] : steps) {
        EXPECT_EQ(name ? selector.select_diner(Diner::Descriptor(name, id)) : selector.select_diner(index), result);
        EXPECT_TRUE(selector.get_selected() == selected && (!selected || selected->in_state(Diner::state_run)));
        EXPECT_EQ(z1.starts + a2.starts + b2.starts, starts);
        EXPECT_EQ(z1.stops + a2.stops + b2.stops, stops);
    }
    EXPECT_TRUE(z1.in_state(Diner::state_stop) && b2.in_state(Diner::state_stop));
    a2.set_selector(nullptr);
    EXPECT_EQ(selector.get_selected(), nullptr) << "who leaves is forgotten";
    EXPECT_TRUE(selector.select_diner(0) == 0 && selector.get_selected() == &z1 && a2.stops == 0);
}

TEST_F(Selector, copies_the_first_descriptors_in_order) {
    Test_diner<> low("low", INT_MIN), high("high", INT_MAX); // farther apart than an int can tell
    low.begin(true, false, &selector);
    high.begin(true, false, &selector);
    EXPECT_EQ(order(), "low z a b high ");
    for (int max : {-1, 0, 2, 5, 6}) {
        Diner::Descriptor out[6];
        selector.get_descriptors(out, max);
        for (int i = 0; i < 6; ++i) {
            EXPECT_EQ(out[i], i < max && i < 5 ? selector[i]->get_descriptor() : Diner::DESCRIPTOR_DEFAULT) << max << i;
        }
    }
}

TEST_F(Selector, refuses_an_equal_descriptor_and_a_second_registration_and_may_go_first) {
    Test_diner<> twin("a", 2);
    auto first = std::make_unique<Diner_selector>();
    twin.begin(true, false, first.get());
    EXPECT_EQ(selector.register_diner(&a2), -1);
    EXPECT_EQ(twin.set_selector(&selector), -1);
    EXPECT_TRUE(twin.get_selector() == first.get() && first->num_diners() == 1) << "it is back where it was";
    EXPECT_EQ(selector.deregister_diner(&twin), -1);
    first.reset();
    EXPECT_EQ(twin.get_selector(), nullptr);
    EXPECT_TRUE(a2.set_selector(nullptr) == 0 && twin.set_selector(&selector) == 0);
    EXPECT_EQ(order(), "z a b ");
}

} // namespace
