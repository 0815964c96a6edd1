// SPDX-License-Identifier: MIT
#include "util/Ring_buffer.h"
#include <algorithm>
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
    for (uint32_t i = 0; i < n; ++i) ASSERT_EQ(*ring.at(i), model[i]);
    ASSERT_EQ(ring.at(n), ring.data) << "beyond the last byte: the start of the storage";

    const uint32_t offset = random() % (n + 3), wanted = random() % (n + 3);
    Bytes got(wanted, 0xEE);
    const uint32_t expected = offset < n ? std::min(wanted, n - offset) : 0;
    ASSERT_EQ(ring.peek(offset, got.data(), wanted), expected);
    for (uint32_t i = 0; i < wanted; ++i) ASSERT_EQ(got[i], i < expected ? model[offset + i] : 0xEE);

    uint32_t first = 0, second = 0, third = 0;
    const unsigned char* run = ring.span(offset, first);
    for (uint32_t i = 0; i < first; ++i) ASSERT_EQ(run[i], model[offset + i]);
    const unsigned char* rest = ring.span(offset + first, second);
    for (uint32_t i = 0; i < second; ++i) ASSERT_EQ(rest[i], model[offset + first + i]);
    ASSERT_EQ(first + second, offset < n ? n - offset : 0) << "two runs cover what is stored";
    ring.span(offset + first + second, third);
    ASSERT_EQ(third, 0u);
}

TEST(Ring_buffer, behaves_as_a_bounded_queue) {
    const unsigned seed = 77012;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (uint32_t capacity : {1u, 2u, 3u, 16u, 128u}) {
        Bytes storage(capacity + 2, 0xCC); // a guard on either side
        Ring_buffer ring(storage.data() + 1, capacity);
        std::deque<unsigned char> model;
        uint64_t put = 0;
        for (int step = 0; step < 4000; ++step) {
            Bytes piece(random() % (capacity + 3));
            for (auto& b : piece) b = static_cast<unsigned char>(random());
            const auto n = static_cast<uint32_t>(piece.size());
            switch (random() % 16) {
            case 0:
                ring.clear();
                model.clear();
                break;
            case 1:
            case 2:
            case 3:
            case 4:
            case 5:
            case 6: {
                const uint32_t dropped = std::min(n, static_cast<uint32_t>(model.size()));
                ASSERT_EQ(ring.drop(n), dropped);
                model.erase(model.begin(), model.begin() + dropped);
                break;
            }
            default: {
                const uint32_t stored = std::min(n, capacity - static_cast<uint32_t>(model.size()));
                ASSERT_EQ(ring.put(piece.data(), n), stored);
                put += stored;
                model.insert(model.end(), piece.begin(), piece.begin() + stored);
            }
            }
            ASSERT_NO_FATAL_FAILURE(verify(ring, model, random)) << "capacity " << capacity << " step " << step;
            ASSERT_EQ(ring.dropped, put - model.size());
        }
        EXPECT_EQ(storage.front(), 0xCC);
        EXPECT_EQ(storage.back(), 0xCC);
    }
}

TEST(Ring_buffer, marks_full_in_the_tail_and_lifts_the_mark_when_bytes_leave) {
    unsigned char storage[4];
    Ring_buffer ring(storage, 4);
    EXPECT_EQ(ring.put(reinterpret_cast<const unsigned char*>("abcdef"), 6), 4u);
    EXPECT_EQ(ring.tail, Ring_buffer::full_mark);
    EXPECT_EQ(ring.drop(0), 0u);
    EXPECT_TRUE(ring.full()) << "dropping nothing changes nothing";
    EXPECT_EQ(ring.drop(1), 1u);
    EXPECT_EQ(ring.head, 1u);
    EXPECT_EQ(ring.tail, 0u);
    EXPECT_EQ(ring.drop(UINT32_MAX), 3u);
    EXPECT_TRUE(ring.empty());
}

} // namespace
