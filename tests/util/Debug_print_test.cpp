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

const unsigned char* bytes(const char* s) { return reinterpret_cast<const unsigned char*>(s); }

TEST(Debug_print, every_formatting_function_cuts_at_255_characters) {
    const std::string text(300, 'x');
    const char* s = text.c_str();
    const std::function<void()> actions[] = {
        [s] { Debug_print::dprint("%s\n", s); },
        [s] { Debug_print::dprint(IOPORT_2, "%s\n", s); },
        [s] { Debug_print::cprint(false, "%s\n", s); },
        [s] { Debug_print::bprint("%s\n", s); },
        [s] {
            Debug_filter::add_filter(_JDB::jdb_timeout);
            Debug_filter::print(_JDB::jdb_timeout, "%s\n", s);
            Debug_filter::remove_filter(_JDB::jdb_timeout);
            Debug_filter::print(_JDB::jdb_timeout, "%s\n", s);
        },
    };
    for (const auto& action : actions) EXPECT_EQ(printed(action), std::string(255, 'x'));
    EXPECT_EQ(printed([] { Debug_print::dprint("%s%%%d\n", "a", -3); }), "a%-3\n");
    EXPECT_EQ(printed([s] { Debug_print::printd(s, 1); }), text) << "a ready text is neither cut nor bounded by len";
    EXPECT_EQ(printed([] { Debug_print::print_debug_port(); }), "stdio\n");
}

TEST(Debug_print, flushes_only_when_asked_to) {
    FILE* file = std::tmpfile();
    char buffer[4096];
    setvbuf(file, buffer, _IOFBF, sizeof buffer);
    Debug_print::debug_file = file;
    const auto written = [file] { return lseek(fileno(file), 0, SEEK_END); };
    Debug_print::dprint("12");
    Debug_print::cprint(false, "34");
    EXPECT_EQ(written(), 0);
    Debug_print::cprint(true, "56");
    EXPECT_EQ(written(), 6);
    Debug_print::bprint("78");
    EXPECT_EQ(written(), 8);
    Debug_print::dprint("9");
    Capture out(stdout);
    Debug_print::charput('c');
    EXPECT_EQ(out.text(), "c") << "a single character goes to standard output";
    EXPECT_EQ(written(), 9) << "but the debug output is what it flushes";
    Debug_print::debug_file = nullptr;
    EXPECT_EQ(printed([] { Debug_print::dprint("null is stderr"); }), "null is stderr");
    Debug_print::debug_file = stderr;
    fclose(file);
}

TEST(Debug_print, dumps_bytes) {
    EXPECT_EQ(printed([] { Debug_print::binprint(bytes("\x1F\x20~\x7F\xFF"), 5); }), "1F 20( ) 7E(~) 7F FF ");
    const auto dump = [](const std::string& data, unsigned width) {
        return printed([&] { Debug_print::printhex(bytes(data.c_str()), static_cast<unsigned>(data.size()), width); });
    };
    EXPECT_EQ(dump("ab\x01\xFF~", 4), " \n    61 62 01 ff  ab..\n    7e           ~\n");
    EXPECT_EQ(dump("ab", 1), " \n    61  a\n    62  b\n");
    EXPECT_EQ(dump("", 2), "       \n");
    EXPECT_EQ(dump("abc", 0), "");
    const std::string wide = dump(std::string(300, 'w'), 300);
    EXPECT_EQ(wide.substr(6 + 3 * 300), " " + std::string(254, 'w')) << "a very wide row is cut like any text";
}

TEST(Debug_print, detail_is_one_line_of_at_most_255_characters) {
    const char* const rows[][2] = {{"n=5", "n=5"}, {"end\n", "end"}, {"\n\n", "\n"}, {"", ""}};
    for (const auto& [message, shown] : rows) {
        const std::string line = printed([m = message] { Debug_print::dprint_detail("a/b", 12, "%s", m); });
        unsigned seconds = 0, ms = 1000;
        void* thread = nullptr;
        int used = 0;
        EXPECT_EQ(sscanf(line.c_str(), "[%u.%3u|ThreadID:%p] %n", &seconds, &ms, &thread, &used), 3) << line;
        EXPECT_EQ(thread, reinterpret_cast<void*>(pthread_self()));
        EXPECT_EQ(line.substr(static_cast<size_t>(used)), std::string("a/b:12: '") + shown + "'\n");
    }
    // Headers and messages of every length around the limit.
    for (size_t file = 150; file < 300; ++file) {
        for (size_t message : {0, 1, 40, 300}) {
            const std::string name(file, 'f'), text(message, 'm');
            const std::string line = printed([&] { Debug_print::dprint_detail(name.c_str(), 1, "%s", text.c_str()); });
            const std::string prefix = line.substr(0, line.find("] ") + 2);
            ASSERT_EQ(line, (prefix + name + ":1: '" + text).substr(0, 253) + "'\n") << file << " " << message;
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

TEST(Debug_print, the_output_file_can_be_changed) {
    char path[] = "/tmp/kav_debug_XXXXXX";
    close(mkstemp(path));
    Debug_print::set_debug_file(path);
    FILE* first = Debug_print::debug_file;
    Debug_print::set_debug_file("/nonexistent/file");
    EXPECT_EQ(Debug_print::debug_file, stderr);
    EXPECT_GT(fputs("open", first), 0);
    EXPECT_EQ(fclose(first), 0) << "the old file stays open: another thread may be writing to it";
    unlink(path);
    for (int port = 0; port < 4; ++port) {
        EXPECT_EQ(Debug_print::log_to_file(path, static_cast<IOPortIndex>(port)), port == 1 || port == 2) << port;
    }
    EXPECT_NE(access(path, F_OK), 0) << "the path of a port is not used";
}

TEST(Debug_print, reports_go_to_the_reporter) {
    struct Recorder : Debug_print::Error_reporter_base {
        std::string seen;
        void report(const char* file, unsigned line, unsigned char severity, const char* text) override {
            seen = std::string(file) + ":" + std::to_string(line) + ":" + std::to_string(severity) + ":" + text;
        }
    } recorder;
    Debug_print::Error_reporter_base* dummy = Debug_print::reporter;
    EXPECT_EQ(printed([] { Debug_print::report("f", 1, 2, "t"); }), "Dummy Report\n");
    Debug_print::set_reporter(&recorder);
    EXPECT_EQ(printed([] { Debug_print::report("f", 1, 200, "t"); }), "");
    EXPECT_EQ(recorder.seen, "f:1:200:t");
    Debug_print::set_reporter(nullptr);
    EXPECT_EQ(printed([] { Debug_print::report("f", 1, 2, "t"); }), "");
    Debug_print::set_reporter(dummy);
}

std::string active() {
    std::string all;
    for (int i = -1; i <= 6; ++i) {
        char hex[4] = "";
        if (const auto c = Debug_filter::get_active_filter(i)) snprintf(hex, sizeof hex, "%02X ", unsigned(c));
        all += hex;
    }
    return all;
}

TEST(Debug_filter, reads_pairs_of_hex_digits) {
    // An odd digit's pair takes the line end with it; "0x" is a pair of value 0.
    const char* const rows[][2] = {{"0A00ff\n0B", "0A FF "},
                                   {"0A\r0B", "0A "},
                                   {"0A0", "0A "},
                                   {"0A0\n0B", "0A 0B "},
                                   {"5\n", "05 "},
                                   {" A", "0A "},
                                   {"-5", "FB "},
                                   {"0x14", "14 "},
                                   {"14zz15", "14 "},
                                   {"", ""},
                                   {"01020304050607", "01 02 03 04 05 06 "}};
    for (const auto& [pairs, expected] : rows) {
        const std::string text = printed([p = pairs] { Debug_filter::set_filters(p); });
        EXPECT_EQ(active(), expected) << pairs;
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), Debug_filter::get_num_active_filters()) << pairs;
    }
    EXPECT_EQ(printed([] { Debug_filter::set_filters("0A-5"); }), "add 0xa\nadd 0xfffffffb\n");
}

TEST(Debug_filter, keeps_at_most_six_packed_in_order) {
    using E = _JDB::jdb_enum;
    Debug_filter::set_filters("");
    for (int c = 1; c <= 5; ++c) EXPECT_TRUE(Debug_filter::add_filter(E(c)));
    EXPECT_TRUE(Debug_filter::add_filter(E(2))) << "an active one moves to the end";
    EXPECT_EQ(active(), "01 03 04 05 02 ");
    EXPECT_FALSE(Debug_filter::add_filter(_JDB::jdb_none));
    EXPECT_FALSE(Debug_filter::remove_filter(_JDB::jdb_none));
    EXPECT_TRUE(Debug_filter::add_filter(E(6)));
    EXPECT_FALSE(Debug_filter::add_filter(E(7)));
    EXPECT_EQ(active(), "01 03 04 05 02 06 ");
    EXPECT_TRUE(Debug_filter::_enabled(6) && Debug_filter::enabled(E(1)));
    EXPECT_FALSE(Debug_filter::_enabled(7) || Debug_filter::_enabled(0));
    EXPECT_FALSE(Debug_filter::remove_filter(E(7)));
    memcpy(_JDB::current_active, "\1\2\1\3\0\0", 6);
    EXPECT_TRUE(Debug_filter::remove_filter(E(1)));
    EXPECT_EQ(active(), "02 03 ");
    memcpy(_JDB::current_active, "\2\0\1\0\0\0", 6);
    EXPECT_FALSE(Debug_filter::enabled(E(1))) << "the first 0 ends the list";
    EXPECT_EQ(Debug_filter::get_num_active_filters(), 1);
    Debug_filter::set_filters("");
}

} // namespace
