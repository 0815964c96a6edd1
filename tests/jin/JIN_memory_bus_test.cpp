// SPDX-License-Identifier: MIT
#include "glue/jin/JIN_transmission.h"
#include "jin/Test_bus.h"
#include "support/Test_diner.h"
#include "support/test.h"

namespace {

class Memory_bus : public testing::Test {
protected:
    /// 403 ms, in which both get their addresses.
    void begin() {
        pass(403);
        a.received(), b.received(), a.events(), b.events();
    }
    void pass(int ms) {
        clock.advance(ms);
        bus.process();
    }
    Manual_clock clock;
    JIN_memory_bus bus;
    Test_node a{bus, JIN_name(1), 10}, b{bus, JIN_name(2), 20};
};

TEST_F(Memory_bus, a_node_claims_its_address_and_talks) {
    EXPECT_EQ(a.send(message(0xFF00, "x")), JIN_stack::busy);
    EXPECT_EQ(a.address(), -1);
    pass(403);
    EXPECT_EQ(a.address(), 10);
    EXPECT_EQ(a.events(), "2 1") << "claimed, and room for what was busy";
    EXPECT_EQ(b.events(), "2");
    a.received(), b.received();
    EXPECT_EQ(a.send(message(0xFF00, "x")), JIN_stack::taken);
    EXPECT_EQ(a.send(message(0xEF00, "y", 20)), JIN_stack::taken);
    EXPECT_EQ(a.send(message(0xFF00, "z", 30)), JIN_stack::taken) << "one frame of such a PGN has no destination";
    EXPECT_EQ(b.received(), "FF00 0A>FF 6: 78, EF00 0A>14 6: 79, FF00 0A>FF 6: 7A");
    EXPECT_EQ(a.received(), "");
    EXPECT_EQ(a.send(message(0xEF01, "")), JIN_stack::refused);
    EXPECT_EQ(Test_node(bus, JIN_name(), 30).send(message(0xFF00, "x")), JIN_stack::refused) << "it only listens";
}

TEST_F(Memory_bus, long_messages_take_their_time_one_of_each_kind) {
    struct {
        uint8_t to;
        int size, ms;
    } const rows[] = {{255, 9, 100}, {255, 1002, 7200}, {255, 1785, 12750}, {20, 9, 2}, {20, 1785, 255}};
    begin();
    for (const auto& r : rows) {
        SCOPED_TRACE(r.size);
        const JIN_grow_message m = message(0xFECA, std::string(static_cast<size_t>(r.size), 'a'), r.to, 10);
        EXPECT_EQ(a.send(m), JIN_stack::taken);
        EXPECT_EQ(a.send(m), JIN_stack::busy);
        EXPECT_EQ(a.send(message(0xFF00, "")), JIN_stack::taken);
        pass(r.ms - 1);
        EXPECT_EQ(b.received() + a.events(), "FF00 0A>FF 6:");
        pass(1);
        EXPECT_EQ(b.received(), text_of_message(m));
        EXPECT_EQ(a.events(), "1");
    }
    EXPECT_EQ(a.send(message(0xFECA, std::string(9, 'a'))), JIN_stack::taken);
    EXPECT_EQ(a.send(message(0xFECA, std::string(9, 'b'), 20)), JIN_stack::taken) << "the two kinds do not wait";
    pass(100);
    EXPECT_EQ(b.received().size(), 13u * 2 + 9 * 3 * 2 + 2);
    // To nobody: given up, counted, told.
    a.events();
    EXPECT_EQ(a.send(message(0xFECA, std::string(9, 'a'), 30)), JIN_stack::taken);
    pass(1249);
    EXPECT_EQ(a.stack.transfers_failed(), 0u);
    pass(1);
    EXPECT_EQ(a.stack.transfers_failed(), 1u);
    EXPECT_EQ(a.events(), "8");
}

TEST_F(Memory_bus, goes_and_comes_back) {
    begin();
    EXPECT_EQ(a.send(message(0xFECA, std::string(100, 'a'))), JIN_stack::taken);
    bus.set_there(false);
    EXPECT_EQ(a.send(message(0xFF00, "x")), JIN_stack::busy);
    EXPECT_FALSE(a.stack.bus_is_there());
    pass(10000);
    EXPECT_EQ(a.events(), "8 3 5") << "transfer failed, address lost, bus gone";
    EXPECT_EQ(b.received(), "");
    bus.set_there(true);
    pass(403);
    EXPECT_EQ(a.events(), "6 2 1");
    EXPECT_VALUES("10 true", a.address(), a.stack.bus_is_there());
}

TEST_F(Memory_bus, is_busy_and_loses_on_demand) {
    begin();
    a.stack.set_busy(true);
    EXPECT_EQ(a.send(message(0xFF00, "x")), JIN_stack::busy);
    pass(10000);
    EXPECT_EQ(a.events(), "");
    a.stack.set_busy(false);
    EXPECT_EQ(a.events(), "1");
    bus.set_loss(100, 7);
    int short_ones = 0, long_ones = 0;
    for (int i = 0; i < 1000; ++i) {
        a.send(message(0xFF00, "x"));
        short_ones += b.received() != "";
        a.send(message(0xFF00, std::string(60, 'x')));
        pass(450);
        long_ones += b.received() != "";
    }
    EXPECT_NEAR(short_ones, 900, 40);
    EXPECT_NEAR(long_ones, 387, 60) << "0.9 to the power of 9";
}

TEST_F(Memory_bus, each_client_gets_what_it_wants) {
    begin();
    Listener told;
    JIN_inbox dm(b.stack, &told.waiter, {0xFECA, 0xFECB}), one(b.stack, nullptr, {0xFECA}),
        tight(b.stack, nullptr, {0xFECA}, 2 * (JIN_inbox::overhead + 1)), none(b.stack, nullptr, {0xFECA}, 0),
        all(b.stack, nullptr, {}, 1000, JIN_inbox::everything);
    for (const char* bytes : {"1", "2", "3"}) a.send(message(0xFECA, bytes));
    a.send(message(0xFECB, "4"));
    a.send(message(0xEF00, "5", 99));
    EXPECT_EQ(told.events(), "0") << "one event for all that arrived";
    EXPECT_EQ(take_all(dm), "FECA 0A>FF 6: 31, FECA 0A>FF 6: 32, FECA 0A>FF 6: 33, FECB 0A>FF 6: 34");
    EXPECT_EQ(take_all(one), "FECA 0A>FF 6: 31, FECA 0A>FF 6: 32, FECA 0A>FF 6: 33");
    EXPECT_EQ(take_all(tight), "FECA 0A>FF 6: 31, FECA 0A>FF 6: 32");
    EXPECT_EQ(take_all(all).substr(54), "FECB 0A>FF 6: 34, EF00 0A>63 6: 35");
    EXPECT_VALUES("0 1 3", dm.lost(), tight.lost(), none.lost());
    // A queue that wraps, with messages of every length.
    JIN_inbox ring(b.stack, nullptr, {0xFEDA}, 2000);
    JIN_grow_message got(0, JIN::max_length);
    for (uint32_t n = 0; n <= JIN::max_length; ++n) {
        const JIN_grow_message m = message(0xFEDA, std::string(n, static_cast<char>(n)), 255, 77);
        bus.inject(m);
        ASSERT_TRUE(ring.receive(got));
        ASSERT_EQ(text_of_message(got), text_of_message(m));
    }
    EXPECT_FALSE(ring.receive(got));
    const long before = allocations();
    for (int i = 0; i < 100; ++i) {
        bus.inject(got);
        ring.receive(got);
    }
    EXPECT_EQ(allocations(), before);
}

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
class Transmission : public Memory_bus {
protected:
    Transmission() {
        begin();
        diner.begin(true);
        diner.on_timeout = [this](Timeout& t) { EXPECT_TRUE(counter.handle(t)); };
    }
    void pass(int ms) {
        Memory_bus::pass(ms);
        diner.Diner::handle_timeout();
    }
    void tell(int event) { EXPECT_FALSE(counter.handle(waiter_event(a.stack.module_id(), event, 0))); }

    Test_diner<> diner;
    Counter counter{diner, a.stack, 0xEF00};
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
    a.stack.set_busy(true);
    counter.set_period(1000);
    for (int i = 0; i < 10; ++i) pass(1000), counter.request(20);
    EXPECT_TRUE(counter.is_due());
    a.stack.set_busy(false);
    counter.value = 100;
    EXPECT_EQ(a.events(), "1");
    tell(JIN_stack::event_room);
    EXPECT_EQ(b.received(), "EF00 0A>FF 6: 65 FF, EF00 0A>14 6: 66 14") << "once for each destination";
    // Without the event it finds out by itself.
    a.stack.set_busy(true);
    counter.request();
    a.stack.set_busy(false);
    pass(49);
    EXPECT_EQ(b.received(), "");
    pass(1);
    EXPECT_EQ(b.received(), "EF00 0A>FF 6: 68 FF");
}

TEST_F(Transmission, gives_up_what_is_refused) {
    Counter odd(diner, a.stack, 0xEF01);
    odd.request();
    EXPECT_VALUES("1 0 false", odd.refused(), odd.sent(), odd.is_due());
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

/// In real time, driven by the bus's own thread; clients come and go while others talk.
TEST(Memory_bus_thread, drives_the_bus_for_clients_of_several_threads) {
    JIN_memory_bus bus;
    ASSERT_TRUE(bus.start());
    Test_node a(bus, JIN_name(1), 10), b(bus, JIN_name(2), 20);
    EXPECT_TRUE(wait_until([&] { return a.address() == 10 && b.address() == 20; }));
    std::atomic<bool> stop{false};
    std::vector<std::thread> clients;
    for (Test_node* n : {&a, &a, &b}) {
        clients.emplace_back([n, &stop] {
            while (!stop) {
                JIN_inbox client(n->stack, nullptr, {0xFF00});
                for (const char* bytes : {"1", "2", "a long message"}) n->send(message(0xFECA, bytes));
                take_all(client);
            }
        });
    }
    std::string all;
    EXPECT_TRUE(wait_until([&] { return (all += b.received()).find("FECA 0A>FF") != std::string::npos; }));
    EXPECT_TRUE(wait_until([&] { return (all += a.received()).find("FECA 14>FF") != std::string::npos; }));
    bus.set_there(false);
    EXPECT_TRUE(wait_until([&] { return a.address() < 0; }));
    bus.set_there(true);
    EXPECT_TRUE(wait_until([&] { return a.address() == 10; }));
    stop = true;
    for (std::thread& c : clients) c.join();
}

} // namespace
