// SPDX-License-Identifier: MIT
// A bus with 30 nodes that tell their trouble codes, among neighbours of whose messages one in twenty is bad.
// `--nightly` as the argument: a day in place of 15 minutes.
#include "glue/diagnostics/Trouble_code_monitor.h"
#include "jin/Test_bus.h"
#include "support/test.h"

namespace {

constexpr uint64_t arbitrary = uint64_t{1} << 63;

std::string random_bytes(std::mt19937& random, size_t n) {
    std::string bytes(n, 0);
    for (char& c : bytes) c = static_cast<char>(random());
    return bytes;
}

/// What no decent node sends: any PGN, any length, from any address; half of it the bus's own PGNs.
JIN_grow_message bad_message(std::mt19937& random) {
    static const uint32_t own[] = {0xEE00, 0xEA00, 0xFED8, 0xFECA, 0xFECB, 0xE800, 0xC300, 0xDF00, 0xFEDA, 0xFC8D};
    const uint32_t pgn = random() % 2 ? own[random() % std::size(own)] : random() & 0x3FFFF;
    const size_t length = random() % 4 ? random() % 10 : random() % 1786;
    return message(pgn, random_bytes(random, length), static_cast<uint8_t>(random()), static_cast<uint8_t>(random()));
}

TEST(Bus_soak, thirty_nodes_among_bad_messages) {
    const int minutes = nightly() ? 24 * 60 : 15;
    Manual_clock clock;
    JIN_memory_bus bus;
    std::mt19937 random(1);
    std::deque<Test_node> nodes;
    for (uint64_t i = 0; i < 30; ++i) nodes.emplace_back(bus, JIN_name(arbitrary | (1000 + i)), uint8_t(128 + i % 20));
    Trouble_code_monitor monitor;
    Listener told;
    JIN_inbox inbox(nodes[0].stack, &told.waiter, {}, 1 << 16);
    JIN_grow_message m(0, JIN::max_length);
    uint64_t sent = 0, heard = 0, bad = 0;
    for (int second = 0; second < minutes * 60; ++second) {
        for (size_t i = 0; i < nodes.size(); ++i) {
            std::string dm1 = "\xFF\xFF" + random_bytes(random, 4 * (random() % 20 ? 1 : 30));
            if (dm1.size() == 6) dm1 += "\xFF\xFF";
            sent += nodes[i].send(message(0xFECA, dm1)) == JIN_stack::taken;
            nodes[i].events();
            if (random() % 20 == 0) bus.inject(bad_message(random)), ++bad;
            clock.advance(33);
            bus.process();
        }
        if (second % 600 == 599) { // the bus goes for a moment
            bus.set_there(false);
            bus.set_there(true);
        }
        while (inbox.receive(m)) {
            monitor.take(m, Atime::now());
            ++heard;
        }
        for (Test_node& n : nodes) n.received();
        clock.advance(10);
        bus.process();
    }
    EXPECT_EQ(inbox.lost(), 0u);
    EXPECT_GT(heard, sent * 9 / 10);
    // A quiet minute, and everybody has an address of his own again that the others know.
    for (int i = 0; i < 70; ++i) {
        clock.advance(1000);
        bus.process();
        for (Test_node& n : nodes) n.send(message(0xFECA, std::string(8, 0)));
    }
    std::set<int> used;
    for (const Test_node& n : nodes) used.insert(n.address());
    EXPECT_VALUES(texts(nodes.size(), 0), used.size(), used.count(-1));
    while (inbox.receive(m)) monitor.take(m, Atime::now());
    for (size_t i = 1; i < nodes.size(); ++i) {
        const Trouble_code_monitor::Node* const row = monitor.node(static_cast<unsigned>(nodes[i].address()));
        EXPECT_TRUE(row && row->active.empty() && row->has_DM1) << nodes[i].address();
    }
    printf("%d min: %llu messages sent, %llu heard, %llu bad ones, %llu frames\n", minutes,
           static_cast<unsigned long long>(sent), static_cast<unsigned long long>(heard),
           static_cast<unsigned long long>(bad), static_cast<unsigned long long>(bus.num_frames()));
}

} // namespace
