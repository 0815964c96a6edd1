// SPDX-License-Identifier: MIT
#include "Bus_fixture.h"
#include "glue/NV_store/Safe_file.h"
#include "glue/diagnostics/Diagnostics_messages.h"
#include "glue/diagnostics/Isobus_diagnostics.h"
#include "glue/diagnostics/Request_answers.h"
#include "platform/pcf_host.h"
#include "support/Temporary_folder.h"
#include "support/allocations.h"
#include "support/capture.h"
#include "support/wait_until.h"
#include <atomic>
#include <random>
#include <thread>

using namespace Trouble_code_messages;
using Table = Trouble_code_table;

namespace {

using DM1 = Bus_fixture;

TEST_F(DM1, Is_sent_at_once_then_each_second_and_once_without_codes) {
    begin();
    run(3000);
    EXPECT_EQ(lines(), "") << "silent without codes";
    EXPECT_TRUE(manager->set_active(1234, 31));
    turn();
    run(500);
    EXPECT_TRUE(manager->set_active(520192, 12)); // another code inside the second; two take 100 ms
    run(1000);
    EXPECT_TRUE(manager->set_inactive(1234, 31));
    run(600);
    EXPECT_TRUE(manager->set_inactive(520192, 12));
    run(3000);
    EXPECT_EQ(lines(), "0 65226 all: FF FF D2 04 1F 01 FF FF\n"
                       "610 65226 all: FF FF 00 F0 EC 01 D2 04 1F 01\n"
                       "1100 65226 all: FF FF 00 F0 EC 01 D2 04 1F 01\n"
                       "1510 65226 all: FF FF 00 F0 EC 01 FF FF\n"
                       "2000 65226 all: FF FF 00 F0 EC 01 FF FF\n"
                       "2110 65226 all: FF FF 00 00 00 00 FF FF\n");
    // Once more within a second of its end: it waits for the tick.
    manager->set_active(520192, 12);
    run(900);
    manager->set_inactive(520192, 12);
    run(200);
    manager->set_active(520192, 12);
    run(2000);
    EXPECT_EQ(lines(), "10 65226 all: FF FF 00 F0 EC 02 FF FF\n"
                       "1010 65226 all: FF FF 00 00 00 00 FF FF\n"
                       "2110 65226 all: FF FF 00 F0 EC 03 FF FF\n");
}

TEST_F(DM1, Has_lamps_and_comes_always_in_the_other_mode) {
    begin(Mode::j1939);
    run(2500);
    manager->set_active(1234, 31, {Lamp::malfunction, Lamp::fast});
    manager->set_active(1234, 31, {Lamp::amber_warning, Lamp::slow}); // one code, however its lamp is called
    run(1000);
    EXPECT_EQ(lines(), "1000 65226 all: 00 FF 00 00 00 00 FF FF\n"
                       "2000 65226 all: 00 FF 00 00 00 00 FF FF\n"
                       "2510 65226 all: 04 F3 D2 04 1F 01 FF FF\n"
                       "3000 65226 all: 04 F3 D2 04 1F 01 FF FF\n");
}

TEST_F(DM1, Is_built_when_there_is_room) {
    begin();
    node.set_busy(true);
    for (unsigned spn = 1; spn <= 5; ++spn) {
        manager->set_active(spn, 3);
        run(2100);
    }
    for (unsigned spn = 1; spn < 5; ++spn) manager->set_inactive(spn, 3);
    node.set_busy(false);
    run(300);
    EXPECT_EQ(got, std::vector<std::string>{"FF FF 05 00 03 01 FF FF"}) << "one, of what is true now";
}

TEST_F(DM1, Of_many_codes_never_falls_silent) {
    for (const unsigned n : {34u, 250u, 251u, 446u, 500u}) {
        begin();
        for (unsigned spn = 1; spn <= n; ++spn) manager->set_active(spn, 1);
        run(16000);
        const unsigned sent = std::min(n, 250u), airtime = JIN::num_packets(2 + 4 * sent) * 50;
        EXPECT_NEAR(static_cast<double>(got.size()), 16000 / std::max(airtime, 1000u), 1) << n;
        ASSERT_FALSE(got.empty()) << n;
        EXPECT_EQ(Msg_DM(Bytes(got.back()).view()).num_places(), sent) << n;
    }
}

TEST_F(DM1, Stops_and_starts_as_DM13_says) {
    const char *const stop = "3F FF FF FF FF FF FF FF", *const stop_5_s = "3F FF FF FF 05 00 FF FF";
    const char *const hold = "FF FF FF 0F FF FF FF FF", *const start = "7F FF FF FF FF FF FF FF";
    const struct {
        const char *first, *then; ///< the second one 5 s later
        int silent;               ///< [s]
    } table[] = {{"FF FF FF FF FF FF FF FF", nullptr, 0},
                 {"BF FF FF FF FF FF FF FF", nullptr, 0},
                 {"3F FF FF", nullptr, 0}, // cut short
                 {stop, nullptr, 6},
                 {stop, stop, 11},
                 {stop, hold, 11},
                 {stop, "FF FF FF FF FF FF FF FF", 6},
                 {hold, nullptr, 0},
                 {stop, start, 5},
                 {stop_5_s, nullptr, 5},
                 {stop_5_s, stop, 11},
                 {"3F FF FF FF 64 00 FF FF", hold, 100}, // a time that was named is not cut short
                 {"3F FF FF FF 64 00 FF FF", start, 5},
                 {"3F FF FF FF 00 00 FF FF", nullptr, 6}};
    for (const auto& row : table) {
        begin();
        manager->set_active(7, 7);
        run(2010);
        restart();
        send(pgn_DM13, row.first, JIN::global);
        run(4990);
        if (row.then) send(pgn_DM13, row.then, JIN::global);
        run(100000);
        const int first = std::stoi(log.front());
        EXPECT_NEAR(first, row.silent ? row.silent * 1000 : 990, 10) << row.first;
        EXPECT_NEAR(static_cast<double>(got.size()), 105 - row.silent, 2) << row.first;
    }
}

using Manager = Bus_fixture;

TEST_F(Manager, Answers_requests_by_one_table) {
    const struct {
        uint32_t pgn;
        const char* answer; ///< null: it is refused
    } table[] = {{pgn_DM1, "FF FF 00 00 00 00 FF FF"},
                 {pgn_DM2, "FF FF 00 00 00 00 FF FF"},
                 {64965, "2A 2A 2A 2A 2A 2A"},
                 {64653, "2A 2A 2A"},
                 {65242, "01 2A"},
                 {64834, nullptr}, // no certificate
                 {64654, "FF 01 00 01 01 00 FF FF"},
                 {64818, "01 FF FF FF FF FF FF FF"},
                 {65000, nullptr},
                 {JIN::pgn_max, nullptr}};
    begin();
    Isobus_diagnostics isobus(*manager);
    for (const auto& row : table) {
        const std::string request = request_of(row.pgn);
        const std::string answer = row.answer ? std::to_string(row.pgn) + " all: " + row.answer + "\n" : "";
        send(JIN::pgn_request, request, JIN::global);
        EXPECT_EQ(lines(), answer.empty() ? "" : "0 " + answer) << row.pgn;
        for (const int from : {-1, 0x33, 254, 255}) {
            send(JIN::pgn_request, request, own, from);
            const std::string asker = text_of("%02X", from < 0 ? terminal_address : static_cast<unsigned>(from));
            const std::string refusal = "59392 all: 01 FF FF FF " + asker + " " + request + "\n";
            EXPECT_EQ(lines(), from == 255 ? "" : "0 " + (row.answer ? answer : refusal)) << row.pgn << " " << from;
        }
    }
    send(JIN::pgn_request, "FE CA");
    send(JIN::pgn_request, "");
    EXPECT_EQ(lines(), "");
    manager->set_refuses_others(false);
    send(JIN::pgn_request, request_of(65000));
    EXPECT_EQ(lines(), "");
    manager->set_answer(65000, {Request_answer::data, [](JIN_grow_message& m) { return m.append_uint8(5); }});
    send(JIN::pgn_request, request_of(65000));
    EXPECT_EQ(lines(), "0 65000 all: 05\n");
    send(JIN::pgn_request, request_of(JIN::pgn_address_claimed)); // the stack's
    EXPECT_EQ(got.size(), 1u);
}

TEST_F(Manager, Answers_the_one_who_asked_or_all) {
    begin();
    for (unsigned spn = 1; spn <= 20; ++spn) {
        manager->set_active(spn, 3);
        manager->set_inactive(spn, 3);
    }
    run(5000);
    node.set_busy(true);
    // Long ones: to the terminal, to all, and to somebody else, of which the terminal sees nothing.
    send(JIN::pgn_request, request_of(pgn_DM2));
    send(JIN::pgn_request, request_of(pgn_DM2)); // again before the answer
    send(JIN::pgn_request, request_of(pgn_DM2), own, 0x33);
    send(JIN::pgn_request, request_of(pgn_DM2), JIN::global, 0x33);
    send(JIN::pgn_request, request_of(65000), own, 0x33); // short ones pass
    restart();
    node.set_busy(false);
    run(3000);
    ASSERT_EQ(log.size(), 3u) << lines();
    EXPECT_EQ(log[0], "10 59392 all: 01 FF FF FF 33 E8 FD 00");
    EXPECT_TRUE(log[1].find(" 65227 38: ") != std::string::npos) << log[1];
    EXPECT_TRUE(log[2].find(" 65227 all: ") != std::string::npos) << log[2];
}

TEST_F(Manager, Clears_what_it_is_told_to_but_hides_nothing) {
    begin();
    manager->set_active(1, 1);
    for (int i = 0; i < 3; ++i) manager->set_active(2, 2), manager->set_inactive(2, 2);
    manager->set_active(3, 3);
    run(1500);
    restart();
    send(JIN::pgn_request, request_of(pgn_DM3));
    EXPECT_EQ(lines(), "0 59392 all: 00 FF FF FF 26 CC FE 00\n");
    EXPECT_EQ(manager->codes().count(Table::previous), 0u);
    send(JIN::pgn_request, request_of(pgn_DM11));
    EXPECT_EQ(manager->codes().count(Table::active), 0u);
    manager->set_inactive(3, 3);
    EXPECT_TRUE(manager->set_active(1, 1)) << "still there";
    run(1600);
    EXPECT_EQ(lines(), "0 65226 all: FF FF 00 00 00 00 FF FF\n"
                       "0 59392 all: 00 FF FF FF 26 D3 FE 00\n"
                       "510 65226 all: FF FF 01 00 01 01 FF FF\n"
                       "1510 65226 all: FF FF 01 00 01 01 FF FF\n");
    EXPECT_EQ(manager->codes().count(Table::previous), 0u) << "3 was cleared and went";
    send(JIN::pgn_request, request_of(pgn_DM11), JIN::global);
    EXPECT_EQ(lines(), "0 65226 all: FF FF 00 00 00 00 FF FF\n") << "no acknowledgment to all";
}

TEST_F(Manager, Clears_one_code_and_answers_in_order) {
    begin();
    manager->set_active(520192, 12);
    manager->set_active(1234, 31);
    manager->set_inactive(1234, 31);
    run(200);
    const struct {
        const char *request, *answer;
    } table[] = {{"01 FF FF FF FF D3 04 1F", "03 02 FF FF FF D3 04 1F"}, // unknown
                 {"01 FF FF FF FF 00 F0 EC", "03 03 FF FF FF 00 F0 EC"}, // active
                 {"11 FF FF FF FF D2 04 1F", "13 04 FF FF FF D2 04 1F"}, // not active
                 {"01 FF FF FF FF D2 04 1F", "02 FF FF FF FF D2 04 1F"},
                 {"01 FF FF FF FF D2 04 1F", "03 02 FF FF FF D2 04 1F"}, // gone
                 {"11 FF FF FF FF 00 F0 EC", "12 FF FF FF FF 00 F0 EC"},
                 {"11 FF FF FF FF 00 00 00", "13 02 FF FF FF 00 00 00"},
                 {"02 FF FF FF FF D2 04 1F", nullptr}, // an answer of somebody
                 {"01 FF FF FF FF D2 04", nullptr}};
    std::string expected;
    node.set_busy(true);
    for (const auto& row : table) {
        send(pgn_DM22, row.request);
        if (row.answer) expected += std::string("49920 38: ") + row.answer + "\n";
    }
    restart();
    node.set_busy(false);
    run(100);
    std::string answers;
    for (const std::string& line : log)
        if (line.find("49920") != std::string::npos) answers += line.substr(line.find("49920")) + "\n";
    EXPECT_EQ(answers, expected);
    run(1000);
    Trouble_codes::Info info;
    EXPECT_VALUES(texts(true, Table::active, 1), manager->codes().find(520192, 12, info), info.state, info.code.count);
    restart();
    send(pgn_DM22, "11 FF FF FF FF 00 F0 EC", JIN::global);
    send(pgn_DM22, "11 FF FF FF FF 00 F0 EC", own, 254);
    EXPECT_EQ(manager->codes().count(Table::active), 1u);
}

TEST_F(Manager, Counts_to_126_and_keeps_to_its_table) {
    begin(Mode::iso, 3);
    for (int i = 1; i <= 300; ++i) {
        EXPECT_VALUES("true true", manager->set_active(524286, 31), manager->set_active(524286, 31));
        Trouble_codes::Info info;
        EXPECT_VALUES(texts(true, std::min(i, 126)), manager->codes().find(524286, 31, info), info.code.count) << i;
        EXPECT_TRUE(manager->set_inactive(524286, 31));
        EXPECT_FALSE(manager->set_inactive(524286, 31));
    }
    for (const uint32_t spn : {0u, 524287u, 524288u, 0xFFFFFFFFu}) EXPECT_FALSE(manager->set_active(spn, 3));
    EXPECT_VALUES("false false", manager->set_active(1, 32), manager->set_inactive(1, 31));
    EXPECT_EQ(manager->codes().refused(), 0u);
    for (unsigned spn = 1; spn <= 3; ++spn) EXPECT_TRUE(manager->set_active(spn, 0)) << "the oldest one goes";
    EXPECT_FALSE(manager->set_active(4, 0));
    EXPECT_EQ(manager->codes().refused(), 1u);
}

TEST_F(Manager, Tells_of_another_node_with_its_address) {
    begin();
    send(65280, "01 02 03 04 05 06 07 08", JIN::global, own);
    run(500);
    EXPECT_EQ(got.back(), "FF FF 50 08 1F 01 FF FF") << "SPN 2128";
    run(12000);
    EXPECT_EQ(got.back(), "FF FF 00 00 00 00 FF FF");
}

TEST_F(Manager, Says_what_it_is) {
    begin();
    Isobus_diagnostics isobus(*manager);
    const auto answer = [&](uint32_t pgn) {
        restart();
        send(JIN::pgn_request, request_of(pgn));
        run(300);
        std::string text;
        Bytes bytes(got.empty() ? "" : got.front());
        const Binary_message m = bytes.view();
        return std::string(reinterpret_cast<const char*>(m.data), m.size);
    };
    isobus.set_software({"A1"});
    EXPECT_EQ(answer(65242), "\x01"
                             "A1*");
    isobus.set_software({"a*b\n", "", std::string(201, 'x')});
    EXPECT_EQ(answer(65242), "\x03"
                             "a_b_**" +
                                 std::string(200, 'x') + "*");
    const std::string fifty(50, 'p');
    isobus.set_product(fifty, fifty + "p", "");
    EXPECT_EQ(answer(64653), fifty + "*" + fifty + "**");
    isobus.set_ECU("1", "2", "3", "4", "5", "6");
    EXPECT_EQ(answer(64965), "1*2*3*4*5*6*");
    isobus.set_software(std::vector<std::string>(200, "0123456789ABCDEF"));
    const std::string longest = answer(65242);
    EXPECT_EQ(longest[0], 125);
    EXPECT_LE(longest.size(), 1785u);
    EXPECT_EQ(std::count(longest.begin(), longest.end(), '*'), 125);
    isobus.set_protocols(Identification::protocol_J1939_73 | Identification::protocol_ISO_15765_3);
    EXPECT_EQ(answer(64818), "\x05\xFF\xFF\xFF\xFF\xFF\xFF\xFF");

    Identification::Certificate certificate, read;
    certificate.year = 2024;
    certificate.revision = 21;
    certificate.laboratory = Identification::Certificate::AEF_laboratory;
    certificate.laboratory_id = 0x5A3;
    isobus.set_certificate(certificate);
    std::string bytes = answer(64834);
    EXPECT_EQ(hex(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()), "58 73 B4 00 00 FF FF FF");
    EXPECT_VALUES(texts(true, 2024, 21, certificate.laboratory, 0x5A3), read.read(Binary_message(&bytes[0], 8)),
                  read.year, read.revision, read.laboratory, read.laboratory_id);
    read.raw[7] = 0x12;
    isobus.set_certificate(read);
    EXPECT_EQ(answer(64834).back(), '\x12') << "as the laboratory gave it";

    isobus.set_functionalities({{1, 2, {}}, {6, 1, {1, 2, 3}}});
    bytes = answer(64654);
    EXPECT_EQ(bytes, std::string("\xFF\x02\x01\x02\x00\x06\x01\x03\x01\x02\x03", 11));
    EXPECT_EQ(Identification::read_functionalities(Binary_message(&bytes[0], 11)).back().options.size(), 3u);
    isobus.set_raw_functionalities({1, 2, 3});
    EXPECT_EQ(answer(64654), "\x01\x02\x03");
    { Isobus_diagnostics other(*manager); } // takes the answers with it
    EXPECT_EQ(answer(64653).substr(0, 4), "\x01\xFF\xFF\xFF");
}

class Kept : public Bus_fixture {
protected:
    Kept() { Pcf_host::mount(folder.path.c_str(), 100000); }
    ~Kept() override { Pcf_host::unmount(); }
    std::string codes() const {
        std::string all;
        Trouble_codes::Info i;
        for (unsigned k = 0; manager->codes().get(k, i); ++k)
            all += text_of("%u/%u x%u %s, ", i.code.spn, i.code.fmi, i.code.count,
                           i.state == Table::active ? "active" : "previous");
        return all;
    }
    NV_store::Safe_result start() {
        begin();
        return manager->keep_codes_in(path.c_str());
    }

    Temporary_folder folder;
    const std::string path = folder.file("codes");
};

TEST_F(Kept, Codes_outlive_a_restart_and_a_damaged_file) {
    using NV_store::Safe_result;
    EXPECT_EQ(start(), Safe_result::started_from_defaults);
    manager->set_active(1234, 31);
    run(4990);
    EXPECT_FALSE(std::filesystem::exists(path));
    run(20);
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_EQ(manager->save_codes(), Safe_result::nothing_to_save);
    for (unsigned spn = 1; spn <= 20; ++spn) manager->set_active(spn, 2); // needs more than one chunk of the file
    for (unsigned spn = 3; spn <= 20; ++spn) manager->clear_previous(), manager->set_inactive(spn, 2);
    manager->clear_previous();
    EXPECT_EQ(manager->save_codes(), Safe_result::saved);
    EXPECT_EQ(start(), Safe_result::loaded);
    EXPECT_EQ(codes(), "1/2 x1 previous, 2/2 x1 previous, 1234/31 x1 previous, ");
    manager->set_active(2, 2);
    EXPECT_EQ(manager->save_codes(), Safe_result::saved);

    Capture quiet(stderr);
    write_file(path, "garbage");
    EXPECT_EQ(start(), Safe_result::fell_back);
    EXPECT_EQ(codes(), "1/2 x1 previous, 2/2 x1 previous, 1234/31 x1 previous, ");
    write_file(path, "garbage");
    write_file(path + ".bak", "garbage");
    EXPECT_EQ(start(), Safe_result::damaged);
    EXPECT_EQ(codes(), "524286/2 x1 active, ");
    run(1500);
    manager->clear_active();
    run(1500);
    EXPECT_EQ(codes(), "") << "it stays away";
    EXPECT_EQ(manager->save_codes(), Safe_result::saved);
    EXPECT_EQ(start(), Safe_result::loaded);

    // A medium that refuses: said once, tried again, nothing lost.
    manager.reset();
    begin();
    manager->keep_codes_in(path.c_str());
    ASSERT_EQ(mkdir((path + ".new").c_str(), 0700), 0);
    manager->set_active(5, 5);
    run(5100);
    EXPECT_EQ(rmdir((path + ".new").c_str()), 0);
    run(60000);
    EXPECT_EQ(start(), Safe_result::loaded);
    EXPECT_EQ(codes(), "5/5 x1 previous, ");
}

/// What the replay hands out: source, then SPN and FMI as the bus has them, count, and whether it went.
struct Records : Diagnostic_history {
    void output(unsigned char src, unsigned short a, unsigned short b, unsigned, unsigned short) override {
        all += text_of("%u: %04X %04X, ", unsigned{src}, unsigned{a}, unsigned{b});
    }
    bool check_ready() override { return true; }
    std::string all;
};

TEST_F(Kept, Each_change_is_in_the_history) {
    begin();
    manager->set_active(520192, 12);
    manager->set_inactive(520192, 12);
    turn();
    run(10);
    manager->set_active(520192, 12);
    run(10);
    manager->clear_active();
    run(2000);
    for (unsigned spn = 1; spn <= 40; ++spn) manager->set_active(spn, 0); // more than are recorded in a pass
    run(100);
    EXPECT_EQ(manager->records_written(), 45u);
    Records records;
    records.set_filter(0, 0xF000, 0, 0xFFFFFFFF);
    ASSERT_TRUE(manager->request_history(&records));
    turn();
    EXPECT_EQ(records.all, "128: 01EC F000, 128: 81EC F000, 128: 02EC F000, 128: 82EC F000, 128: 01EC F000, ");
}

TEST_F(Manager, Works_without_a_bus_an_address_or_a_start) {
    manager = std::make_unique<Driven_manager>(nullptr);
    manager->set_active(1, 1);
    manager->clear_active();
    manager->turn();
    EXPECT_EQ(manager->codes().count(Table::active), 1u);

    bus.set_there(false);
    begin();
    manager->set_active(2, 2);
    run(5000);
    EXPECT_EQ(lines(), "");
    bus.set_there(true);
    run(2000);
    ASSERT_FALSE(got.empty());
    EXPECT_EQ(got.back(), "FF FF 02 00 02 01 FF FF");

    Diagnostics idle("idle"); // never initialised
    EXPECT_VALUES("true 1", idle.set_active(1, 1), idle.codes().count(Table::active));
}

TEST_F(Manager, Survives_whatever_comes_and_allocates_nothing) {
    begin();
    for (unsigned spn = 1; spn <= 60; ++spn) manager->set_active(spn, 3);
    run(5000);
    std::mt19937 random(99);
    const uint32_t pgns[] = {JIN::pgn_request, JIN::pgn_acknowledgement, pgn_DM13, pgn_DM22, pgn_DM1, pgn_DM2, 65000};
    for (unsigned length = 0; length <= JIN::max_length; length += length < 20 ? 1 : 97) {
        for (const uint32_t pgn : pgns) {
            std::vector<unsigned char> bytes(length);
            for (auto& b : bytes) b = static_cast<unsigned char>(random() % 3 ? random() : 0x11);
            JIN_message m(pgn, bytes.data(), length, random() % 2 ? own : JIN::global);
            m.source = static_cast<uint8_t>(random());
            bus.inject(m);
            turn();
        }
    }
    run(20000);
    restart();
    send(JIN::pgn_request, request_of(pgn_DM3));
    EXPECT_EQ(got.front(), "00 FF FF FF 26 CC FE 00") << "it still answers";
    long before = 0;
    for (int round = 0; round < 3; ++round) {
        if (round == 1) before = allocations();
        manager->set_active(70, 3);
        manager->turn();
        manager->set_inactive(70, 3);
        clock.advance(1500);
        manager->turn();
    }
    EXPECT_EQ(allocations(), before);
}

TEST(Diagnostics_threads, Codes_are_set_while_the_bus_asks) {
    JIN_memory_bus bus;
    ASSERT_TRUE(bus.start());
    JIN_memory_bus::Node node(bus, Diner_info_list::get(), JIN_name(1), 0x80),
        tester(bus, Diner_info_list::get(), JIN_name(2), 0x26);
    JIN_inbox inbox(tester, nullptr, {});
    Diagnostics manager("T");
    manager.init(Diner_info_list::get(), nullptr, 0);
    manager.attach(node);
    Isobus_diagnostics isobus(manager);
    manager.start();
    std::atomic<bool> end{false};
    std::vector<std::thread> writers;
    for (unsigned k = 0; k < 3; ++k)
        writers.emplace_back([&, k] {
            for (unsigned i = 0; !end; ++i) {
                manager.set_active(1 + (i + k) % 30, k);
                manager.set_inactive(1 + (i + k) % 30, k);
                isobus.set_software({std::to_string(i)});
                Trouble_codes::Info info;
                manager.codes().get(i % 30, info);
                if (i % 64 == 0) manager.clear_active();
                std::this_thread::yield();
            }
        });
    std::atomic<unsigned> answered{0};
    uint8_t own = 0;
    EXPECT_TRUE(wait_until([&] { return tester.address(own) && node.address(own); }));
    JIN_grow_message m;
    EXPECT_TRUE(wait_until([&] {
        for (const uint32_t pgn : {uint32_t{pgn_DM2}, uint32_t{pgn_DM11}, uint32_t{pgn_DM3}, uint32_t{65242}}) {
            unsigned char bytes[3];
            JIN_message request(JIN::pgn_request, bytes, 3, 0x80);
            build_request(request, pgn);
            tester.send(request);
        }
        while (inbox.receive(m)) ++answered;
        return answered > 100;
    }));
    end = true;
    for (std::thread& t : writers) t.join();
    manager.terminate(true);
}

} // namespace
