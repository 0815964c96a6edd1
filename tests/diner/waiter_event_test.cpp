// SPDX-License-Identifier: MIT
#include "glue/diner/waiter_event.h"
#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

const unsigned char* bytes(const char* text) { return reinterpret_cast<const unsigned char*>(text); }

std::string block_of(const waiter_event& e) {
    if (!e.extended) return "none";
    return std::string(reinterpret_cast<const char*>(e.get_extended_data()), e.get_extended_data_len());
}

waiter_event with_block(const char* text) {
    waiter_event e(-4, 70000, 9);
    e.set_extended_data(bytes(text), static_cast<unsigned>(std::strlen(text)));
    return e;
}

TEST(Extended_data, is_stored_replaced_and_cleared) {
    const struct {
        const unsigned char* p;
        unsigned n;
        int result;
        const char* block;
    } steps[] = {
        {bytes("abc"), 3, 1, "abc"},
        {bytes("0123456789"), 10, 1, "0123456789"},
        {bytes("x"), 0, 0, "none"},
        {bytes("abc"), 2, 1, "ab"},
        {nullptr, 5, 0, "none"},
        {bytes("abc"), 3, 1, "abc"},
        {bytes("abc"), UINT_MAX - 6, 0, "none"},
        {bytes("abc"), UINT_MAX, 0, "none"},
    };
    waiter_event e;
    for (const auto& s : steps) {
        EXPECT_EQ(e.set_extended_data(s.p, s.n), s.result) << s.n;
        EXPECT_EQ(block_of(e), s.block);
        EXPECT_EQ(e.get_extended_data() == nullptr, e.get_extended_data_len() == 0);
    }
}

TEST(Extended_data, may_be_replaced_by_a_part_of_itself) {
    waiter_event e = with_block("receiver restarted");
    EXPECT_EQ(e.set_extended_data(e.get_extended_data() + 9, 9), 1);
    EXPECT_EQ(block_of(e), "restarted");
}

TEST(Extended_data, lies_behind_its_32_bit_length) {
    const waiter_event e = with_block("abc");
    uint32_t length;
    std::memcpy(&length, e.extended, sizeof length);
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(std::memcmp(e.extended + 4, "abc", 3), 0);
}

TEST(Event_value, every_copy_owns_a_block_of_its_own) {
    waiter_event source = with_block("first");
    source.repeat = 3;
    waiter_event copied(source), assigned = with_block("old"), cleared = with_block("old"), other;
    assigned = source;
    cleared = other;
    waiter_event& self = assigned;
    assigned = self;
    for (const waiter_event* e : {&copied, &assigned}) {
        EXPECT_NE(e->extended, source.extended);
        EXPECT_EQ(e->module_id, -4);
        EXPECT_EQ(e->id, 70000);
        EXPECT_EQ(e->data, 9u);
        EXPECT_EQ(e->repeat, 3);
    }
    source.set_extended_data(bytes("second"), 6);
    EXPECT_EQ(block_of(copied), "first");
    EXPECT_EQ(block_of(assigned), "first");
    EXPECT_EQ(block_of(cleared), "none");
}

TEST(Event_value, a_move_hands_the_block_over) {
    waiter_event source = with_block("block"), target = with_block("old");
    const unsigned char* const block = source.extended;
    waiter_event moved(std::move(source));
    EXPECT_EQ(moved.extended, block);
    EXPECT_EQ(block_of(source), "none");
    target = std::move(moved);
    EXPECT_EQ(target.extended, block);
    EXPECT_EQ(target.id, 70000);
    EXPECT_EQ(block_of(moved), "none");
    waiter_event& self = target;
    target = std::move(self);
    EXPECT_EQ(block_of(target), "block");
}

} // namespace
