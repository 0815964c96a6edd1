// SPDX-License-Identifier: MIT
#include "jin/Test_bus.h"
#include "support/test.h"

namespace {

constexpr uint64_t arbitrary = uint64_t{1} << 63;
const std::string request("\0\xEE\0", 3);

class Claiming : public testing::Test {
protected:
    void pass(int ms) {
        clock.advance(ms);
        bus.process();
    }
    /// A node that has 0x80, of which all has been told.
    void have(JIN_name name) {
        node.reset();
        node = std::make_unique<Test_node>(bus, name, 0x80);
        pass(longest_start);
        ASSERT_EQ(node->address(), 0x80);
        node->events(), witness.received();
    }
    static constexpr int longest_start = 153 + 250; // [ms]
    Manual_clock clock;
    JIN_memory_bus bus;
    Test_node witness{bus, JIN_name(), JIN::no_address, JIN_inbox::everything}; // overhears
    std::unique_ptr<Test_node> node;
};

std::string command(JIN_name name, uint8_t address) {
    std::string bytes(9, static_cast<char>(address));
    name.to_bytes(reinterpret_cast<unsigned char*>(&bytes[0]));
    return bytes;
}

TEST_F(Claiming, answers_what_concerns_its_address) {
    const JIN_name strong(arbitrary | 100), fixed(100), weaker(arbitrary | 200), stronger(50);
    const std::string own = "EE00 80>FF 6: 64 00 00 00 00 00 00 80";
    const std::string to_e4 = "EE00 E4>FF 6: 64 00 00 00 00 00 00 80"; // 128 + 100
    const std::string to_90 = "EE00 90>FF 6: 64 00 00 00 00 00 00 80";
    const std::string cannot = "EE00 FE>FF 6: 64 00 00 00 00 00 00 00";
    const struct {
        const char* what;
        JIN_name name;
        JIN_grow_message m;
        std::string said, told; ///< within 153 ms
        int address;            ///< 250 ms later
    } rows[] = {
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
        have(r.name);
        bus.inject(r.m);
        pass(153);
        EXPECT_EQ(witness.received(), text_of_message(r.m) + (r.said.empty() ? "" : ", ") + r.said) << r.what;
        EXPECT_EQ(node->events(), r.told) << r.what;
        pass(250);
        EXPECT_EQ(node->address(), r.address) << r.what;
    }
}

TEST_F(Claiming, a_violation_is_answered_once_a_second) {
    have(JIN_name(100));
    std::string told;
    for (int ms = 0; ms < 2000; ms += 99, pass(99)) {
        bus.inject(message(0xFF00, "x", 255, 0x80));
        told += node->events() + ",";
    }
    EXPECT_EQ(told, "7,,,,,,,,,,,7,,,,,,,,,,");
    EXPECT_EQ(bus.num_frames(), 4u) << "question, claim, and two answers";
}

TEST_F(Claiming, one_without_an_address_takes_it_when_it_is_free) {
    const JIN_name winner(50);
    have(JIN_name(100));
    bus.inject(claim_of(winner, 0x80));
    pass(153);
    EXPECT_VALUES(texts(JIN_address_claim::no_address, JIN_stack::busy), node->stack.claim_state(),
                  node->send(message(0xFF00, "x")));
    witness.received();
    bus.inject(message(0xEA00, request));
    pass(153);
    EXPECT_NE(witness.received().find("EE00 FE>FF"), std::string::npos) << "it says that it has none";
    bus.inject(claim_of(winner, 0x81)); // moves away
    pass(250);
    EXPECT_EQ(node->address(), 0x80);
    bus.inject(claim_of(winner, 0x80)); // comes back, and is unplugged: nobody says so
    pass(153);
    EXPECT_EQ(node->address(), -1);
    pass(60000 + 250);
    pass(250);
    EXPECT_EQ(node->address(), 0x80);
}

/// Nodes that start at random times, with random NAMEs, some of them fixed, on few addresses. When frames get lost, two
/// may believe that they have an address: the first message that arrives ends that.
TEST_F(Claiming, everybody_gets_what_the_order_of_names_gives_him) {
    for (unsigned seed = 1; seed <= 80; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const bool lossy = seed > 60;
        const size_t n = 2 + seed % 29;
        std::set<uint64_t> names;
        while (names.size() < n) names.insert((random() % 1000 + 1) | (random() % 3 ? arbitrary : 0));
        std::vector<uint64_t> order(names.begin(), names.end());
        std::shuffle(order.begin(), order.end(), random);
        bus.set_loss(lossy ? 400 : 0, seed);
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
        // One question each and an answer of everybody, and one claim for each place that somebody lost.
        EXPECT_LE(bus.num_frames() - frames_before, 3 * n * n + 10);
        bus.set_loss(0);
        for (int i = 0; lossy && i < 5; ++i) {
            for (Test_node& node : nodes) node.send(message(0xFF00, "x"));
            pass(1100);
        }
        std::map<int, uint64_t> holders;
        for (size_t i = 0; i < n; ++i) {
            const int a = nodes[i].address();
            EXPECT_TRUE(a < 0 || holders.emplace(a, order[i]).second) << "two nodes have " << a;
            EXPECT_TRUE(a >= 0 || !(order[i] & arbitrary)) << "there are enough addresses";
            EXPECT_TRUE(a < 0 || a == wishes[i] || (a >= 128 && a <= 247)) << a;
        }
        if (lossy) continue;
        for (size_t i = 0; i < n; ++i)
            EXPECT_TRUE(nodes[i].address() == wishes[i] || (holders.count(wishes[i]) && holders[wishes[i]] < order[i]))
                << "who has less got his wish";
        for (const auto& [address, name] : holders) {
            JIN_name heard;
            EXPECT_VALUES(texts(true, name), nodes[0].stack.name_of(static_cast<uint8_t>(address), heard), heard.value)
                << "everybody knows everybody";
        }
    }
}

TEST_F(Claiming, more_nodes_than_addresses) {
    std::deque<Test_node> nodes;
    for (uint64_t i = 130; i > 0; --i) nodes.emplace_back(bus, JIN_name(arbitrary | i), JIN::no_address);
    pass(longest_start + 250);
    std::set<int> used;
    for (const Test_node& n : nodes) used.insert(n.address());
    EXPECT_EQ(used.size(), 121u) << "all, and those without";
    for (size_t i = 0; i < 10; ++i) EXPECT_EQ(nodes[i].address(), -1) << "the weakest have none";
    nodes.pop_back();
    for (int i = 0; i < 70; ++i) pass(1000);
    EXPECT_GE(nodes[9].address(), 0) << "the strongest of them follows one that is gone";
}

} // namespace
