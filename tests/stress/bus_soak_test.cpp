// SPDX-License-Identifier: MIT
// A bus with 30 nodes that tell their trouble codes, among neighbours of whose messages one in twenty is bad.
// `--nightly` as the argument: a day in place of 15 minutes.
#include "glue/diagnostics/Trouble_code_monitor.h"
#include "jin/Test_bus.h"
#include "support/stress.h"
#include "support/test.h"

namespace {

/// What no decent node sends: any PGN, any length, from any address; half of it the bus's own PGNs.
JIN_grow_message bad_message(Random& random) {
    static const uint32_t own[] = {0xEE00, 0xEA00, 0xFED8, 0xFECA, 0xFECB, 0xE800, 0xC300, 0xDF00, 0xFEDA, 0xFC8D};
    const uint32_t pgn = random(2) ? own[random(std::size(own))] : random(0x40000u);
    const unsigned lengths[] = {3, 8, 9, random(10u), random(1786u)}; // those of a request, a claim and a command
    const std::string bytes = random.bytes(lengths[random(5)]);
    return message(pgn, bytes, static_cast<uint8_t>(random(256)), static_cast<uint8_t>(random(256)));
}

TEST(Bus_soak, thirty_nodes_among_bad_messages) {
    Manual_clock clock;
    JIN_memory_bus bus;
    Random random(1);
    std::deque<Test_node> nodes;
    constexpr uint64_t arbitrary = uint64_t{1} << 63;
    for (uint64_t i = 0; i < 30; ++i) nodes.emplace_back(bus, JIN_name(arbitrary | (1000 + i)), uint8_t(128 + i % 20));
    Trouble_code_monitor monitor;
    JIN_inbox inbox(nodes[0].stack, nullptr, {}, 1 << 16);
    JIN_grow_message m(0, JIN::max_length);
    unsigned sent = 0, heard = 0;
    const int outage = nightly() ? 600 : 60; // [s] from one to the next
    /// Each sends such bytes, over a second.
    const auto pass_second = [&](const std::function<std::string()>& bytes) {
        for (Test_node& n : nodes) {
            sent += n.send(message(0xFECA, bytes())) == JIN_stack::taken;
            n.events(), n.received();
            clock.advance(33), bus.process();
        }
        for (; inbox.receive(m); ++heard) monitor.take(m, Atime::now());
    };
    for (int second = 0; second < (nightly() ? 24 * 60 : 15) * 60; ++second) {
        if (second % outage == outage - 1) bus.set_there(false), bus.set_there(true); // it goes for a moment
        bus.set_loss(second % outage ? 0 : 400);                                      // and claims get lost
        pass_second([&] {
            if (random(20) == 0) bus.inject(bad_message(random));
            return random(20) ? "\xFF\xFF" + random.bytes(4) + "\xFF\xFF" : "\xFF\xFF" + random.bytes(120);
        });
    }
    EXPECT_EQ(inbox.lost(), 0u);
    EXPECT_GT(heard, sent / 10 * 9);
    printf("%u messages sent, %u heard, %lu frames\n", sent, heard, static_cast<unsigned long>(bus.num_frames()));
    // A quiet minute, and everybody has an address of his own again that the others know.
    for (int second = 0; second < 70; ++second) pass_second([] { return std::string(8, 0); });
    std::set<int> used;
    for (const Test_node& n : nodes) {
        const int address = n.address();
        EXPECT_TRUE(address >= 0 && used.insert(address).second) << address;
        const Trouble_code_monitor::Node* const row = monitor.node(static_cast<unsigned>(address));
        EXPECT_TRUE(&n == &nodes[0] || (row && row->active.empty() && row->has_DM1)) << address;
    }
}

} // namespace
