// SPDX-License-Identifier: MIT
#include "glue/jin/JIN_name.h"
#include "glue/jin/JIN_transmission.h"
#include "jin/Bus_script.h"

namespace {

TEST_F(Bus_script, each_client_gets_what_it_wants) {
    Test_node a(bus, JIN_name(1), 10), b(bus, JIN_name(2), 20);
    members = {{"", 10, &a}};
    run(500);
    Inbox told;
    JIN_inbox two(b.stack, &told.waiter, {0xFECA, 0xFECB}),
        tight(b.stack, nullptr, {0xFECA}, 2 * (JIN_inbox::overhead + 1)), none(b.stack, nullptr, {0xFECA}, 0),
        all(b.stack, nullptr, {}, 1000, JIN_inbox::everything);
    play("send FECA 0A>FF: 31; send FECA 0A>FF: 32; send FECA 0A>FF: 33; send FECB 0A>FF: 34; send EF00 0A>63: 35");
    EXPECT_EQ(told.events(), "0") << "one event for all that arrived";
    EXPECT_EQ(take_all(two), "FECA 0A>FF 6: 31, FECA 0A>FF 6: 32, FECA 0A>FF 6: 33, FECB 0A>FF 6: 34");
    EXPECT_EQ(take_all(tight), "FECA 0A>FF 6: 31, FECA 0A>FF 6: 32");
    EXPECT_EQ(take_all(all).substr(54), "FECB 0A>FF 6: 34, EF00 0A>63 6: 35");
    EXPECT_VALUES("0 1 3", two.lost(), tight.lost(), none.lost());
    // A queue that wraps, with messages of every length.
    JIN_inbox ring(b.stack, nullptr, {0xFEDA}, 2000);
    JIN_grow_message got(0, JIN::max_length);
    long before = 0;
    for (uint32_t n = 0; n <= JIN::max_length; ++n) {
        const JIN_grow_message m = message(0xFEDA, std::string(n, static_cast<char>(n)), 255, 77);
        if (n) before = allocations();
        bus.inject(m);
        ASSERT_TRUE(ring.receive(got));
        ASSERT_TRUE(n == 0 || allocations() == before) << n;
        ASSERT_EQ(text_of_message(got), text_of_message(m));
    }
    EXPECT_FALSE(ring.receive(got));
    EXPECT_EQ(Test_node(bus, JIN_name(), 30).send(message(0xFF00, "x")), JIN_stack::refused) << "it only listens";
}

/// Two nodes, 10 and 20, the first one with a diner that sends. It does not run: its handlers are called here, at the
/// instants of the clock. More steps:
///   busy, free               there is no room on the bus for a, there is again
///   period MS, ask TO        the diner shall send
///   says N                   from this number on; without a number it says nothing
///   tell EVENT               it hears of the stack
class Memory_bus : public Bus_script {
protected:
    struct Counter : JIN::Transmission<JIN_grow_message> {
        using Transmission::Transmission;
        bool build(JIN_grow_message& m, uint8_t destination) override {
            return !silent && m.append_uint8(++value) && m.append_uint8(destination);
        }
        uint8_t value = 0;
        bool silent = false;
    };
    Memory_bus() {
        step = 1;
        members = {{"a ", 10, &a}, {"b ", 20, &b}};
        words["busy"] = [this](const char*) { a.stack.set_busy(true); };
        words["free"] = [this](const char*) { a.stack.set_busy(false); };
        words["period"] = [this](const char* ms) { counter.set_period(atoi(ms)); };
        words["ask"] = [this](const char* to) { counter.request(static_cast<uint8_t>(strtoul(to, nullptr, 16))); };
        words["says"] = [this](const char* n) { counter.value = uint8_t(atoi(n)), counter.silent = !*n; };
        words["tell"] = [this](const char* event) {
            counter.handle(waiter_event(a.stack.module_id(), atoi(event), 0));
        };
        words["due"] = [this](const char*) {
            note(texts("due", counter.is_due(), counter.sent(), counter.refused(), a.stack.bus_is_there()));
        };
        diner.begin(true);
        diner.on_timeout = [this](Timeout& t) { EXPECT_TRUE(counter.handle(t)); };
        run(500);
    }
    void turn() override {
        diner.Diner::handle_timeout();
        Bus_script::turn();
    }

    Test_node a{bus, JIN_name(1), 10}, b{bus, JIN_name(2), 20};
    Test_diner<> diner;
    Counter counter{diner, a.stack, 0xEF00};
};

TEST_F(Memory_bus, a_transmission_goes_out_in_its_period_on_request_and_when_there_is_room) {
    const std::pair<const char*, const char*> table[] = {
        {"period 1000; run 1000; ask 14; says; run 1000; due; says 3; period 0; run 5000",
         "0 b EF00 0A>FF 6: 01 FF\n1000 b EF00 0A>FF 6: 02 FF\n1000 b EF00 0A>14 6: 03 14\n2000 due false 4 0 true\n"},
        {"busy; period 1000; run 1000; ask 14; run 2000; ask 14; due; says 100; free; tell 1; period 0; due",
         "3000 due true 4 0 true\n3000 a told 1\n" // once for each destination
         "3000 b EF00 0A>FF 6: 65 FF\n3000 b EF00 0A>14 6: 66 14\n3000 due false 6 0 true\n"},
        // Without the event it finds out by itself.
        {"busy; ask FF; free; run 100", "0 a told 1\n50 b EF00 0A>FF 6: 68 FF\n"},
        {"unplug; quiet; says 0; ask FF; run 10000; due; plug; run 403; tell 2; due",
         "10000 due true 7 0 false\n10000 a told 6\n10000 b told 6\n10278 b told 2\n10327 a told 2 1\n"
         "10403 b EF00 0A>FF 6: 16 FF\n10403 due false 8 0 true\n"}}; // 22 times built in 10 s
    for (const auto& [steps, said] : table) EXPECT_EQ(play(steps), said);
    Counter odd(diner, a.stack, 0xEF01);
    odd.request();
    EXPECT_VALUES("1 0 false", odd.refused(), odd.sent(), odd.is_due());
}

TEST(Name, fields_lie_where_the_bus_has_them) {
    JIN_name n(0x7FFEFFFFFFFFFFFF); // what was there goes, and what does not fit changes no neighbour
    n.set_arbitrary_address(true).set_industry_group(8 + 2).set_device_class_instance(16 + 3);
    n.set_device_class(128 + 25);
    n.set_function(256 + 129).set_function_instance(32 + 5).set_ecu_instance(8 + 6);
    n.set_manufacturer_code(2048 + 1234).set_identity_number(0x200000 + 1000000);
    EXPECT_EQ(n.value, 0xA332812E9A4F4240u);
    EXPECT_VALUES("true 2 3 25 129 5 6 1234 1000000", n.arbitrary_address(), n.industry_group(),
                  n.device_class_instance(), n.device_class(), n.function(), n.function_instance(), n.ecu_instance(),
                  n.manufacturer_code(), n.identity_number());
}

TEST(Message, only_what_applications_may_send_is_sendable) {
    static unsigned char bytes[1786];
    using M = JIN_message;
    for (const M& m : {M(0xFECA, bytes, 0), M(0xFECA, bytes, 1785, 255, 0), M(0xFECA, bytes, 20, 253, 7),
                       M(0xEF00, bytes, 8, 0), M(0x3FFFF, bytes, 8), M(0xEA00, bytes, 3)})
        EXPECT_TRUE(m.is_sendable()) << std::hex << m.pgn << ' ' << m.size;
    for (const M& m :
         {M(0xFECA, bytes, 1786), M(0xFECA, bytes, 8, 254), M(0xFECA, bytes, 8, 255, 8), M(0xEF01, bytes, 8, 0),
          M(0x40000, bytes, 8), M(0xEE00, bytes, 8), M(0xEB00, bytes, 8), M(0xEC00, bytes, 8)})
        EXPECT_FALSE(m.is_sendable()) << std::hex << m.pgn << ' ' << m.size;
    uint32_t pgn;
    for (uint32_t size = 0; size < 12; ++size)
        EXPECT_EQ(M(0xEA00, bytes, size).get_requested_pgn(pgn), size >= 3 && size <= 8) << size;
    EXPECT_FALSE(M(0xE800, bytes, 3).get_requested_pgn(pgn));
}

TEST(Grow_message, grows_to_its_limit_and_keeps_what_it_has) {
    JIN_grow_message m(0xFECA, 4);
    m.source = 3;
    m.append_uint8(1), m.append_uint16_le(0x0302), m.append_uint32_le(0x07060504), m.append("", 0);
    const JIN_grow_message copy(m);
    EXPECT_TRUE(m.resize(9));
    EXPECT_EQ(text_of_message(m), text_of_message(copy) + " FF FF");
    EXPECT_EQ(text_of_message(copy), "FECA 03>FF 6: 01 02 03 04 05 06 07");
    const std::string many(1785, 'x');
    EXPECT_VALUES("false false false", m.append(many.data(), 1785), m.resize(1786), m.append(many.data(), 0xFFFFFFFE));
    EXPECT_VALUES("9 true false", m.size, m.append(many.data(), 1776), m.append_uint8(0));
}

} // namespace
