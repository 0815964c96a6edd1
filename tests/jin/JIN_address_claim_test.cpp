// SPDX-License-Identifier: MIT
#include "jin/Test_bus.h"
#include "support/test.h"

namespace {

constexpr uint64_t arbitrary = uint64_t{1} << 63;
constexpr int longest_start = 153 + 250; // [ms]

class Claiming : public testing::Test {
protected:
    void pass(int ms) {
        clock.advance(ms);
        bus.process();
    }
    Manual_clock clock;
    JIN_memory_bus bus;
};

/// A node that has 0x80, one that overhears everything, and what is said then.
class Holder : public Claiming {
protected:
    void have(JIN_name name) {
        node = std::make_unique<Test_node>(bus, name, 0x80);
        pass(longest_start);
        ASSERT_EQ(node->address(), 0x80);
        node->events(), witness.received();
    }
    Test_node witness{bus, JIN_name(), JIN::no_address, JIN_inbox::everything};
    std::unique_ptr<Test_node> node;
};

std::string command(JIN_name name, uint8_t address) {
    std::string bytes(9, 0);
    name.to_bytes(reinterpret_cast<unsigned char*>(&bytes[0]));
    bytes[8] = static_cast<char>(address);
    return bytes;
}

TEST_F(Holder, answers_what_concerns_its_address) {
    const JIN_name strong(arbitrary | 100), fixed(100), weaker(arbitrary | 200), stronger(50);
    const std::string own = "EE00 80>FF 6: 64 00 00 00 00 00 00 80", request("\0\xEE\0", 3);
    const std::string to_e4 = "EE00 E4>FF 6: 64 00 00 00 00 00 00 80"; // 128 + 100
    const std::string to_90 = "EE00 90>FF 6: 64 00 00 00 00 00 00 80";
    const std::string cannot = "EE00 FE>FF 6: 64 00 00 00 00 00 00 00";
    struct {
        const char* what;
        JIN_name name;
        JIN_grow_message m;
        std::string said, told; ///< within 153 ms
        int address;            ///< 250 ms later
    } const rows[] = {
        {"a NAME that loses", strong, claim_of(weaker, 0x80), own, "", 0x80},
        {"a NAME that wins", strong, claim_of(stronger, 0x80), to_e4, "3", 0xE4},
        {"a NAME that wins a fixed address", fixed, claim_of(stronger, 0x80), cannot, "3 4", -1},
        {"its own NAME", strong, claim_of(strong, 0x80), "", "7", 0x80},
        {"a NAME of 0", strong, claim_of(JIN_name(), 0x80), "", "", 0x80},
        {"a short claim", strong, message(0xEE00, std::string(7, 0), 255, 0x80), "", "", 0x80},
        {"a question to all", strong, message(0xEA00, request), own, "", 0x80},
        {"a question to it", strong, message(0xEA00, request, 0x80), own, "", 0x80},
        {"a question to another", strong, message(0xEA00, request, 0x81), "", "", 0x80},
        {"a command", strong, message(0xFED8, command(strong, 0x90)), to_90, "3", 0x90},
        {"a command for another", strong, message(0xFED8, command(weaker, 0x90)), "", "", 0x80},
        {"a command to another", strong, message(0xFED8, command(strong, 0x90), 0x81), "", "", 0x80},
        {"a command to no address", strong, message(0xFED8, command(strong, 0xFE)), "", "", 0x80},
        {"a cut command", strong, message(0xFED8, command(strong, 0x90).substr(0, 8)), "", "", 0x80},
        {"its address in use", strong, message(0xFF00, "x", 255, 0x80), own, "7", 0x80},
        {"its address in use to ask", strong, message(0xEA00, request, 255, 0x80), own, "7", 0x80},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        have(r.name);
        bus.inject(r.m);
        pass(153);
        EXPECT_EQ(witness.received(), text_of_message(r.m) + (r.said.empty() ? "" : ", ") + r.said);
        EXPECT_EQ(node->events(), r.told);
        pass(250);
        EXPECT_EQ(node->address(), r.address);
        node.reset();
    }
}

TEST_F(Holder, a_violation_is_answered_once_a_second) {
    have(JIN_name(100));
    const auto violation = message(0xFF00, "x", 255, 0x80);
    for (int i = 0; i < 10; ++i) bus.inject(violation), pass(99);
    EXPECT_EQ(node->events(), "7");
    EXPECT_EQ(bus.num_frames(), 3u) << "question, claim, and one answer";
    pass(10);
    bus.inject(violation);
    EXPECT_EQ(node->events(), "7");
}

TEST_F(Holder, one_without_an_address_takes_it_when_it_is_free) {
    have(JIN_name(100));
    const JIN_name winner(50);
    bus.inject(claim_of(winner, 0x80));
    pass(153);
    EXPECT_EQ(node->stack.claim_state(), JIN_address_claim::no_address);
    EXPECT_EQ(node->send(message(0xFF00, "x")), JIN_stack::busy);
    witness.received();
    bus.inject(message(0xEA00, std::string("\0\xEE\0", 3)));
    pass(153);
    EXPECT_NE(witness.received().find("EE00 FE>FF"), std::string::npos) << "it says that it has none";
    bus.inject(claim_of(winner, 0x81)); // moves away
    pass(250);
    EXPECT_EQ(node->address(), 0x80);
    // The winner comes back and is unplugged: nobody says so.
    bus.inject(claim_of(winner, 0x80));
    pass(153);
    EXPECT_EQ(node->address(), -1);
    pass(60000 + 250);
    pass(250);
    EXPECT_EQ(node->address(), 0x80);
}

/// Nodes that start at random times, with random NAMEs, some of them fixed, on few addresses.
TEST_F(Claiming, everybody_gets_what_the_order_of_names_gives_him) {
    for (unsigned seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const int n = 2 + static_cast<int>(seed % 29);
        std::set<uint64_t> names;
        while (names.size() < static_cast<size_t>(n))
            names.insert((random() % 1000 + 1) | (random() % 3 ? arbitrary : 0));
        std::vector<uint64_t> order(names.begin(), names.end());
        std::shuffle(order.begin(), order.end(), random);
        const unsigned num_wishes = 1 + random() % 8;
        const uint64_t frames_before = bus.num_frames();
        std::deque<Test_node> nodes;
        std::vector<int> wishes;
        for (const uint64_t name : order) {
            wishes.push_back(static_cast<int>(125 + random() % num_wishes));
            nodes.emplace_back(bus, JIN_name(name), static_cast<uint8_t>(wishes.back()));
            if (random() % 2) pass(static_cast<int>(random() % 200));
        }
        pass(longest_start);
        std::map<int, uint64_t> holders;
        for (size_t i = 0; i < nodes.size(); ++i) {
            const int a = nodes[i].address();
            EXPECT_TRUE(a < 0 || holders.emplace(a, order[i]).second) << "two nodes have " << a;
            EXPECT_TRUE(a >= 0 || !(order[i] & arbitrary)) << "there are enough addresses";
        }
        for (size_t i = 0; i < nodes.size(); ++i) {
            const int a = nodes[i].address();
            if (a == wishes[i]) continue;
            EXPECT_VALUES("1 true", holders.count(wishes[i]), holders[wishes[i]] < order[i])
                << "who has less got his wish";
            EXPECT_TRUE(a < 0 || (a >= 128 && a <= 247)) << a;
        }
        // Everybody knows everybody.
        for (const auto& h : holders) {
            JIN_name heard;
            EXPECT_VALUES(texts(true, h.second), nodes[0].stack.name_of(static_cast<uint8_t>(h.first), heard),
                          heard.value);
        }
        // One question each and an answer of everybody, and one claim for each place that somebody lost.
        EXPECT_LE(bus.num_frames() - frames_before, static_cast<uint64_t>(3 * n * n + 10));
    }
}

TEST_F(Claiming, more_nodes_than_addresses) {
    std::deque<Test_node> nodes;
    for (uint64_t i = 130; i > 0; --i) nodes.emplace_back(bus, JIN_name(arbitrary | i), JIN::no_address);
    pass(153 + 250 + 250);
    std::set<int> used;
    for (const Test_node& n : nodes) used.insert(n.address());
    EXPECT_EQ(used.size(), 121u) << "all, and those without";
    for (int i = 0; i < 10; ++i) EXPECT_EQ(nodes[static_cast<size_t>(i)].address(), -1) << "the weakest have none";
    nodes.pop_back();
    for (int i = 0; i < 70; ++i) pass(1000);
    EXPECT_EQ(nodes[9].address() >= 0, true) << "the strongest of them follows one that is gone";
}

/// Frames get lost, and two nodes may believe that they have an address. The first message that arrives ends that.
TEST_F(Claiming, a_lossy_bus_is_put_right_by_what_is_said) {
    for (uint32_t seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::deque<Test_node> nodes;
        bus.set_loss(400, seed);
        for (uint64_t i = 1; i <= 12; ++i)
            nodes.emplace_back(bus, JIN_name(arbitrary | i * 7), static_cast<uint8_t>(128 + i % 3));
        pass(longest_start);
        bus.set_loss(0);
        for (int i = 0; i < 5; ++i) {
            for (Test_node& n : nodes) n.send(message(0xFF00, "x"));
            pass(1100);
        }
        std::set<int> used;
        for (const Test_node& n : nodes) used.insert(n.address());
        EXPECT_VALUES(texts(nodes.size(), 0), used.size(), used.count(-1));
    }
}

} // namespace
