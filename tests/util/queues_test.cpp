// SPDX-License-Identifier: MIT
#include "support/child.h"
#include "util/Ring_buffer.h"
#include "util/sl_list.h"
#include <algorithm>
#include <climits>
#include <csignal>
#include <deque>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

/// Everything that can be asked of the ring agrees with the model.
void verify(const Ring_buffer& ring, const std::deque<unsigned char>& model, std::mt19937& random) {
    const auto n = static_cast<uint32_t>(model.size());
    ASSERT_EQ(ring.used(), n);
    ASSERT_EQ(ring.room(), ring.capacity - n);
    ASSERT_EQ(ring.empty(), n == 0);
    ASSERT_EQ(ring.full(), n == ring.capacity);
    ASSERT_EQ(ring.tail == Ring_buffer::full_mark, ring.full());
    for (uint32_t i = 0; i < n; ++i) ASSERT_EQ(*ring.at(i), model[i]);
    ASSERT_EQ(ring.at(n), ring.data) << "beyond the last byte: the start of the storage";

    const uint32_t offset = random() % (n + 3), wanted = random() % (n + 3);
    const uint32_t left = offset < n ? n - offset : 0;
    Bytes got(wanted, 0xEE);
    ASSERT_EQ(ring.peek(offset, got.data(), wanted), std::min(wanted, left));
    for (uint32_t i = 0; i < wanted; ++i) ASSERT_EQ(got[i], i < left ? model[offset + i] : 0xEE);

    uint32_t covered = 0;
    for (uint32_t length : {0u, 0u}) { // two runs cover what is stored
        const unsigned char* run = ring.span(offset + covered, length);
        for (uint32_t i = 0; i < length; ++i) ASSERT_EQ(run[i], model[offset + covered + i]);
        covered += length;
    }
    ASSERT_EQ(covered, left);
}

TEST(Ring_buffer, behaves_as_a_bounded_queue) {
    std::mt19937 random(77012);
    for (uint32_t capacity : {1u, 2u, 3u, 16u, 128u}) {
        Bytes storage(capacity + 2, 0xCC); // a guard on either side
        Ring_buffer ring(storage.data() + 1, capacity);
        std::deque<unsigned char> model;
        uint64_t put = 0;
        for (int step = 0; step < 4000; ++step) {
            Bytes piece(random() % (capacity + 3));
            for (auto& b : piece) b = static_cast<unsigned char>(random());
            const auto n = static_cast<uint32_t>(piece.size());
            const auto action = random() % 16;
            if (action == 0) {
                ring.clear();
                model.clear();
            } else if (action < 7) {
                const uint32_t dropped = std::min(n, static_cast<uint32_t>(model.size()));
                ASSERT_EQ(ring.drop(n), dropped);
                model.erase(model.begin(), model.begin() + dropped);
            } else {
                const uint32_t stored = std::min(n, capacity - static_cast<uint32_t>(model.size()));
                ASSERT_EQ(ring.put(piece.data(), n), stored);
                put += stored;
                model.insert(model.end(), piece.begin(), piece.begin() + stored);
            }
            ASSERT_NO_FATAL_FAILURE(verify(ring, model, random)) << "capacity " << capacity << " step " << step;
            ASSERT_EQ(ring.dropped, put - model.size());
        }
        EXPECT_EQ(storage.front(), 0xCC);
        EXPECT_EQ(storage.back(), 0xCC);
    }
}

/// The link is not at the start of the element: the list must still hand back the element.
struct Payload {
    long words[2] = {0, 0};
};
struct Element : Payload, sll_node {};
using List = c_sl_list<Element>;

void verify(const List& list, const std::vector<Element*>& model) {
    const int n = static_cast<int>(model.size());
    ASSERT_EQ(list.size(), n);
    for (int i : {-1, n, INT_MAX}) ASSERT_EQ(list[i], nullptr);
    for (int i = 0; i < n; ++i) ASSERT_EQ(list[i], model[static_cast<size_t>(i)]);
    std::vector<Element*> walked, iterated;
    for (Element* e = list.first(); e; e = list.next(e)) walked.push_back(e);
    for (Element* e : model) ASSERT_TRUE(e->in_list());
    for (Element& e : list) iterated.push_back(&e);
    ASSERT_EQ(walked, model);
    ASSERT_EQ(iterated, model);
}

TEST(sl_list, two_lists_behave_as_queues_with_removal_from_anywhere_and_one_takes_over_the_other) {
    std::mt19937 random(3141);
    std::vector<Element> elements(8);
    List lists[2];
    std::vector<Element*> models[2];
    for (int step = 0; step < 10000; ++step) {
        Element* e = &elements[random() % elements.size()];
        const size_t here = random() % 2;
        List &list = lists[here], &other = lists[1 - here];
        auto &model = models[here], &rest = models[1 - here];
        const auto found = std::find(model.begin(), model.end(), e);
        if (random() % 16 == 0) {
            list.push_all(other);
            model.insert(model.end(), rest.begin(), rest.end());
            rest.clear();
        } else if (random() % 8 == 0) {
            ASSERT_EQ(list.pop(), model.empty() ? nullptr : model.front());
            if (!model.empty()) model.erase(model.begin());
        } else if (!e->in_list() && random() % 4 != 0) {
            ASSERT_EQ(list.push(e), 1);
            model.push_back(e);
        } else {
            ASSERT_EQ(list.remove(e), found != model.end()) << "an element of the other list or of none is not found";
            if (found != model.end()) model.erase(found);
        }
        ASSERT_NO_FATAL_FAILURE(verify(list, model)) << "step " << step;
        ASSERT_NO_FATAL_FAILURE(verify(other, rest)) << "step " << step;
        const auto linked = [](const Element& x) { return x.in_list(); };
        ASSERT_EQ(std::count_if(elements.begin(), elements.end(), linked), list.size() + other.size());
    }
}

TEST(sl_list, pushing_what_is_in_a_list_is_a_bug) {
    for (const size_t which : {0, 1}) { // the last one's link leads nowhere either
        const Child_result r = run_child([which] {
            List list, other;
            Element elements[2];
            for (Element& e : elements) list.push(&e);
            other.push(&elements[which]);
        });
        EXPECT_EQ(r.signal, SIGABRT);
        EXPECT_EQ(r.out, "BUG: sl_list::push, already in a list.\n\r\n");
    }
}

} // namespace
