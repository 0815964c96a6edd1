// SPDX-License-Identifier: MIT
#include "glue/diner/waiter_event.h"
#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <tuple>

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
    const std::tuple<const unsigned char*, unsigned, int, const char*> steps[] = {
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
    for (const auto& [data, n, result, block] : steps) {
        EXPECT_EQ(e.set_extended_data(data, n), result) << n;
        EXPECT_EQ(block_of(e), block);
        EXPECT_EQ(e.get_extended_data() == nullptr, e.get_extended_data_len() == 0);
    }
    e = with_block("receiver restarted");
    e.set_extended_data(e.get_extended_data() + 9, 9);
    EXPECT_EQ(block_of(e), "restarted") << "by a part of itself";
    EXPECT_EQ(std::string(reinterpret_cast<char*>(e.extended), 13), std::string("\x09\0\0\0restarted", 13))
        << "32-bit length";
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
        EXPECT_TRUE(e->module_id == -4 && e->id == 70000 && e->data == 9u && e->repeat == 3);
    }
    source.set_extended_data(bytes("second"), 6);
    EXPECT_EQ(block_of(copied) + block_of(assigned), "firstfirst");
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
