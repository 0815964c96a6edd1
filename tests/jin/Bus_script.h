// SPDX-License-Identifier: MIT
#pragma once
#include "jin/Test_bus.h"
#include "support/test.h"

/// What happens on a bus as a text of steps, "send FF00 0A>FF: 01 02; run 100". Who derives adds words.
///   run MS                     time passes
///   send PGN FROM>TO: BYTES    by the member that wants this address, or by a stranger
///   unplug, plug               the bus goes, and comes back
///   quiet                      forgets what was noted so far
/// Noted is what is not taken, and what members receive and are told: a line each, behind the ms since the last quiet.
class Bus_script : public testing::Test {
protected:
    /// Do these steps; the lines that they make.
    std::string play(const std::string& steps) {
        noted();
        std::istringstream all(steps);
        for (std::string s; std::getline(all >> std::ws, s, ';'); turn()) {
            const size_t word = s.find(' ');
            words.at(s.substr(0, word))(word == std::string::npos ? "" : s.c_str() + word + 1);
        }
        return noted();
    }
    std::string noted() {
        turn();
        since = now;
        return std::exchange(log, "");
    }
    void note(const std::string& what) { log += std::to_string(now - since) + " " + what + "\n"; }

    void run(int ms) {
        for (; ms > 0; ms -= step) {
            clock.advance(std::min(ms, step));
            now += std::min(ms, step);
            turn();
        }
    }
    virtual void turn() {
        bus.process();
        for (const auto& [name, wish, node] : members) {
            for (JIN_grow_message got; node->inbox.receive(got);) {
                if (got.pgn == JIN::pgn_request || got.pgn == JIN::pgn_address_claimed) continue;
                note(name + text_of_message(got));
            }
            const std::string told = node->events();
            if (!told.empty()) note(name + "told " + told);
        }
    }
    void send(const std::string& text) {
        unsigned pgn, from, to;
        int begin = 0;
        ASSERT_EQ(sscanf(text.c_str(), "%x %x>%x: %n", &pgn, &from, &to, &begin), 3) << text;
        const Bytes bytes(text.substr(static_cast<size_t>(begin)));
        const JIN_grow_message m = message(pgn, {bytes.bytes.begin(), bytes.bytes.end()}, uint8_t(to), uint8_t(from));
        const auto sender =
            std::find_if(members.begin(), members.end(), [&](auto& m) { return std::get<1>(m) == from; });
        if (sender == members.end()) return bus.inject(m);
        const int result = std::get<2>(*sender)->send(m);
        if (result != JIN_stack::taken) note(result == JIN_stack::busy ? "busy" : "refused");
    }

    Manual_clock clock{1700000000};
    JIN_memory_bus bus;
    std::vector<std::tuple<std::string, unsigned, Test_node*>> members; // name, wish
    std::map<std::string, std::function<void(const char*)>> words = {
        {"run", [this](const char* ms) { run(atoi(ms)); }},
        {"send", [this](const char* text) { send(text); }},
        {"unplug", [this](const char*) { bus.set_there(false); }},
        {"plug", [this](const char*) { bus.set_there(true); }},
        {"quiet", [this](const char*) { noted(); }}};
    int step = 10;          ///< [ms] that time goes on at once
    int now = 0, since = 0; // [ms]

private:
    std::string log;
};
