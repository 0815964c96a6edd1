// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_root.h"
#include "glue/cds/CDS_remote.h"
#include "glue/data_stream/File_data_stream.h"
#include "glue/data_stream/PCFile_data_stream.h"
#include "platform/pcf_host.h"
#include "support/test.h"
#include "util/Bugger.h"
#include "util/Debug_base.h"
#include "util/Mutex.h"
#include "util/assertion.h"
#include <pthread.h>
#include <regex>

namespace {

const unsigned char* bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

TEST(Debug_print, cuts_formatted_text_at_255_characters_and_flushes_where_promised) {
    const std::string text(300, 'x');
    const char* s = text.c_str();
    const std::pair<const char*, std::function<void()>> cases[] = {
        // length, whether it flushes
        {"300 false", [s] { Debug_print::printd(s, 1); }}, // a ready text whole
        {"255 false", [s] { Debug_print::dprint("%s\n", s); }},
        {"255 false", [s] { Debug_print::cprint(false, "%s\n", s); }},
        {"255 true", [s] { Debug_print::cprint(true, "%s\n", s); }},
        {"255 true", [s] { Debug_print::bprint("%s\n", s); }},
        {"255 true", [s] { Debug_print::dprint("%s", s), Debug_print::charput('c'); }}, // 'c' on standard output
        {"255 false", [s] { Debug_filter::print(_JDB::jdb_timeout, "%s\n", s); }},
        {"0 false", [s] { Debug_filter::set_filters(""), Debug_filter::print(_JDB::jdb_timeout, "%s\n", s); }},
        {"13 false", [] { Debug_print::report("f", 1, 2, "t"); }}, // "Dummy Report\n"
    };
    Debug_filter::add_filter(_JDB::jdb_timeout);
    Capture out(stdout);
    bool flushed = false;
    for (const auto& c : cases) EXPECT_VALUES(c.first, debug_text(c.second, &flushed).size(), flushed) << &c - cases;
    EXPECT_EQ(out.text(), "c");
}

TEST(Debug_print, dumps_bytes) {
    const auto dump = [](const std::string& data, unsigned width) {
        return debug_text([&] { Debug_print::printhex(bytes(data), static_cast<unsigned>(data.size()), width); });
    };
    EXPECT_EQ(debug_text([] { Debug_print::binprint(bytes("\x1F\x20~\x7F\xFF"), 5); }), "1F 20( ) 7E(~) 7F FF ");
    EXPECT_EQ(dump("x", 0) + dump("ab\x01\xFF~", 4), " \n    61 62 01 ff  ab..\n    7e           ~\n");
    EXPECT_EQ(dump(std::string(300, 'w'), 300).substr(906), " " + std::string(254, 'w')) << "cut like any text";
}

TEST(Debug_print, detail_is_one_line_of_at_most_255_characters) {
    const std::regex form(
        text_of("\\[ *[1-9]\\d*\\.\\d{3}\\|ThreadID:%p\\] ", reinterpret_cast<void*>(pthread_self())));
    for (size_t length = 1; length < 300; ++length) { // headers and messages of every length around the limit
        const std::string file(length, 'f'), text = std::string(300 - length, 'm') + "\n\n";
        const std::string line = debug_text([&] { Debug_print::dprint_detail(file.c_str(), 12, "%s", text.c_str()); });
        const std::string head = line.substr(0, line.find("] ") + 2);
        ASSERT_TRUE(std::regex_match(head, form)) << head;
        std::string kept = (head + file + ":12: '" + text).substr(0, 253);
        if (kept.back() == '\n') kept.pop_back(); // one line end of the message goes, if it came so far
        ASSERT_EQ(line, kept + "'\n") << length;
    }
}

TEST(Debug_print, last_words_reach_whom_they_are_for) {
    EXPECT_EQ(run_child([] { Debug_print::die("glue/x", 7); }).end(), "30 DIE file=glue/x line=7\n");
    const Child_result r = run_child([] { Bugger::report_bug("tree bent"); });
    EXPECT_EQ(r.out, "BUG: tree bent\r\n");
    EXPECT_EQ(r.end(),
              "signal 6 test_util_Debug_print: util/Bugger:42: static void Bugger::report_bug(const char*): Assertion "
              "`false' failed.\n");
}

/// Standard output and error are a pipe of one page, the text that waits for it fills five.
void use_pipe(bool full, bool read) {
    int ends[2];
    const std::string text(5 * 4096, 'x');
    if (pipe(ends) != 0 || fcntl(ends[1], F_SETPIPE_SZ, 4096) < 0) _exit(9);
    if (full && write(ends[1], text.data(), 4096) != 4096) _exit(9);
    for (int fd : {STDOUT_FILENO, STDERR_FILENO}) dup2(ends[1], fd);
    if (!read) close(ends[0]);
    static char buffer[1 << 16];
    setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
    fputs(text.c_str(), stdout);
}

TEST(Debug_print, a_stalled_output_does_not_keep_the_process_from_its_end) {
    Mutex mutex;
    NV_store::NV_root root(nullptr, 1, "root");
    NV_store::NV_uint8 item(&root, 1, "item");
    CDS::Remote::Send_buffer nobody(nullptr, 0, 0);
    const Temporary_folder folder;
    ASSERT_TRUE(Pcf_host::mount(folder.path.c_str(), 50));
    PCFile_data_stream f;
    const std::pair<int, std::function<void()>> ends[] = {
        {0, [] { Util::flush_and_abort(); }},
        {0, [] { Bugger::report_bug("b"); }},
        {0, [] { Util::assertion_failed("a", "f", 1, "g"); }},
        {0, [&] { mutex.check(Mutex::status_mine); }},
        {0, [] { Debug_print::debug_file = stdout, Debug_print::try_print("t"), Util::flush_and_abort(); }},
        {0, [&] { item.Data_item::serialise_structure(nobody, 0); }},
        {0, [&] { f.open_write("f", 1), f.__write(bytes("more than fits into what is left there"), 51); }},
        {3358, [] { Debug_print::die("f", 1); }},
        {-154, [] { Util::tree_misuse("m"); }},
        {-133, [] { File_data_stream().open_read("/none/f"); }},
        {-133, [] { File_data_stream().open_read(-1); }},
        {-134, [] { File_data_stream().open_write("/none/f"); }},
        {-119, [&] { NV_store::NV_uint8(&root, 1, "twin"); }},
        {-155, [] { PCFile_data_stream().open_write("f", 1); }},
    };
    const std::pair<const char*, void (*)()> stalls[] = {
        {"held", [] { hold(); }},
        {"full", [] { use_pipe(true, true); }},
        {"too small", [] { use_pipe(false, true); }},
        {"broken", [] { use_pipe(false, false); }},
        {"debug file", [] { Debug_print::set_debug_file("/dev/null"), hold({Debug_print::debug_file}); }}};
    for (const auto& [name, stall] : stalls) {
        for (const auto& [status, end] : ends) { // 0: aborted
            // At an exit the C library itself waits for the standard streams.
            if (status && stall != stalls[4].second) continue;
            const Child_result r = run_child([stall = stall, &end = end] { stall(), end(); }, 20);
            EXPECT_EQ(status ? status & 0xFF : -SIGABRT, r.signal ? -r.signal : r.status) << name;
        }
    }
    Pcf_host::unmount();
}

TEST(Debug_filter, holds_six_categories_read_from_pairs_of_hex_digits) {
    using F = Debug_filter;
    using E = _JDB::jdb_enum;
    const auto all = [] {
        std::string list;
        for (int i = -1; i < 7; ++i) list += text_of(i < 0 ? "%d" : " %d", F::get_active_filter(i));
        return list;
    };
    // An odd digit's pair takes the line end with it; "0x" is a pair of value 0.
    const char* const rows[][2] = {
        {"0A00ff\n0B", "add 0xa\nadd 0xff\n0 10 255 0 0 0 0 0"},
        {"0A0\n0B\r0C", "add 0xa\nadd 0xb\n0 10 11 0 0 0 0 0"},
        {"0x145", "add 0x14\n0 20 0 0 0 0 0 0"},
        {"14zz15", "add 0x14\n0 20 0 0 0 0 0 0"},
        {" A-5", "add 0xa\nadd 0xfffffffb\n0 10 251 0 0 0 0 0"},
        {"01020301040507", "add 0x1\nadd 0x2\nadd 0x3\nadd 0x1\nadd 0x4\nadd 0x5\n0 1 2 3 1 4 5 0"}};
    for (const auto& [pairs, expected] : rows)
        EXPECT_EQ(debug_text([&, p = pairs] { F::set_filters(p), Debug_print::dprint("%s", all().c_str()); }),
                  expected);
    EXPECT_VALUES("false false false", F::add_filter(E(7)), F::remove_filter(E(7)), F::enabled(E(7))) << "full";
    EXPECT_VALUES("true true 0 3 4 5 2 0 0 0", F::remove_filter(E(1)), F::add_filter(E(2)), all())
        << "both of them go; an active one moves to the end";
    EXPECT_VALUES("false false", F::add_filter(E(0)), F::remove_filter(E(0))) << "no category";
    F::set_filters("");
}

} // namespace
