// SPDX-License-Identifier: MIT
#include "diagnostics/Driven_manager.h"
#include "glue/NV_store/Safe_file.h"
#include "glue/diagnostics/Isobus_diagnostics.h"
#include "glue/diagnostics/Request_answers.h"
#include "jin/Bus_script.h"
#include "platform/pcf_host.h"

using namespace Identification;
using namespace Trouble_code_messages;
using namespace std::string_literals;
using Table = Trouble_code_table;

namespace {

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
        for (const bool on : {true, false})
            words[on ? "set" : "unset"] = [this, on](const char* codes) {
                unsigned first, last, fmi;
                if (sscanf(codes, "%u-%u/%u", &first, &last, &fmi) != 3)
                    sscanf(codes, "%u/%u", &last, &fmi), first = last;
                for (; first <= last; ++first)
                    if (!(on ? manager->set_active(first, fmi) : manager->set_inactive(first, fmi))) note("refused");
            };
        words["busy"] = [this](const char*) { node.set_busy(true); };
        words["free"] = [this](const char*) { node.set_busy(false); };
        words["codes"] = [this](const char*) { note(codes()); };
        words["clear"] = [this](const char* s) { *s == 'a' ? manager->clear_active() : manager->clear_previous(); };
        words["ask"] = [this](const char* text) {
            unsigned pgn, from = 0x26, to = 0x80;
            sscanf(text, "%x %x>%x", &pgn, &from, &to);
            send(text_of("EA00 %02X>%02X: ", from, to) + bytes_of(pgn));
        };
        run(500); // all addresses are claimed
    }
    void begin(Mode mode = Mode::iso, unsigned max_codes = 500) {
        manager = std::make_unique<Driven_manager>(4096, "H", max_codes);
        manager->attach(node, mode);
    }
    void turn() override {
        for (int i = 0; manager && i < 3; ++i) { // what is answered arrives as well
            bus.process();
            manager->turn();
        }
        Bus_script::turn();
    }
    static std::string bytes_of(uint32_t pgn) {
        return text_of("%02X %02X %02X", pgn & 0xFF, pgn >> 8 & 0xFF, pgn >> 16);
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
    words["alone"] = [&](const char*) { manager = std::make_unique<Driven_manager>(); };
    words["DM22"] = [&](const char* s) { send("C300 26>80: " + std::string(s, 2) + " FF FF FF FF" + (s + 2)); };
    const char* const table[][3] = {
        {"at once, then each second, once more without codes; another code inside the second is told too",
         "run 3000; set 1234/31; run 510; set 520192/12; run 1000; unset 1234/31; run 600; unset 520192/12; run 3000",
         "3000 FECA 80>FF 6: FF FF D2 04 1F 01 FF FF\n3610 FECA 80>FF 6: FF FF 00 F0 EC 01 D2 04 1F 01\n"
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
         "ask FECB FE>80; ask FDE8 33>80; free; run 3000",
         "0 E800 80>FF 6: 01 FF FF FF 33 E8 FD 00\n10 FECB 80>26 6: FF FF 02 00 03 01 01 00 03 01\n"
         "100 FECB 80>FF 6: FF FF 02 00 03 01 01 00 03 01\n200 FECB 80>FF 6: FF FF 02 00 03 01 01 00 03 01\n"},
        {"short ones go to all, once each; none to the address of all, and no refusal to all",
         "ask FECA FE>80; run 10; ask FECA 33>80; run 10; ask FECA 33>FF; ask FECA FF>80; "
         "ask FDE8 FE>80; ask FDE8 26>FF; ask FDE8 FF>80",
         "0 FECA 80>FF 6: FF FF 00 00 00 00 FF FF\n10 FECA 80>FF 6: FF FF 00 00 00 00 FF FF\n"
         "20 FECA 80>FF 6: FF FF 00 00 00 00 FF FF\n20 E800 80>FF 6: 01 FF FF FF FE E8 FD 00\n"},
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
        {"answers in order: unknown, active, not active, done, gone, done, unknown; none to all, to nobody, to an "
         "answer and to half of one",
         "set 520192/12; set 1234/31; unset 1234/31; run 200; quiet; send C300 26>FF: 11 FF FF FF FF 00 F0 EC; "
         "send C300 FE>80: 11 FF FF FF FF 00 F0 EC; busy; DM22 01 D3 04 1F; DM22 01 00 F0 EC; DM22 11 D2 04 1F; "
         "DM22 01 D2 04 1F; DM22 01 D2 04 1F; DM22 11 00 F0 EC; DM22 11 00 00 00; DM22 02 D2 04 1F; DM22 01 D2 04; "
         "free; codes; run 1000; codes",
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
         "0 told 6\n250 FECA 80>FF 6: FF FF 02 00 02 01 FF FF\n360 told 2\n"},
    };
    for (const auto& [what, steps, said] : table) {
        begin();
        EXPECT_EQ(play(steps), said) << what;
    }
}

TEST_F(Bus, Of_many_codes_never_falls_silent_and_costs_no_memory) {
    for (const unsigned n : {34u, 250u, 251u, 446u, 499u}) {
        begin();
        const std::string said = play(text_of("busy; set 1-%u/1; free; run 16000", n));
        const unsigned sent = std::min(n, 250u), airtime = JIN::num_packets(2 + 4 * sent) * 50;
        const auto lists = std::count(said.begin(), said.end(), '\n');
        EXPECT_NEAR(static_cast<double>(lists), 16000 / std::max(airtime, 1000u), 1) << n;
        EXPECT_NEAR(said.size() - said.rfind('\n', said.size() - 2), 28 + 12 * sent, 2) << n;
        const long before = allocations_of_thread();
        manager->set_active(1000, 1), manager->set_inactive(1, 1), manager->log_error(1, 0, 1);
        for (int i = 0; i < 4; ++i, clock.advance(1500)) bus.process(), manager->turn();
        EXPECT_EQ(allocations_of_thread(), before) << n;
    }
}

TEST_F(Bus, Stops_and_starts_as_DM13_says) {
    const std::pair<const char*, std::string> messages[] = {
        {"stop", "3F FF FF FF FF FF"},     {"start", "7F FF FF FF FF FF"},    {"leave", "FF FF FF FF FF FF"},
        {"hold", "FF FF FF 0F FF FF"},     {"stop_5_s", "3F FF FF FF 05 00"}, {"stop_100_s", "3F FF FF FF 64 00"},
        {"stop_0_s", "3F FF FF FF 00 00"}, {"reserved", "BF FF FF FF FF FF"}, {"cut", "3F FF FF"}};
    for (const auto& [name, bytes] : messages)
        words[name] = [this, m = "DF00 26>FF: " + bytes + " FF FF"](const char*) { send(m); };
    words["later"] = [this](const char*) { run(4990); };
    // For so long [s] it is silent. A time that was named is not cut short.
    for (const std::string row :
         {"0 leave; hold; start; reserved; cut; later; hold", "6 stop; later; cut", "11 stop; later; stop",
          "11 stop; later; hold", "6 stop; later; leave", "5 stop; later; start", "5 stop_5_s; later; cut",
          "11 stop_5_s; later; stop", "100 stop_100_s; later; hold", "5 stop_100_s; later; start",
          "6 stop_0_s; later; cut"}) {
        begin();
        const int silent = std::stoi(row);
        const std::string said = play("set 7/7; run 2010; quiet; " + row.substr(row.find(' ')) + "; run 100000");
        EXPECT_NEAR(atoi(said.c_str()), silent ? silent * 1000 : 990, 10) << row;
        EXPECT_NEAR(static_cast<double>(std::count(said.begin(), said.end(), '\n')), 105 - silent, 2) << row;
    }
}

TEST_F(Bus, Answers_requests_by_one_table) {
    begin();
    Isobus_diagnostics isobus(*manager);
    /// An empty answer is a refusal.
    const auto expect = [&](uint32_t pgn, const std::string& bytes) {
        const std::string said = play(text_of("ask %X; run 300", pgn)),
                          answer = text_of(" %04X 80>%s 6: ", pgn, bytes.size() > 8 ? "26" : "FF") +
                                   hex(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()),
                          refusal = " E800 80>FF 6: 01 FF FF FF 26 " + bytes_of(pgn);
        EXPECT_EQ(said.substr(said.find(' ')), (bytes.empty() ? refusal : answer) + "\n") << pgn;
    };
    const std::string no_code("\xFF\xFF\0\0\0\0\xFF\xFF", 8), filled(7, '\xFF'), fifty(50, 'p');
    expect(pgn_DM1, no_code), expect(pgn_DM2, no_code), expect(65000, ""), expect(JIN::pgn_max, "");
    expect(pgn_ECU, "******"), expect(pgn_product, "***"), expect(pgn_software, "\1*"), expect(pgn_certificate, "");
    expect(pgn_functionalities, "\xFF\1\0\1\1\0\xFF\xFF"s), expect(pgn_protocol, "\1" + filled);
    isobus.set_ECU("1", "2", "3", "4", "5", "6"), expect(pgn_ECU, "1*2*3*4*5*6*");
    isobus.set_product(fifty, fifty + "p", ""), expect(pgn_product, fifty + "*" + fifty + "**");
    isobus.set_software({"a*b\n", "", std::string(201, 'x')});
    expect(pgn_software, "\3a_b_**" + std::string(200, 'x') + "*");
    isobus.set_software(std::vector(200, std::string(16, 'x'))); // longer than a message
    std::string longest = "\x7D";
    for (int i = 0; i < 125; ++i) longest += std::string(i < 103 ? 16 : 0, 'x') + "*";
    expect(pgn_software, longest);
    Certificate certificate{2024, 21, Certificate::AEF_laboratory, 0x5A3};
    isobus.set_certificate(certificate), expect(pgn_certificate, "\x58\x73\xB4\0\0\xFF\xFF\xFF"s);
    certificate.read(Bytes("01 02 03 04 05 06 07 08").view()); // as the laboratory gave it
    isobus.set_certificate(certificate), expect(pgn_certificate, "\1\2\3\4\5\6\7\b");
    isobus.set_functionalities({{1, 2, {}}, {6, 1, {1, 2, 3}}});
    expect(pgn_functionalities, "\xFF\2\1\2\0\6\1\3\1\2\3"s);
    isobus.set_raw_functionalities({1, 2, 3}), expect(pgn_functionalities, "\1\2\3");
    isobus.set_protocols(protocol_J1939_73 | protocol_ISO_15765_3), expect(pgn_protocol, "\5" + filled);
    manager->set_answer(65000, {Request_answer::data, [](JIN_grow_message& m) { return m.append_uint8(5); }});
    expect(65000, "\5");
    { Isobus_diagnostics other(*manager); } // takes the answers with it
    expect(pgn_product, "");
    EXPECT_EQ(play("send EA00 26>80: FE CA; send EA00 26>80:; ask EE00"), "") << "claims are the stack's";
    manager->set_refuses_others(false);
    EXPECT_EQ(play("ask FDE9"), "");
}

TEST_F(Bus, Counts_to_126_and_keeps_to_its_table) {
    begin(Mode::iso, 3);
    std::string often;
    for (int i = 0; i < 130; ++i) often += "set 524286/31; set 524286/31; unset 524286/31; ";
    EXPECT_EQ(play("unplug; quiet; " + often +
                   "codes; unset 524286/31; unset 1/31; set 0/3; set 524287/3; set 524288/3; "
                   "set 1/32; set 1/0; set 2/0; set 3/0; set 4/0; codes"),
              "0 codes: 524286/31 x126 previous\n0 refused\n0 refused\n0 refused\n0 refused\n0 refused\n0 refused\n0 "
              "refused\n"
              "0 codes: 1/0 x1 active 2/0 x1 active 3/0 x1 active\n");
    Diagnostics idle("idle"); // never initialised
    Trouble_codes::Info info;
    EXPECT_VALUES("true 1 1 true false", idle.set_active(1, 1), idle.codes().count(Table::active),
                  manager->codes().refused(), idle.codes().find(1, 1, info), idle.codes().find(1, 2, info));
}

/// Without the bus, of which nothing is to be heard here.
TEST_F(Bus, Codes_outlive_a_restart_a_damaged_file_and_a_medium_that_refuses) {
    const Temporary_folder folder{Temporary_folder::quick};
    const std::string path = folder.file("codes");
    words["start"] = [&](const char*) {
        begin();
        const std::string result = NV_store::to_text(manager->keep_codes_in(path.c_str()));
        note(result + "; " + codes());
    };
    words["save"] = [&](const char* changed) {
        if (*changed) words["set"](changed); // and no pass
        note(NV_store::to_text(manager->save_codes()));
    };
    words["file"] = [&](const char*) { note(std::filesystem::exists(path) ? "file" : "no file"); };
    words["damage"] = [&](const char* suffix) { write_file(path + suffix, "garbage"); };
    words["block"] = [&](const char*) { std::filesystem::create_directory(path + ".new"); };
    words["remove"] = [&](const char* suffix) { std::filesystem::remove(path + suffix); };
    std::string said = debug_text([&] {
        EXPECT_EQ(play("unplug; quiet; start; set 1/2; run 4990; file; run 20; file; save; save 2/2; damage; start; "
                       "clear previous; save; start; damage; damage .bak; start; run 1500; clear active; run 1500; "
                       "codes; save; start; block; set 5/5; run 65010; remove .new; remove; run 59980; file; run 20; "
                       "start"),
                  "0 started from defaults; codes:\n4990 no file\n5010 file\n5010 nothing to save\n5010 saved\n"
                  "5010 fell back to the generation before; codes: 1/2 x1 previous\n5010 saved\n5010 loaded; codes:\n"
                  "5010 damaged, started from defaults; codes: 524286/2 x1 active\n"
                  "8010 codes:\n8010 saved\n8010 loaded; codes:\n133000 no file\n"
                  "133020 loaded; codes: 5/5 x1 previous\n");
    });
    for (size_t at; (at = said.find(path)) != std::string::npos;) said.erase(at, path.size());
    EXPECT_EQ(said, "Trouble codes : fell back to the generation before: kept as codes.bad\n"
                    "Trouble codes : damaged, started from defaults: kept as codes.bad2\n"
                    "Trouble codes : not saved, failed: .new: Is a directory\n"); // once, however often it is tried
}

TEST_F(Bus, Each_change_is_in_the_history) {
    const Temporary_folder folder{Temporary_folder::quick};
    Pcf_host::mount(folder.path.c_str(), 100000);
    begin();
    Debug_print_diagnostic_history records;
    records.set_filter(0, 0xF000, 0, 0xFFFFFFFF);
    play("set 520192/12; unset 520192/12; run 10; set 520192/12; run 10; clear active; run 2000; "
         "set 1-40/0; run 100"); // more than are recorded in a pass
    ASSERT_TRUE(manager->request_history(&records));
    // The node, the low bits of the SPN; count and whether it went in the high byte, FMI in the low one.
    EXPECT_EQ(debug_text([&] { turn(); }),
              "ERR,128:61440,492,1700000000.500\nERR,128:61440,33260,1700000000.500\nERR,128:61440,748,1700000000.508\n"
              "ERR,128:61440,33516,1700000000.520\nERR,128:61440,492,1700000001.500\n");
    EXPECT_EQ(manager->records_written(), 45u);
    Pcf_host::unmount();
}

/// In real time: the bus, the manager, threads that change what they say and clients that come and go.
TEST(Diagnostics_threads, Serve_each_other_and_a_replay_survives_a_restart) {
    const Temporary_folder folder{Temporary_folder::quick};
    Pcf_host::mount(folder.path.c_str(), 100000);
    JIN_memory_bus bus;
    ASSERT_TRUE(bus.start());
    Test_node node(bus, JIN_name(1), 0x80), tester(bus, JIN_name(2), 0x26);
    Diagnostics manager("T");
    EXPECT_FALSE(manager.log_error(1, 0, 1)) << "not initialised";
    manager.init(Diner_info_list::get(), nullptr, 0);
    EXPECT_TRUE(manager.log_error(1, 0, 1)) << "kept for the start";
    manager.attach(node.stack);
    Isobus_diagnostics isobus(manager);
    manager.start();
    EXPECT_TRUE(wait_until([&] { return manager.records_written() == 1; }));
    std::atomic<bool> end{false};
    const auto write = [&](unsigned k) {
        Trouble_codes::Info info;
        for (unsigned i = 0; !end; ++i, std::this_thread::yield()) {
            JIN_inbox client(tester.stack, nullptr, {pgn_DM1});
            manager.set_active(1 + (i + k) % 30, k);
            manager.set_inactive(1 + (i + k) % 30, k);
            manager.log_error(2, 0, 2);
            isobus.set_software({std::to_string(i)});
            manager.codes().get(i % 30, info);
            if (i % 64 == 0) manager.clear_active();
            take_all(client);
        }
    };
    std::thread writers[] = {std::thread(write, 0), std::thread(write, 1), std::thread(write, 2)};
    JIN_grow_message m;
    int answered = 0;
    for (const int enough : {50, 100}) {
        EXPECT_TRUE(wait_until([&] {
            for (const char* const pgn : {"\xCB\xFE", "\xD3\xFE", "\xCC\xFE", "\xDA\xFE"}) // lists, clearing, software
                tester.send(message(JIN::pgn_request, std::string(pgn, 3), 0x80));
            while (tester.inbox.receive(m)) answered += m.pgn != JIN::pgn_request;
            return answered > enough;
        }));
        bus.set_there(false), bus.set_there(true);
    }
    end = true;
    for (std::thread& t : writers) t.join();

    struct : Debug_print_diagnostic_history {
        bool check_ready() override { return ready; }
        std::atomic<bool> ready{false};
    } sink;
    sink.set_filter(0, 0, 0, 1); // nothing passes
    ASSERT_TRUE(manager.request_history(&sink));
    ASSERT_TRUE(wait_until([&] { return manager.stop() == 0; })); // the writers may have left its queue full
    ASSERT_TRUE(wait_until([&] { return manager.get_state() == Diner::state_stop; }));
    EXPECT_FALSE(manager.log_error(1, 0, 3));
    sink.ready = true;
    ASSERT_EQ(manager.start(), 0);
    EXPECT_TRUE(wait_until([&] { return sink.is_done(); }));
    manager.terminate(true); // its hook has returned
    Pcf_host::unmount();
}

} // namespace
