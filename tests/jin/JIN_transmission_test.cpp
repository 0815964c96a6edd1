// SPDX-License-Identifier: MIT
#include "glue/jin/JIN_transmission.h"
#include "jin/Test_bus.h"
#include "support/Test_diner.h"
#include <gtest/gtest.h>

namespace {

class Counter : public JIN::Transmission<JIN_grow_message> {
public:
    using Transmission::Transmission;
    uint32_t value = 0;
    bool silent = false;

private:
    bool build(JIN_grow_message& m, uint8_t destination) override {
        return !silent && m.append_uint8(static_cast<uint8_t>(++value)) && m.append_uint8(destination);
    }
};

/// The diner does not run: its handlers are called here, at the instants of the clock.
class Transmission : public testing::Test {
protected:
    Transmission() {
        diner.begin(true);
        diner.on_timeout = [this](Timeout& t) { EXPECT_TRUE(counter.handle(t)); };
        pass(403);
        b.received();
    }
    void pass(int ms) {
        clock.advance(ms);
        bus.process();
        diner.Diner::handle_timeout();
    }
    void tell(int event) { EXPECT_FALSE(counter.handle(waiter_event(a.node.module_id(), event, 0))); }

    Manual_clock clock;
    JIN_memory_bus bus;
    Test_node a{bus, JIN_name(1), 10}, b{bus, JIN_name(2), 20};
    Test_diner<> diner;
    Counter counter{diner, a.node, 0xEF00};
};

TEST_F(Transmission, goes_out_in_its_period_and_on_request) {
    counter.set_period(1000);
    EXPECT_EQ(b.received(), "EF00 0A>FF 6: 01 FF") << "at once";
    pass(999);
    EXPECT_EQ(b.received(), "");
    pass(1);
    EXPECT_EQ(b.received(), "EF00 0A>FF 6: 02 FF");
    counter.request(20);
    EXPECT_EQ(b.received(), "EF00 0A>14 6: 03 14");
    counter.silent = true;
    pass(1000);
    EXPECT_EQ(b.received(), "");
    EXPECT_FALSE(counter.is_due());
    counter.silent = false;
    counter.set_period(0);
    pass(5000);
    EXPECT_EQ(b.received(), "");
}

TEST_F(Transmission, is_built_when_there_is_room) {
    a.stack().set_busy(true);
    counter.set_period(1000);
    for (int i = 0; i < 10; ++i) pass(1000), counter.request(20);
    EXPECT_TRUE(counter.is_due());
    a.stack().set_busy(false);
    counter.value = 100;
    EXPECT_EQ(a.events(), "2 1");
    tell(JIN_stack::event_room);
    EXPECT_EQ(b.received(), "EF00 0A>FF 6: 65 FF, EF00 0A>14 6: 66 14") << "once for each destination";
    // Without the event it finds out by itself.
    a.stack().set_busy(true);
    counter.request();
    a.stack().set_busy(false);
    pass(49);
    EXPECT_EQ(b.received(), "");
    pass(1);
    EXPECT_EQ(b.received(), "EF00 0A>FF 6: 68 FF");
    a.stack().set_busy(true);
    counter.request();
    counter.withdraw();
    a.stack().set_busy(false);
    pass(50);
    EXPECT_EQ(b.received(), "");
}

TEST_F(Transmission, gives_up_what_is_refused) {
    Counter odd(diner, a.node, 0xEF01);
    odd.request();
    EXPECT_TRUE(odd.refused() == 1 && odd.sent() == 0 && !odd.is_due());
}

TEST_F(Transmission, waits_for_an_address) {
    bus.set_there(false);
    counter.request();
    for (int i = 0; i < 100; ++i) pass(100);
    EXPECT_LE(counter.value, 30u) << "not tried often";
    bus.set_there(true);
    pass(250);
    pass(153);
    tell(JIN_stack::event_claimed);
    EXPECT_FALSE(counter.is_due());
    EXPECT_EQ(counter.sent(), 1u);
}

} // namespace
