// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_root.h"
#include "glue/cds/CDS_remote.h"
#include "glue/data_stream/File_data_stream.h"
#include "glue/data_stream/PCFile_data_stream.h"
#include "glue/diner/Timeout_manager.h"
#include "platform/pcf_host.h"
#include "support/test.h"
#include "util/Bugger.h"
#include "util/Debug_base.h"
#include "util/Mutex.h"
#include "util/assertion.h"
#include <pthread.h>

namespace {

TEST(Debug_print, cuts_formatted_text_at_255_characters_and_flushes_where_promised) {
    const std::string text(300, 'x');
    const char* s = text.c_str();
    const std::pair<std::function<void()>, bool> cases[] = {
        // what prints, whether it flushes
        {[s] { Debug_print::printd(s, 1); }, false},
        {[s] { Debug_print::dprint("%s\n", s); }, false},
        {[s] { Debug_print::cprint(false, "%s\n", s); }, false},
        {[s] { Debug_print::cprint(true, "%s\n", s); }, true},
        {[s] { Debug_print::bprint("%s\n", s); }, true},
        {[s] { Debug_print::dprint("%s", s), Debug_print::charput('c'); }, true},
        {[s] { Debug_filter::print(_JDB::jdb_timeout, "%s\n", s); }, false},
    };
    Debug_filter::add_filter(_JDB::jdb_timeout);
    Capture out(stdout);
    size_t length = 300;
    for (const auto& [print, flushes] : cases) {
        bool flushed = false;
        EXPECT_EQ(debug_text(print, &flushed), std::string(std::exchange(length, 255), 'x')) << "a ready text whole";
        EXPECT_EQ(flushed, flushes);
    }
    EXPECT_EQ(out.text(), "c") << "single characters go to standard output";
    Debug_filter::remove_filter(_JDB::jdb_timeout);
    EXPECT_EQ(debug_text(cases[6].first), "");
    EXPECT_EQ(debug_text([] { Debug_print::report("f", 1, 2, "t"); }), "Dummy Report\n");
}

TEST(Debug_print, dumps_bytes) {
    const auto bytes = [](const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); };
    EXPECT_EQ(debug_text([&] { Debug_print::binprint(bytes("\x1F\x20~\x7F\xFF"), 5); }), "1F 20( ) 7E(~) 7F FF ");
    const auto dump = [&](const std::string& data, unsigned width) {
        return debug_text([&] { Debug_print::printhex(bytes(data), static_cast<unsigned>(data.size()), width); });
    };
    EXPECT_EQ(dump("x", 0), "") << "no width, no rows";
    EXPECT_EQ(dump("ab\x01\xFF~", 4), " \n    61 62 01 ff  ab..\n    7e           ~\n");
    EXPECT_EQ(dump(std::string(300, 'w'), 300).substr(906), " " + std::string(254, 'w')) << "cut like any text";
}

TEST(Debug_print, detail_is_one_line_of_at_most_255_characters) {
    for (size_t length = 1; length < 300; ++length) { // headers and messages of every length around the limit
        const std::string file(length, 'f'), text = std::string(300 - length, 'm') + "\n\n";
        const std::string line = debug_text([&] { Debug_print::dprint_detail(file.c_str(), 12, "%s", text.c_str()); });
        unsigned seconds = 0, ms = 1000;
        void* thread = nullptr;
        ASSERT_EQ(sscanf(line.c_str(), "[%u.%3u|ThreadID:%p] ", &seconds, &ms, &thread), 3) << line;
        ASSERT_VALUES(texts(true, true, reinterpret_cast<void*>(pthread_self())), seconds > 0, ms < 1000, thread);
        std::string kept = (line.substr(0, line.find("] ") + 2) + file + ":12: '" + text).substr(0, 253);
        if (kept.back() == '\n') kept.pop_back(); // one line end of the message goes, if it came so far
        ASSERT_EQ(line, kept + "'\n") << length;
    }
}

TEST(Debug_print, last_words_reach_whom_they_are_for) {
    Child_result r = run_child([] { Debug_print::die("glue/x", 7); });
    EXPECT_VALUES(texts(3358 & 0xFF, "DIE file=glue/x line=7\n"), r.status, r.err);
    r = run_child([] { Bugger::report_bug("tree bent"); });
    EXPECT_VALUES(texts(SIGABRT, "BUG: tree bent\r\n"), r.signal, r.out);
    const char* where = "util/Bugger:42: static void Bugger::report_bug(const char*): Assertion `false' failed.\n";
    EXPECT_NE(r.err.find(where), std::string::npos) << r.err;
}

/// Standard output and error are a pipe of one page, the text that waits for it fills five.
void use_pipe(bool full, bool read) {
    int ends[2];
    if (pipe(ends) != 0 || fcntl(ends[1], F_SETPIPE_SZ, 4096) < 0) _exit(9);
    for (int fd : {STDOUT_FILENO, STDERR_FILENO}) dup2(ends[1], fd);
    const std::string text(5 * 4096, 'x');
    if (full && write(ends[1], text.data(), 4096) != 4096) _exit(9);
    if (!read) close(ends[0]);
    static char buffer[1 << 16];
    setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
    fputs(text.c_str(), stdout);
}

TEST(Debug_print, a_stalled_output_does_not_keep_the_process_from_its_end) {
    Mutex mutex;
    Timeout t;
    Timeout_manager manager; // its end makes the timeout free
    manager.submit_timeout(t, nullptr);
    NV_store::NV_root root(nullptr, 1, "root");
    NV_store::NV_uint8 item(&root, 1, "item");
    CDS::Remote::Send_buffer nobody(nullptr, 0, 0);
    const Temporary_folder folder;
    ASSERT_TRUE(Pcf_host::mount(folder.path.c_str(), 50));
    const std::function<void()> ends[] = {
        [] { Util::flush_and_abort(); },
        [] { Bugger::report_bug("b"); },
        [] { Util::assertion_failed("a", "f", 1, "g"); },
        [&] { mutex.check(Mutex::status_mine); },
        [] { Debug_print::debug_file = stdout, Debug_print::try_print("t"), Util::flush_and_abort(); },
        [&] { t = Atime::now(); },
        [&] { t = Timeout(); },
        [&] { t.set_diner(nullptr), t.~Timeout(); },
        [&] { item.Data_item::serialise_structure(nobody, 0); },
        [] {
            PCFile_data_stream flash;
            flash.open_write("f", 1), flash.__write(reinterpret_cast<const unsigned char*>(
                                                        "more than fits into what is left there, and so on and on"),
                                                    55);
        },
    };
    const std::pair<const char*, void (*)()> stalls[] = {{"held", [] { hold(); }},
                                                         {"full", [] { use_pipe(true, true); }},
                                                         {"too small", [] { use_pipe(false, true); }},
                                                         {"broken", [] { use_pipe(false, false); }}};
    for (const auto& [name, stall] : stalls) {
        for (const auto& end : ends) {
            const Child_result r = run_child([stall = stall, &end] { stall(), end(); }, 20);
            EXPECT_EQ(r.signal, SIGABRT) << name << " " << &end - ends << " " << r.status;
        }
    }
    const std::pair<int, std::function<void()>> exits[] = {
        {3358, [] { Debug_print::die("f", 1); }},
        {-154, [] { Util::tree_misuse("m"); }},
        {-133, [] { File_data_stream().open_read("/none/f"); }},
        {-133, [] { File_data_stream().open_read(-1); }},
        {-134, [] { File_data_stream().open_write("/none/f"); }},
        {-119, [&] { NV_store::NV_uint8(&root, 1, "twin"); }},
        {-155, [] { PCFile_data_stream().open_write("f", 1); }},
    };
    for (const auto& [status, end] : exits) {
        const auto stalled = [end = &end] { // the C library itself waits for the standard streams
            Debug_print::set_debug_file("/dev/null");
            hold({Debug_print::debug_file});
            (*end)();
        };
        EXPECT_EQ(run_child(stalled, 20).status, status & 0xFF) << &end;
    }
    Pcf_host::unmount();
}

std::string active() {
    std::string all;
    for (int i = -1; i <= 6; ++i) {
        if (const auto c = Debug_filter::get_active_filter(i)) all += std::to_string(static_cast<int>(c)) + ' ';
    }
    return all;
}

TEST(Debug_filter, holds_six_categories_read_from_pairs_of_hex_digits) {
    // An odd digit's pair takes the line end with it; "0x" is a pair of value 0.
    const char* const rows[][3] = {{"0A00ff\n0B", "10 255 ", "add 0xa\nadd 0xff\n"},
                                   {"0A0\n0B\r0C", "10 11 ", "add 0xa\nadd 0xb\n"},
                                   {"0x145", "20 ", "add 0x14\n"},
                                   {"14zz15", "20 ", "add 0x14\n"},
                                   {" A-5", "10 251 ", "add 0xa\nadd 0xfffffffb\n"}};
    for (const auto& [pairs, expected, printed] : rows) {
        EXPECT_EQ(debug_text([p = pairs] { Debug_filter::set_filters(p); }), printed);
        EXPECT_EQ(active(), expected) << pairs;
    }
    using E = _JDB::jdb_enum;
    debug_text([] { Debug_filter::set_filters("01020301040507"); });
    EXPECT_VALUES("false false false", Debug_filter::add_filter(E(7)), Debug_filter::remove_filter(E(7)),
                  Debug_filter::enabled(E(7)));
    EXPECT_TRUE(Debug_filter::remove_filter(E(1))) << "both of them";
    EXPECT_TRUE(Debug_filter::add_filter(E(2))) << "an active one moves to the end";
    EXPECT_EQ(active(), "3 4 5 2 ");
    EXPECT_VALUES("false false", Debug_filter::add_filter(_JDB::jdb_none), Debug_filter::remove_filter(_JDB::jdb_none));
    Debug_filter::set_filters("");
}

} // namespace
