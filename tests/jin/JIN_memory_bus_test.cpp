// SPDX-License-Identifier: MIT
#include "jin/Test_bus.h"
#include <gtest/gtest.h>

namespace {

class Memory_bus : public testing::Test {
protected:
    void pass(int ms) {
        clock.advance(ms);
        bus.process();
    }
    Manual_clock clock;
    JIN_memory_bus bus;
};

TEST_F(Memory_bus, a_node_claims_its_address_and_talks) {
    Test_node a(bus, JIN_name(1), 10), b(bus, JIN_name(2), 20);
    EXPECT_EQ(a.send(message(0xFF00, "x")), JIN_stack::busy);
    pass(153);
    EXPECT_EQ(a.address(), -1);
    pass(250);
    EXPECT_EQ(a.address(), 10);
    EXPECT_EQ(a.events(), "2 1");
    a.received(), b.received();
    EXPECT_EQ(a.send(message(0xFF00, "x")), JIN_stack::taken);
    EXPECT_EQ(a.send(message(0xEF00, "y", 20)), JIN_stack::taken);
    EXPECT_EQ(b.received(), "FF00 0A>FF 6: 78, EF00 0A>14 6: 79");
    EXPECT_EQ(a.received(), "");
}

TEST_F(Memory_bus, a_long_message_takes_its_time) {
    Test_node a(bus, JIN_name(1), 10), b(bus, JIN_name(2), 20);
    pass(500);
    b.received(), a.events();
    const JIN_grow_message dm = message(0xFECA, std::string(1002, 'a'));
    EXPECT_EQ(a.send(dm), JIN_stack::taken);
    EXPECT_EQ(a.send(dm), JIN_stack::busy);
    pass(7199);
    EXPECT_EQ(b.received() + a.events(), "");
    pass(1);
    EXPECT_EQ(b.received().size(), 13u + 3 * 1002);
    EXPECT_EQ(a.events(), "1");
}

} // namespace
