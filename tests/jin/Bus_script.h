// SPDX-License-Identifier: MIT
#pragma once
#include "jin/Test_bus.h"
#include "support/test.h"

/// What happens on a bus as a text of steps, "send FF00 0A>FF: 01 02; run 100". Who derives adds words.
///   run MS                     time passes
///   send PGN FROM>TO: BYTES    by the member that wants this address, or by a stranger; "61 x100" are 100 bytes
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
                const std::string text = text_of_message(got), bytes(got.data, got.data + got.size);
                const bool same = bytes.size() > 8 && bytes.find_first_not_of(bytes[0]) == bytes.npos;
                if (got.pgn == JIN::pgn_request || got.pgn == JIN::pgn_address_claimed) continue;
                note(name + (same ? text.substr(0, 16) + text_of(" x%u", got.size) : text));
            }
            const std::string told = node->events();
            if (!told.empty()) note(name + "told " + told);
        }
    }
    void send(const std::string& text) {
        unsigned pgn, from, to, times = 1;
        char bytes[200] = "";
        ASSERT_GE(sscanf(text.c_str(), "%x %x>%x: %199[0-9A-F ]x%u", &pgn, &from, &to, bytes, &times), 3) << text;
        ASSERT_LT(strlen(bytes), 199u) << text;
        JIN_grow_message m = message(pgn, "", static_cast<uint8_t>(to), static_cast<uint8_t>(from));
        for (Bytes b(bytes); times > 0; --times) m.append(b.view().data, b.view().size);
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
