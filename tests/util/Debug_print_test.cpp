// SPDX-License-Identifier: MIT
#include "support/capture.h"
#include "support/child.h"
#include "util/Bugger.h"
#include "util/Debug_base.h"
#include "util/Debug_print.h"
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>

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
    static const struct {
        const char* data;
        unsigned n, width;
        const char* text;
    } rows[] = {
        {"ab\x01\xFF~", 5, 4, " \n    61 62 01 ff  ab..\n    7e           ~\n"},
        {"abcd", 4, 4, " \n    61 62 63 64  abcd\n"},
        {"abc", 3, 1, " \n    61  a\n    62  b\n    63  c\n"},
        {"", 0, 2, "       \n"},
        {"abc", 3, 0, ""},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(printed([&r] { Debug_print::printhex(bytes(r.data), r.n, r.width); }), r.text)
            << r.n << "/" << r.width;
    }
    const std::string wide(300, 'w');
    std::string expected = " \n    ";
    for (size_t i = 0; i < wide.size(); ++i) expected += "77 ";
    expected += " " + std::string(254, 'w');
    EXPECT_EQ(printed([&] { Debug_print::printhex(bytes(wide.c_str()), 300, 300); }), expected)
        << "the characters of a very wide row are cut like any text";
}

TEST(Debug_print, detail_is_one_line_of_at_most_255_characters) {
    static const struct {
        const char *message, *rest;
    } rows[] = {
        {"n=5", "a/b:12: 'n=5'\n"}, {"end\n", "a/b:12: 'end'\n"}, {"\n\n", "a/b:12: '\n'\n"}, {"", "a/b:12: ''\n"}};
    for (const auto& r : rows) {
        const std::string line = printed([&r] { Debug_print::dprint_detail("a/b", 12, "%s", r.message); });
        unsigned seconds = 0, ms = 1000;
        void* thread = nullptr;
        int used = 0;
        EXPECT_EQ(sscanf(line.c_str(), "[%u.%3u|ThreadID:%p] %n", &seconds, &ms, &thread, &used), 3) << line;
        EXPECT_EQ(thread, reinterpret_cast<void*>(pthread_self()));
        EXPECT_EQ(line.substr(static_cast<size_t>(used)), r.rest);
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

TEST(Debug_print, die_names_the_place_and_ends_with_its_status) {
    const Child_result r = run_child([] { Debug_print::die("glue/x", 7); });
    EXPECT_EQ(r.status, 3358 & 0xFF);
    EXPECT_EQ(r.err, "DIE file=glue/x line=7\n");
}

TEST(Debug_print, a_bug_report_is_not_lost_in_a_pipe) {
    const Child_result r = run_child([] { Bugger::report_bug("tree bent"); });
    EXPECT_EQ(r.signal, SIGABRT);
    EXPECT_EQ(r.out, "BUG: tree bent\r\n");
    EXPECT_NE(r.err.find("util/Bugger:42: static void Bugger::report_bug(const char*): Assertion `false' failed.\n"),
              std::string::npos)
        << r.err;
}

int open_files() {
    int n = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (readdir(dir)) ++n;
    closedir(dir);
    return n;
}

TEST(Debug_print, the_output_file_can_be_changed) {
    char path[] = "/tmp/kav_debug_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const int before = open_files();
    Debug_print::set_debug_file(path);
    FILE* first = Debug_print::debug_file;
    Debug_print::set_debug_file(path);
    FILE* second = Debug_print::debug_file;
    EXPECT_EQ(open_files(), before + 2) << "another thread may still be writing to the first";
    Debug_print::bprint("to the file");
    char text[32] = "";
    EXPECT_EQ(read(fd, text, sizeof text - 1), 11);
    EXPECT_STREQ(text, "to the file");
    for (const char* bad : {"/nonexistent/file", static_cast<const char*>(nullptr)}) {
        Debug_print::debug_file = second;
        Debug_print::set_debug_file(bad);
        EXPECT_EQ(Debug_print::debug_file, stderr);
    }
    fclose(first);
    fclose(second);
    close(fd);
    unlink(path);

    for (int port = 0; port < 4; ++port) {
        EXPECT_EQ(Debug_print::log_to_file(path, static_cast<IOPortIndex>(port)), port == 1 || port == 2) << port;
    }
    EXPECT_NE(access(path, F_OK), 0) << "the path of a port is not used";
    EXPECT_EQ(Debug_print::get_debug_port(), IOPORT_STDIO);
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
    static const struct {
        const char* text;
        const char* active;
    } rows[] = {
        {"0A00ff\n0B", "0A FF "},
        {"0A\r0B", "0A "},
        {"0A0", "0A "},
        {"0A0\n0B", "0A 0B "}, // the odd digit's pair takes the line end with it
        {"5\n", "05 "},        // and counts by itself
        {" A", "0A "},
        {"-5", "FB "},
        {"0x14", "14 "}, // "0x" is a pair of value 0
        {"14zz15", "14 "},
        {"", ""},
        {"010203040506070809", "01 02 03 04 05 06 "},
        {"000100", "01 "},
    };
    for (const auto& r : rows) {
        const std::string text = printed([&r] { Debug_filter::set_filters(r.text); });
        EXPECT_EQ(active(), r.active) << r.text;
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), Debug_filter::get_num_active_filters()) << r.text;
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
