// SPDX-License-Identifier: MIT
#include "jin/Bus_script.h"

using namespace std::string_literals;

namespace {

constexpr uint64_t arbitrary = uint64_t{1} << 63;
const std::string request("\0\xEE\0", 3);

class Claiming : public Bus_script {
protected:
    void pass(int ms) { clock.advance(ms), bus.process(); }
    /// A node that has 0x80, of which all has been told.
    void have(JIN_name name) {
        node.reset();
        node = std::make_unique<Test_node>(bus, name, 0x80);
        pass(longest_start);
        ASSERT_EQ(node->address(), 0x80);
        node->events(), witness.received();
    }
    static constexpr int longest_start = 153 + 250;                             // [ms]
    Test_node witness{bus, JIN_name(), JIN::no_address, JIN_inbox::everything}; // overhears
    std::unique_ptr<Test_node> node;
};

TEST_F(Claiming, answers_what_concerns_its_address) {
    const JIN_name strong(arbitrary | 100), fixed(100), weaker(arbitrary | 200), stronger(50);
    const std::string name = "d\0\0\0\0\0\0\x80"s, own = "EE00 80>FF 6: 64 00 00 00 00 00 00 80",
                      to_e4 = "EE00 E4>FF" + own.substr(10), to_90 = "EE00 90>FF" + own.substr(10), // E4: 128 + 100
        cannot = "EE00 FE>FF 6: 64 00 00 00 00 00 00 00";
    // What is said and told within 153 ms, and its address 250 ms later.
    const std::tuple<const char*, JIN_name, JIN_grow_message, std::string, std::string, int> rows[] = {
        {"a NAME that loses", strong, claim_of(weaker, 0x80), own, "", 0x80},
        {"a NAME that wins", strong, claim_of(stronger, 0x80), to_e4, "3", 0xE4},
        {"a NAME that wins a fixed address", fixed, claim_of(stronger, 0x80), cannot, "3 4", -1},
        {"its own NAME", strong, claim_of(strong, 0x80), "", "7", 0x80},
        {"a NAME of 0", strong, claim_of(JIN_name(), 0x80), "", "", 0x80},
        {"a short claim", strong, message(0xEE00, std::string(7, 0), 255, 0x80), "", "", 0x80},
        {"a question to all", strong, message(0xEA00, request), own, "", 0x80},
        {"a question to it", strong, message(0xEA00, request, 0x80), own, "", 0x80},
        {"a question to another", strong, message(0xEA00, request, 0x81), "", "", 0x80},
        {"a command", strong, message(0xFED8, name + '\x90'), to_90, "3", 0x90},
        {"a command for another", fixed, message(0xFED8, name + '\x90'), "", "", 0x80},
        {"a command to another", strong, message(0xFED8, name + '\x90', 0x81), "", "", 0x80},
        {"a command to no address", strong, message(0xFED8, name + '\xFE'), "", "", 0x80},
        {"a cut command", strong, message(0xFED8, name), "", "", 0x80},
        {"its address in use to ask", strong, message(0xEA00, request, 255, 0x80), own, "7", 0x80},
    };
    for (const auto& [what, its_name, m, said, told, address] : rows) {
        have(its_name);
        bus.inject(m);
        bus.process();
        const bool later = said == cannot; // who has no address waits before he says so, unlike others that have none
        EXPECT_EQ(witness.received(), text_of_message(m) + (said.empty() || later ? "" : ", " + said)) << what;
        pass(153);
        EXPECT_EQ(witness.received(), later ? said : "") << what;
        EXPECT_EQ(node->events(), told) << what;
        if (told == "7") { // answered once a second
            bus.inject(m);
            bus.process();
            EXPECT_VALUES(text_of_message(m) + " ", witness.received(), node->events()) << what;
        }
        pass(250);
        EXPECT_EQ(node->address(), address) << what;
        EXPECT_EQ(node->stack.claim_state() == JIN_address_claim::no_address, address < 0) << what;
        bus.inject(message(0xEA00, request));
        bus.process();
        const std::string at_once = witness.received();
        EXPECT_EQ(at_once.find("EE00") == at_once.npos, address < 0) << what;
        pass(153);
        EXPECT_EQ(witness.received(), address < 0 ? cannot : "") << what;
    }
}

/// Controllers of one batch that want any address: of twelve the last would speak together with the first. Of the last
/// one here the first choice is 0x80.
TEST_F(Claiming, nodes_that_start_together_do_not_speak_at_once_and_wait_for_answers) {
    have(JIN_name(100));
    const uint64_t frames_before = bus.num_frames();
    std::deque<Test_node> batch;
    for (uint64_t i = 110; i <= 120; ++i) batch.emplace_back(bus, JIN_name(arbitrary | i), JIN::no_address);
    int instants = 0;
    for (int ms = 0; ms <= 153; ++ms, pass(1)) instants += witness.received().find("EA00 FE>FF 6: 00 EE 00") == 0;
    EXPECT_EQ(instants, 11);
    pass(500);
    EXPECT_EQ(batch.back().address(), 0x81);
    EXPECT_EQ(bus.num_frames() - frames_before, 33u) << "of each a question, its answer, and a claim";
}

/// Nodes that start at random times, with random NAMEs, some of them fixed, on few addresses; in the end too many.
TEST_F(Claiming, everybody_gets_what_the_order_of_names_gives_him) {
    for (unsigned seed = 1; seed <= 61; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const bool too_many = seed > 60;
        const size_t n = too_many ? 130 : 2 + seed % 29;
        const unsigned num_wishes = 1 + random() % 8;
        const uint64_t frames_before = bus.num_frames();
        std::deque<Test_node> nodes;
        std::vector<std::pair<uint64_t, int>> names; // and what each would like to have
        while (nodes.size() < n) {
            names.emplace_back((random() % 1000 * 200 + names.size() + 1) | (random() % 3 || too_many ? arbitrary : 0),
                               125 + random() % num_wishes);
            nodes.emplace_back(bus, JIN_name(names.back().first), static_cast<uint8_t>(names.back().second));
            if (random() % 2 && !too_many) pass(static_cast<int>(random() % 200));
        }
        pass(longest_start + (too_many ? 250 : 0));
        // One question each and an answer of everybody, and one claim for each place that somebody lost.
        EXPECT_LE(bus.num_frames() - frames_before, 3 * n * n + 10);
        std::map<int, uint64_t> holders;
        for (size_t i = 0; i < n; ++i) {
            const int a = nodes[i].address();
            EXPECT_TRUE(a < 0 || holders.emplace(a, names[i].first).second) << "two nodes have " << a;
            EXPECT_TRUE(a < 0 || a == names[i].second || (a >= 128 && a <= 247 && names[i].first & arbitrary)) << a;
        }
        for (size_t i = 0; i < n; ++i) {
            const auto& [name, wish] = names[i];
            const auto taken = [&, name = name](int a) { return holders.count(a) && holders[a] <= name; };
            EXPECT_TRUE(taken(wish)) << "who has less got his wish";
            if (nodes[i].address() >= 0 || !(name & arbitrary)) continue;
            for (int a = 128; a <= 247; ++a) EXPECT_TRUE(taken(a)) << a << " could be his";
        }
        for (const auto& [address, name] : holders) {
            JIN_name heard;
            EXPECT_VALUES(texts(true, name), nodes[0].stack.name_of(static_cast<uint8_t>(address), heard), heard.value)
                << "everybody knows everybody";
        }
    }
}

} // namespace
