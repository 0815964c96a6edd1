// SPDX-License-Identifier: MIT
#include "glue/diner/Diner_selector.h"
#include "support/Test_diner.h"
#include <gtest/gtest.h>
#include <memory>
#include <string>
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
    Diner_selector selector, other;
    Test_diner<> b2{"b", 2}, a2{"a", 2}, z1{"z", 1};
};

TEST_F(Selector, keeps_its_diners_by_id_then_name) {
    EXPECT_EQ(selector.num_diners(), 3);
    EXPECT_EQ(order(), "z a b ");
    const Diner::Descriptor untouched("untouched", 9);
    const int limits[] = {-1, 0, 2, 3, 5};
    for (int max : limits) {
        Diner::Descriptor out[5] = {untouched, untouched, untouched, untouched, untouched};
        selector.get_descriptors(out, max);
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ(out[i], i < max && i < 3 ? selector[i]->get_descriptor() : untouched) << max << " " << i;
        }
    }
    Test_diner<> low("low", -2147483647), high("high", 2147483647);
    low.begin(true, false, &selector);
    high.begin(true, false, &selector);
    EXPECT_EQ(order(), "low z a b high ") << "the ids are farther apart than an int can tell";
}

TEST_F(Selector, runs_one_at_a_time) {
    EXPECT_EQ(selector.get_selected(), nullptr);
    // An index or a name and id; the result, who is selected then, starts and stops of all three so far.
    const std::tuple<int, const char*, int, int, Test_diner<>*, int, int> steps[] = {
        {0, nullptr, 0, 0, &z1, 1, 0},  {0, nullptr, 0, 0, &z1, 1, 0},   {-1, "z", 1, 0, &z1, 1, 0},
        {3, nullptr, 0, -1, &z1, 1, 0}, {-1, nullptr, 0, -1, &z1, 1, 0}, {-1, "z", 2, -1, &z1, 1, 0},
        {-1, "b", 2, 0, &b2, 2, 1},     {1, nullptr, 0, 0, &a2, 3, 2},
    };
    for (const auto& [index, name, id, result, selected, starts, stops] : steps) {
        EXPECT_EQ(name ? selector.select_diner(Diner::Descriptor(name, id)) : selector.select_diner(index), result);
        EXPECT_EQ(selector.get_selected(), selected);
        EXPECT_TRUE(selected->in_state(Diner::state_run));
        EXPECT_EQ(z1.starts + a2.starts + b2.starts, starts);
        EXPECT_EQ(z1.stops + a2.stops + b2.stops, stops);
    }
    EXPECT_TRUE(z1.in_state(Diner::state_stop) && b2.in_state(Diner::state_stop));
}

TEST_F(Selector, refuses_an_equal_descriptor_and_a_second_registration) {
    Test_diner<> twin("a", 2);
    twin.begin(true, false, &other);
    EXPECT_EQ(selector.register_diner(&a2), -1);
    EXPECT_EQ(twin.set_selector(&selector), -1);
    EXPECT_EQ(twin.get_selector(), &other) << "it is back where it was";
    EXPECT_EQ(other.num_diners(), 1);
    EXPECT_EQ(selector.deregister_diner(&twin), -1);
    EXPECT_EQ(a2.set_selector(nullptr), 0);
    EXPECT_EQ(twin.set_selector(&selector), 0);
    EXPECT_EQ(other.num_diners(), 0);
    EXPECT_EQ(order(), "z a b ");
}

TEST_F(Selector, forgets_a_selected_diner_that_leaves) {
    auto d = std::make_unique<Test_diner<>>("short_lived", 0);
    d->begin(true, false, &selector);
    EXPECT_EQ(selector.select_diner(0), 0);
    EXPECT_EQ(selector.get_selected(), d.get());
    d.reset();
    EXPECT_EQ(selector.get_selected(), nullptr);
    EXPECT_EQ(selector.select_diner(0), 0);
    EXPECT_EQ(selector.get_selected(), &z1);
}

TEST(Diner_selector, may_go_before_its_diners) {
    auto selector = std::make_unique<Diner_selector>();
    Test_diner<> d("d", 1);
    d.begin(true, false, selector.get());
    selector.reset();
    EXPECT_EQ(d.get_selector(), nullptr);
}

} // namespace
