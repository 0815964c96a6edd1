// SPDX-License-Identifier: MIT
#include "support/child.h"
#include "util/sl_list.h"
#include <algorithm>
#include <climits>
#include <csignal>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace {

/// The link is not at the start of the element: the list must still hand back the element.
struct Payload {
    long words[2] = {0, 0};
};
struct Element : Payload, sll_node {};
using List = c_sl_list<Element>;

void verify(const List& list, const std::vector<Element*>& model) {
    const int n = static_cast<int>(model.size());
    ASSERT_EQ(list.size(), n);
    for (int i = -1; i <= n; ++i) ASSERT_EQ(list[i], i < 0 || i == n ? nullptr : model[static_cast<size_t>(i)]);
    Element* at = list.first();
    for (Element* e : model) {
        ASSERT_EQ(at, e);
        ASSERT_TRUE(e->in_list());
        at = list.next(at);
    }
    ASSERT_EQ(at, nullptr);
    std::vector<Element*> walked;
    for (Element& e : list) walked.push_back(&e);
    ASSERT_EQ(walked, model);
}

TEST(sl_list, behaves_as_a_queue_with_removal_from_anywhere) {
    const unsigned seed = 3141;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::vector<Element> elements(8);
    List list;
    std::vector<Element*> model;
    for (int step = 0; step < 5000; ++step) {
        Element* e = &elements[random() % elements.size()];
        const auto found = std::find(model.begin(), model.end(), e);
        if (random() % 8 == 0) {
            Element* expected = model.empty() ? nullptr : model.front();
            ASSERT_EQ(list.pop(), expected);
            if (expected) model.erase(model.begin());
        } else if (found == model.end() && random() % 4 != 0) {
            ASSERT_EQ(list.push(e), 1);
            model.push_back(e);
        } else {
            ASSERT_EQ(list.remove(e), found != model.end()) << "an element outside is not found";
            if (found != model.end()) model.erase(found);
        }
        ASSERT_EQ(e->in_list(), std::find(model.begin(), model.end(), e) != model.end());
        ASSERT_NO_FATAL_FAILURE(verify(list, model)) << "step " << step;
    }
}

TEST(sl_list, takes_over_all_elements_of_another) {
    for (const auto& [here, there] : {std::pair(0, 0), {0, 2}, {2, 0}, {2, 3}, {1, 1}}) {
        std::vector<Element> elements(6);
        List list, from;
        std::vector<Element*> model;
        for (int i = 0; i < here + there; ++i) {
            model.push_back(&elements[static_cast<size_t>(i)]);
            (i < here ? list : from).push(model.back());
        }
        list.push_all(from);
        ASSERT_NO_FATAL_FAILURE(verify(from, {}));
        ASSERT_NO_FATAL_FAILURE(verify(list, model));
        list.push(&elements.back());
        from.push(list.pop());
        model.push_back(&elements.back());
        ASSERT_NO_FATAL_FAILURE(verify(from, {model.front()}));
        model.erase(model.begin());
        ASSERT_NO_FATAL_FAILURE(verify(list, model));
    }
}

TEST(sl_list, links_are_all_ones_at_the_ends_and_are_not_copied) {
    sl_list list;
    Element a, b;
    list.push(&a);
    EXPECT_EQ(reinterpret_cast<intptr_t>(a.next), -1);
    Element copy(a);
    EXPECT_FALSE(copy.in_list());
    list.push(&b);
    a = copy;
    EXPECT_EQ(a.next, &b) << "assignment leaves the link alone";
    EXPECT_EQ(list[INT_MAX], nullptr);
    List other;
    EXPECT_EQ(other.remove(&a), 0) << "it is in another list";
    list.remove(&b);
    list.remove(&a);
    EXPECT_EQ(list.head, sll_node::last_mark());
    EXPECT_EQ(list.tail, sll_node::last_mark());
}

TEST(sl_list, pushing_what_is_in_a_list_is_a_bug) {
    for (const bool last : {false, true}) {
        const Child_result r = run_child([last] {
            List list, other;
            Element a, b;
            list.push(&a);
            list.push(&b);
            other.push(last ? &b : &a);
        });
        EXPECT_EQ(r.signal, SIGABRT);
        EXPECT_EQ(r.out, "BUG: sl_list::push, already in a list.\n\r\n");
    }
}

} // namespace
