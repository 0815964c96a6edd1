// SPDX-License-Identifier: MIT
#include "diagnostics/Driven_manager.h"
#include "glue/NV_store/Safe_file.h"
#include "glue/diagnostics/Isobus_diagnostics.h"
#include "glue/diagnostics/Request_answers.h"
#include "jin/Bus_script.h"
#include "platform/pcf_host.h"

using namespace Trouble_code_messages;
using Table = Trouble_code_table;

namespace {

std::string request_of(uint32_t pgn) {
    unsigned char bytes[3];
    Binary_message m(bytes, 3);
    build_request(m, pgn);
    return hex(m);
}

/// The manager's node at 80 and a terminal at 26. More steps:
///   set SPN/FMI, unset ...   a code gets active, or inactive; "set 1-20/3" are 20 of them
///   ask PGN FROM>TO          a request; without addresses the terminal asks the manager
///   busy, free               there is no room on the bus for the node, there is again
///   clear active, previous   the manager's own
///   codes                    notes what the manager keeps
class Bus : public Bus_script {
protected:
    Bus() {
        members = {{"", 0x26, &terminal}};
        words["set"] = [this](const char* s) { each(s, [this](auto n, auto fmi) { manager->set_active(n, fmi); }); };
        words["unset"] = [this](const char* s) {
            each(s, [this](auto n, auto fmi) { manager->set_inactive(n, fmi); });
        };
        words["busy"] = [this](const char*) { node.set_busy(true); };
        words["free"] = [this](const char*) { node.set_busy(false); };
        words["codes"] = [this](const char*) { note(codes()); };
        words["clear"] = [this](const char* s) { *s == 'a' ? manager->clear_active() : manager->clear_previous(); };
        words["ask"] = [this](const char* text) {
            unsigned pgn, from = 0x26, to = 0x80;
            sscanf(text, "%x %x>%x", &pgn, &from, &to);
            send(text_of("EA00 %02X>%02X: ", from, to) + request_of(pgn));
        };
        run(500); // all addresses are claimed
    }
    void begin(Mode mode = Mode::iso, unsigned max_codes = 500) {
        manager.reset();
        manager = std::make_unique<Driven_manager>(&node, mode, max_codes);
    }
    void turn() override {
        for (int i = 0; manager && i < 3; ++i) { // what is answered arrives as well
            bus.process();
            manager->turn();
        }
        Bus_script::turn();
    }
    template <class Act>
    static void each(const char* codes, Act act) {
        unsigned first, last, fmi;
        if (sscanf(codes, "%u-%u/%u", &first, &last, &fmi) != 3) sscanf(codes, "%u/%u", &first, &fmi), last = first;
        for (; first <= last; ++first) act(first, fmi);
    }
    std::string codes() const {
        static const char* const states[] = {"", "active", "previous", "cleared"};
        std::string all = "codes:";
        Trouble_codes::Info i;
        for (unsigned k = 0; manager->codes().get(k, i); ++k)
            all += text_of(" %u/%u x%u %s", i.code.spn, i.code.fmi, i.code.count, states[i.state]);
        return all;
    }

    JIN_memory_bus::Node node{bus, Diner_info_list::get(), JIN_name(1).set_arbitrary_address(true), 0x80};
    Test_node terminal{bus, JIN_name(2).set_arbitrary_address(true), 0x26};
    std::unique_ptr<Driven_manager> manager;
};

TEST_F(Bus, Says_what_happens_to_the_codes) {
    const Lamp lamps[] = {{Lamp::malfunction, Lamp::fast}, {Lamp::amber_warning, Lamp::slow}};
    words["lamp"] = [&](const char* n) { manager->set_active(1234, 31, lamps[atoi(n)]); };
    words["lamps"] = [&](const char*) { begin(Mode::j1939); };
    words["alone"] = [&](const char*) { manager = std::make_unique<Driven_manager>(nullptr); };
    words["DM22"] = [&](const char* s) { send("C300 26>80: " + std::string(s, 2) + " FF FF FF FF" + (s + 2)); };
    const struct {
        const char *what, *steps, *said;
    } table[] = {
        {"at once, then each second, once more without codes; another code inside the second is told too",
         "run 3000; set 1234/31; run 510; set 520192/12; run 1000; unset 1234/31; run 600; unset 520192/12; run 3000",
         "3000 FECA 80>FF 6: FF FF D2 04 1F 01 FF FF\n3610 FECA 80>FF 6: FF FF 00 F0 EC 01 D2 04 1F 01\n" // takes 100
                                                                                                          // ms
         "4100 FECA 80>FF 6: FF FF 00 F0 EC 01 D2 04 1F 01\n4510 FECA 80>FF 6: FF FF 00 F0 EC 01 FF FF\n"
         "5000 FECA 80>FF 6: FF FF 00 F0 EC 01 FF FF\n5110 FECA 80>FF 6: FF FF 00 00 00 00 FF FF\n"},
        {"once more within a second of its end: it waits for the tick",
         "set 520192/12; run 900; unset 520192/12; run 200; set 520192/12; run 1900",
         "0 FECA 80>FF 6: FF FF 00 F0 EC 01 FF FF\n1000 FECA 80>FF 6: FF FF 00 00 00 00 FF FF\n"
         "2100 FECA 80>FF 6: FF FF 00 F0 EC 02 FF FF\n"},
        {"in the other mode always, and with lamps; one code, however its lamp is called",
         "lamps; run 2500; lamp 0; lamp 1; run 500",
         "1000 FECA 80>FF 6: 00 FF 00 00 00 00 FF FF\n2000 FECA 80>FF 6: 00 FF 00 00 00 00 FF FF\n"
         "2500 FECA 80>FF 6: 40 7F D2 04 1F 01 FF FF\n3000 FECA 80>FF 6: 04 F3 D2 04 1F 01 FF FF\n"},
        {"when there is room, what is true then",
         "busy; set 1-4/3; run 2100; set 5/3; run 2100; unset 1-4/3; free; run 300",
         "4200 FECA 80>FF 6: FF FF 05 00 03 01 FF FF\n"},
        {"long answers go to who asked or to all, once; refusals are short and pass them",
         "set 1-2/3; unset 1-2/3; run 5000; quiet; busy; ask FECB; ask FECB; ask FECB 33>80; ask FECB 33>FF; "
         "ask FDE8 33>80; free; run 3000",
         "0 E800 80>FF 6: 01 FF FF FF 33 E8 FD 00\n10 FECB 80>26 6: FF FF 02 00 03 01 01 00 03 01\n"
         "100 FECB 80>FF 6: FF FF 02 00 03 01 01 00 03 01\n"},
        {"cleared codes come back when their condition is still there; nobody acknowledges to all",
         "set 1/1; set 2/2; unset 2/2; set 2/2; unset 2/2; set 3/3; run 1500; quiet; codes; ask FECC; codes; "
         "ask FED3; codes; unset 3/3; set 1/1; run 1600; codes; ask FED3 26>FF",
         "0 codes: 1/1 x1 active 2/2 x2 previous 3/3 x1 active\n0 E800 80>FF 6: 00 FF FF FF 26 CC FE 00\n"
         "0 codes: 1/1 x1 active 3/3 x1 active\n"
         "0 FECA 80>FF 6: FF FF 00 00 00 00 FF FF\n0 E800 80>FF 6: 00 FF FF FF 26 D3 FE 00\n"
         "0 codes: 1/1 x0 cleared 3/3 x0 cleared\n"
         "500 FECA 80>FF 6: FF FF 01 00 01 01 FF FF\n1500 FECA 80>FF 6: FF FF 01 00 01 01 FF FF\n"
         "1600 codes: 1/1 x1 active\n1600 FECA 80>FF 6: FF FF 00 00 00 00 FF FF\n"},
        {"also without a bus", "alone; set 1/1; unset 1/1; set 1/1; codes; clear active; codes",
         "0 codes: 1/1 x2 active\n0 codes: 1/1 x1 active\n"},
        {"one code is cleared for who asks the manager alone and has an address",
         "set 2/2; run 200; quiet; send C300 26>FF: 11 FF FF FF FF 02 00 02; send C300 FE>80: 11 FF FF FF FF 02 00 02; "
         "codes",
         "0 codes: 2/2 x1 active\n"},
        {"answers in order: unknown, active, not active, done, gone, done, unknown; none to an answer and to half of "
         "one",
         "set 520192/12; set 1234/31; unset 1234/31; run 200; quiet; busy; DM22 01 D3 04 1F; DM22 01 00 F0 EC; "
         "DM22 11 D2 04 1F; DM22 01 D2 04 1F; DM22 01 D2 04 1F; DM22 11 00 F0 EC; DM22 11 00 00 00; DM22 02 D2 04 1F; "
         "DM22 01 D2 04; free; codes; run 1000; codes",
         "0 C300 80>26 6: 03 02 FF FF FF D3 04 1F\n0 C300 80>26 6: 03 03 FF FF FF 00 F0 EC\n"
         "0 C300 80>26 6: 13 04 FF FF FF D2 04 1F\n0 C300 80>26 6: 02 FF FF FF FF D2 04 1F\n"
         "0 C300 80>26 6: 03 02 FF FF FF D2 04 1F\n0 C300 80>26 6: 12 FF FF FF FF 00 F0 EC\n"
         "0 C300 80>26 6: 13 02 FF FF FF 00 00 00\n0 codes: 520192/12 x0 cleared\n"
         "800 FECA 80>FF 6: FF FF 00 F0 EC 01 FF FF\n1000 codes: 520192/12 x1 active\n"},
        {"another node has its address: SPN 2000 and the address, until 10 s later",
         "send FF00 80>FF: 01; run 9500; quiet; codes; run 490; codes; run 10; codes",
         "0 codes: 2128/31 x1 active\n490 codes: 2128/31 x1 active\n500 FECA 80>FF 6: FF FF 50 08 1F 01 FF FF\n"
         "500 FECA 80>FF 6: FF FF 00 00 00 00 FF FF\n500 codes: 2128/31 x1 previous\n"},
        {"the bus is gone and comes back", "unplug; set 2/2; run 5000; quiet; plug; run 600",
         "0 told 6\n390 FECA 80>FF 6: FF FF 02 00 02 01 FF FF\n400 told 2\n"},
    };
    for (const auto& row : table) {
        begin();
        EXPECT_EQ(play(row.steps), row.said) << row.what;
    }
}

TEST_F(Bus, Of_many_codes_never_falls_silent) {
    for (const unsigned n : {34u, 250u, 251u, 446u, 500u}) {
        begin();
        const std::string said = play(text_of("busy; set 1-%u/1; free; run 16000", n));
        const unsigned sent = std::min(n, 250u), airtime = JIN::num_packets(2 + 4 * sent) * 50;
        const auto lists = std::count(said.begin(), said.end(), '\n');
        EXPECT_NEAR(static_cast<double>(lists), 16000 / std::max(airtime, 1000u), 1) << n;
        EXPECT_NEAR(said.size() - said.rfind('\n', said.size() - 2), 28 + 12 * sent, 2) << n;
    }
}

TEST_F(Bus, Stops_and_starts_as_DM13_says) {
    const std::pair<const char*, std::string> messages[] = {
        {"stop", "3F FF FF FF FF FF"},     {"start", "7F FF FF FF FF FF"},    {"leave", "FF FF FF FF FF FF"},
        {"hold", "FF FF FF 0F FF FF"},     {"stop_5_s", "3F FF FF FF 05 00"}, {"stop_100_s", "3F FF FF FF 64 00"},
        {"stop_0_s", "3F FF FF FF 00 00"}, {"reserved", "BF FF FF FF FF FF"}, {"cut", "3F FF FF"}};
    for (const auto& [name, bytes] : messages)
        words[name] = [this, m = "DF00 26>FF: " + bytes + " FF FF"](const char*) { send(m); };
    // The second one 5 s later; how long it is silent [s]
    const std::tuple<std::string, std::string, int> table[] = {
        {"leave", "leave", 0},       {"reserved", "leave", 0}, {"cut", "cut", 0},      {"stop", "cut", 6},
        {"stop", "stop", 11},        {"stop", "hold", 11},     {"stop", "leave", 6},   {"hold", "hold", 0},
        {"start", "start", 0},       {"stop", "start", 5},     {"stop_5_s", "cut", 5}, {"stop_5_s", "stop", 11},
        {"stop_100_s", "hold", 100}, // a time that was named is not cut short
        {"stop_100_s", "start", 5},  {"stop_0_s", "cut", 6}};
    for (const auto& [first, then, silent] : table) {
        begin();
        const std::string said = play("set 7/7; run 2010; quiet; " + first + "; run 4990; " + then + "; run 100000");
        EXPECT_NEAR(atoi(said.c_str()), silent ? silent * 1000 : 990, 10) << first << ", " << then;
        EXPECT_NEAR(static_cast<double>(std::count(said.begin(), said.end(), '\n')), 105 - silent, 2) << first;
    }
}

TEST_F(Bus, Answers_requests_by_one_table) {
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
        const std::string ask = text_of("ask %X ", row.pgn),
                          answer = row.answer ? text_of("0 %04X 80>FF 6: %s\n", row.pgn, row.answer) : "";
        EXPECT_EQ(play(ask + "26>FF"), answer) << row.pgn;
        for (const char* const from : {"26", "33", "FE"}) {
            const std::string refusal = text_of("0 E800 80>FF 6: 01 FF FF FF %s ", from) + request_of(row.pgn) + "\n";
            EXPECT_EQ(play(ask + from + ">80"), row.answer ? answer : refusal) << row.pgn;
        }
        EXPECT_EQ(play(ask + "FF>80"), "") << row.pgn;
    }
    EXPECT_EQ(play("send EA00 26>80: FE CA; send EA00 26>80:"), "");
    manager->set_refuses_others(false);
    EXPECT_EQ(play("ask FDE8; ask EE00"), ""); // claims are the stack's
    manager->set_answer(65000, {Request_answer::data, [](JIN_grow_message& m) { return m.append_uint8(5); }});
    EXPECT_EQ(play("ask FDE8"), "0 FDE8 80>FF 6: 05\n");
}

TEST_F(Bus, Says_what_the_manager_is) {
    begin();
    Isobus_diagnostics isobus(*manager);
    const auto answer = [this](uint32_t pgn) {
        const std::string said = play(text_of("ask %X; run 300", pgn));
        Bytes bytes(said.substr(std::min(said.size(), said.find(": ") + 2)));
        return std::string(reinterpret_cast<char*>(bytes.view().data), bytes.view().size);
    };
    isobus.set_software({"A1"});
    EXPECT_EQ(answer(65242), "\1A1*");
    isobus.set_software({"a*b\n", "", std::string(201, 'x')});
    EXPECT_EQ(answer(65242), "\3a_b_**" + std::string(200, 'x') + "*");
    isobus.set_software(std::vector<std::string>(200, std::string(16, 'x'))); // longer than a message
    std::string longest = "\x7D";
    for (int i = 0; i < 125; ++i) longest += std::string(i < 103 ? 16 : 0, 'x') + "*";
    EXPECT_EQ(answer(65242), longest);
    const std::string fifty(50, 'p');
    isobus.set_product(fifty, fifty + "p", "");
    EXPECT_EQ(answer(64653), fifty + "*" + fifty + "**");
    isobus.set_ECU("1", "2", "3", "4", "5", "6");
    EXPECT_EQ(answer(64965), "1*2*3*4*5*6*");
    isobus.set_protocols(Identification::protocol_J1939_73 | Identification::protocol_ISO_15765_3);
    EXPECT_EQ(answer(64818), "\5\xFF\xFF\xFF\xFF\xFF\xFF\xFF");

    Identification::Certificate certificate, read;
    certificate.year = 2024;
    certificate.revision = 21;
    certificate.laboratory = Identification::Certificate::AEF_laboratory;
    certificate.laboratory_id = 0x5A3;
    isobus.set_certificate(certificate);
    std::string bytes = answer(64834);
    EXPECT_EQ(bytes, std::string("\x58\x73\xB4\0\0\xFF\xFF\xFF", 8));
    EXPECT_VALUES(texts(true, 2024, 21, certificate.laboratory, 0x5A3), read.read(Binary_message(&bytes[0], 8)),
                  read.year, read.revision, read.laboratory, read.laboratory_id);
    read.raw[7] = 0x12;
    isobus.set_certificate(read);
    EXPECT_EQ(answer(64834).back(), '\x12') << "as the laboratory gave it";

    isobus.set_functionalities({{1, 2, {}}, {6, 1, {1, 2, 3}}});
    bytes = answer(64654);
    EXPECT_EQ(bytes, std::string("\xFF\2\1\2\0\6\1\3\1\2\3", 11));
    EXPECT_EQ(Identification::read_functionalities(Binary_message(&bytes[0], 11)).back().options.size(), 3u);
    isobus.set_raw_functionalities({1, 2, 3});
    EXPECT_EQ(answer(64654), "\1\2\3");
    { Isobus_diagnostics other(*manager); } // takes the answers with it
    EXPECT_EQ(answer(64653).substr(0, 4), "\1\xFF\xFF\xFF");
}

TEST_F(Bus, Counts_to_126_and_keeps_to_its_table) {
    begin(Mode::iso, 3);
    Trouble_codes::Info info;
    for (int i = 1; i <= 300; ++i) {
        EXPECT_VALUES(texts(true, true, true, std::min(i, 126), true, false), manager->set_active(524286, 31),
                      manager->set_active(524286, 31), manager->codes().find(524286, 31, info), info.code.count,
                      manager->set_inactive(524286, 31), manager->set_inactive(524286, 31));
    }
    EXPECT_VALUES("false false false false false false 0", manager->set_active(0, 3), manager->set_active(524287, 3),
                  manager->set_active(524288, 3), manager->set_active(0xFFFFFFFF, 3), manager->set_active(1, 32),
                  manager->set_inactive(1, 31), manager->codes().refused());
    EXPECT_VALUES("true true true false 1", manager->set_active(1, 0), manager->set_active(2, 0),
                  manager->set_active(3, 0), manager->set_active(4, 0), manager->codes().refused());
    Diagnostics idle("idle"); // never initialised
    EXPECT_VALUES("true 1", idle.set_active(1, 1), idle.codes().count(Table::active));
}

/// With a store, and codes that are kept in a file. Without the bus, of which nothing is to be heard here.
class Kept : public Bus {
protected:
    Kept() {
        Pcf_host::mount(folder.path.c_str(), 100000);
        words["start"] = [this](const char*) {
            begin();
            const std::string result = NV_store::to_text(manager->keep_codes_in(path.c_str()));
            note(result + "; " + codes());
        };
        words["save"] = [this](const char*) { note(NV_store::to_text(manager->save_codes())); };
        words["change"] = [this](const char*) {
            manager->set_active(2, 2);
            note(NV_store::to_text(manager->save_codes())); // before any pass
        };
        words["file"] = [this](const char*) { note(std::filesystem::exists(path) ? "file" : "no file"); };
        words["damage"] = [this](const char* suffix) { write_file(path + suffix, "garbage"); };
        words["block"] = [this](const char*) { std::filesystem::create_directory(path + ".new"); };
        words["unblock"] = [this](const char*) { std::filesystem::remove(path + ".new"); };
    }
    ~Kept() override { Pcf_host::unmount(); }

    Temporary_folder folder{Temporary_folder::quick_place()};
    const std::string path = folder.file("codes");
};

TEST_F(Kept, Codes_outlive_a_restart_a_damaged_file_and_a_medium_that_refuses) {
    std::string all_of_20, notes;
    for (int spn = 1; spn <= 20; ++spn) all_of_20 += text_of(" %d/2 x1 previous", spn); // in many chunks of the file
    std::string said = debug_text([&] {
        notes = play("unplug; quiet; start; set 1234/31; run 4990; file; run 20; file; save; set 1-20/2; save; start; "
                     "set 1-2/2; clear previous; save; start; change; damage; start; damage; damage .bak; start; "
                     "run 1500; clear active; run 1500; codes; save; start; "
                     "block; set 5/5; run 65000; unblock; run 60000; start");
    });
    EXPECT_EQ(notes, "0 started from defaults; codes:\n4990 no file\n5010 file\n5010 nothing to save\n"
                     "5010 saved\n5010 loaded; codes:" +
                         all_of_20 +
                         " 1234/31 x1 previous\n"
                         "5010 saved\n5010 loaded; codes: 1/2 x2 previous 2/2 x2 previous\n"
                         "5010 saved\n5010 fell back to the generation before; codes: 1/2 x2 previous 2/2 x2 previous\n"
                         "5010 damaged, started from defaults; codes: 524286/2 x1 active\n"
                         "8010 codes:\n8010 saved\n8010 loaded; codes:\n133010 loaded; codes: 5/5 x1 previous\n");
    for (size_t at; (at = said.find(path)) != std::string::npos;) said.erase(at, path.size());
    EXPECT_EQ(said, "Trouble codes : fell back to the generation before: kept as codes.bad\n"
                    "Trouble codes : damaged, started from defaults: kept as codes.bad2\n"
                    "Trouble codes : not saved, failed: .new: Is a directory\n"); // once, however often it is tried
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
    play("set 520192/12; unset 520192/12; run 10; set 520192/12; run 10; clear active; run 2000; "
         "set 1-40/0; run 100"); // more than are recorded in a pass
    EXPECT_EQ(manager->records_written(), 45u);
    Records records;
    records.set_filter(0, 0xF000, 0, 0xFFFFFFFF);
    ASSERT_TRUE(manager->request_history(&records));
    turn();
    EXPECT_EQ(records.all, "128: 01EC F000, 128: 81EC F000, 128: 02EC F000, 128: 82EC F000, 128: 01EC F000, ");
}

TEST_F(Bus, Costs_no_memory) {
    begin();
    play("set 1-60/3; run 5000");
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
    Test_node node(bus, JIN_name(1), 0x80), tester(bus, JIN_name(2), 0x26);
    Diagnostics manager("T");
    manager.init(Diner_info_list::get(), nullptr, 0);
    manager.attach(node.stack);
    Isobus_diagnostics isobus(manager);
    manager.start();
    std::atomic<bool> end{false};
    const auto write = [&](unsigned k) {
        Trouble_codes::Info info;
        for (unsigned i = 0; !end; ++i, std::this_thread::yield()) {
            manager.set_active(1 + (i + k) % 30, k);
            manager.set_inactive(1 + (i + k) % 30, k);
            isobus.set_software({std::to_string(i)});
            manager.codes().get(i % 30, info);
            if (i % 64 == 0) manager.clear_active();
        }
    };
    std::thread writers[] = {std::thread(write, 0), std::thread(write, 1), std::thread(write, 2)};
    int answered = 0;
    JIN_grow_message m;
    EXPECT_TRUE(wait_until([&] {
        for (const char* const pgn : {"\xCB\xFE", "\xD3\xFE", "\xCC\xFE", "\xDA\xFE"}) // lists, clearing, software
            tester.send(message(JIN::pgn_request, std::string(pgn, 3), 0x80));
        while (tester.inbox.receive(m)) answered += m.pgn != JIN::pgn_request;
        return answered > 100;
    }));
    end = true;
    for (std::thread& t : writers) t.join();
    manager.terminate(true);
}

} // namespace
