// SPDX-License-Identifier: MIT
#include "support/capture.h"
#include "support/child.h"
#include "util/Bugger.h"
#include "util/Debug_base.h"
#include "util/Debug_print.h"
#include <csignal>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

namespace {

/// What `action` writes on the debug output.
std::string printed(const std::function<void()>& action) {
    Capture err(stderr);
    action();
    return err.text();
}

TEST(Debug_print, every_formatting_function_cuts_at_255_characters) {
    const std::string text(300, 'x');
    const char* s = text.c_str();
    const std::function<void()> actions[] = {
        [s] { Debug_print::dprint("%s\n", s); },
        [s] { Debug_print::dprint(IOPORT_2, "%s\n", s); },
        [s] { Debug_print::cprint(false, "%s\n", s); },
        [s] { Debug_print::bprint("%s\n", s); },
        [s] { Debug_filter::print(_JDB::jdb_timeout, "%s\n", s); },
    };
    Debug_filter::add_filter(_JDB::jdb_timeout);
    for (const auto& action : actions) EXPECT_EQ(printed(action), std::string(255, 'x'));
    Debug_filter::remove_filter(_JDB::jdb_timeout);
    EXPECT_EQ(printed(actions[4]), "");
    EXPECT_EQ(printed([s] { Debug_print::printd(s, 1); }), text) << "a ready text is neither cut nor bounded by len";
    EXPECT_EQ(printed([] { Debug_print::report("f", 1, 2, "t"); }), "Dummy Report\n");
}

TEST(Debug_print, single_characters_go_to_standard_output_wherever_the_rest_goes) {
    Capture out(stdout);
    EXPECT_EQ(printed([] { Debug_print::charput('c'); }), "");
    EXPECT_EQ(out.text(), "c");
}

TEST(Debug_print, dumps_bytes) {
    const auto bytes = [](const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); };
    EXPECT_EQ(printed([&] { Debug_print::binprint(bytes("\x1F\x20~\x7F\xFF"), 5); }), "1F 20( ) 7E(~) 7F FF ");
    EXPECT_EQ(printed([&] { Debug_print::printhex(bytes("x"), 1, 0); }), "") << "no width, no rows";
    const auto dump = [&](const std::string& data, unsigned width) {
        return printed([&] { Debug_print::printhex(bytes(data), static_cast<unsigned>(data.size()), width); });
    };
    EXPECT_EQ(dump("ab\x01\xFF~", 4), " \n    61 62 01 ff  ab..\n    7e           ~\n");
    const std::string wide = dump(std::string(300, 'w'), 300);
    EXPECT_EQ(wide.substr(6 + 3 * 300), " " + std::string(254, 'w')) << "a very wide row is cut like any text";
}

TEST(Debug_print, detail_is_one_line_of_at_most_255_characters) {
    const auto detail = [](const std::string& file, const std::string& text) {
        return printed([&] { Debug_print::dprint_detail(file.c_str(), 12, "%s", text.c_str()); });
    };
    const std::string line = detail("a/b", "one line end goes\n\n");
    unsigned seconds = 0, ms = 1000;
    void* thread = nullptr;
    int used = 0;
    EXPECT_EQ(sscanf(line.c_str(), "[%u.%3u|ThreadID:%p] %n", &seconds, &ms, &thread, &used), 3) << line;
    EXPECT_EQ(thread, reinterpret_cast<void*>(pthread_self()));
    EXPECT_EQ(line.substr(static_cast<size_t>(used)), "a/b:12: 'one line end goes\n'\n");
    // Headers and messages of every length around the limit.
    for (size_t length = 150; length < 300; ++length) {
        for (size_t message : {0, 1, 40, 300}) {
            const std::string file(length, 'f'), text(message, 'm'), cut = detail(file, text);
            const std::string prefix = cut.substr(0, cut.find("] ") + 2);
            ASSERT_EQ(cut, (prefix + file + ":12: '" + text).substr(0, 253) + "'\n") << length << " " << message;
        }
    }
}

TEST(Debug_print, last_words_are_not_lost_in_a_pipe) {
    Child_result r = run_child([] { Debug_print::die("glue/x", 7); });
    EXPECT_EQ(r.status, 3358 & 0xFF);
    EXPECT_EQ(r.err, "DIE file=glue/x line=7\n");
    r = run_child([] { Bugger::report_bug("tree bent"); });
    EXPECT_EQ(r.signal, SIGABRT);
    EXPECT_EQ(r.out, "BUG: tree bent\r\n");
    EXPECT_NE(r.err.find("util/Bugger:42: static void Bugger::report_bug(const char*): Assertion `false' failed.\n"),
              std::string::npos)
        << r.err;
}

TEST(Debug_print, the_old_output_file_stays_open_for_another_thread_that_writes) {
    Debug_print::set_debug_file("/dev/null");
    FILE* first = Debug_print::debug_file;
    Debug_print::set_debug_file("/nonexistent/file");
    EXPECT_TRUE(first != stderr && Debug_print::debug_file == stderr);
    EXPECT_TRUE(fputs("open", first) > 0 && fclose(first) == 0);
}

std::string active() {
    std::string all;
    for (int i = -1; i <= 6; ++i) {
        if (const auto c = Debug_filter::get_active_filter(i)) all += std::to_string(static_cast<int>(c)) + ' ';
    }
    return all;
}

TEST(Debug_filter, reads_pairs_of_hex_digits) {
    // An odd digit's pair takes the line end with it; "0x" is a pair of value 0.
    const char* const rows[][2] = {{"0A00ff\n0B", "10 255 "},
                                   {"0A0\n0B", "10 11 "},
                                   {"5\n", "5 "},
                                   {"0x14", "20 "},
                                   {"14zz15", "20 "},
                                   {" A-5", "10 251 "},
                                   {"01020304050607", "1 2 3 4 5 6 "}};
    for (const auto& [pairs, expected] : rows) {
        printed([p = pairs] { Debug_filter::set_filters(p); });
        EXPECT_EQ(active(), expected) << pairs;
    }
    EXPECT_EQ(printed([] { Debug_filter::set_filters("0A-5"); }), "add 0xa\nadd 0xfffffffb\n");
}

TEST(Debug_filter, keeps_at_most_six_packed_in_order) {
    using E = _JDB::jdb_enum;
    Debug_filter::set_filters("0102030405");
    EXPECT_TRUE(Debug_filter::add_filter(E(2))) << "an active one moves to the end";
    EXPECT_FALSE(Debug_filter::add_filter(_JDB::jdb_none) || Debug_filter::remove_filter(_JDB::jdb_none));
    EXPECT_TRUE(Debug_filter::add_filter(E(6)));
    EXPECT_FALSE(Debug_filter::add_filter(E(7)) || Debug_filter::remove_filter(E(7)));
    EXPECT_EQ(active(), "1 3 4 5 2 6 ");
    memcpy(_JDB::current_active, "\1\2\1\3\0\0", 6);
    EXPECT_TRUE(Debug_filter::remove_filter(E(1)));
    EXPECT_EQ(active(), "2 3 ");
    memcpy(_JDB::current_active, "\2\0\1\0\0\0", 6);
    EXPECT_FALSE(Debug_filter::enabled(E(1))) << "the first 0 ends the list";
    EXPECT_EQ(Debug_filter::get_num_active_filters(), 1);
    Debug_filter::set_filters("");
}

} // namespace
