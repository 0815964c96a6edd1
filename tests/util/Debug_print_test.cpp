// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_root.h"
#include "glue/cds/CDS_remote.h"
#include "glue/data_stream/File_data_stream.h"
#include "glue/data_stream/PCFile_data_stream.h"
#include "glue/data_stream/Posix_threaded_serial_data_stream.h"
#include "platform/pcf_host.h"
#include "support/test.h"
#include "util/Bugger.h"
#include "util/Debug_base.h"
#include "util/Mutex.h"
#include "util/assertion.h"
#include "util/atime.h"
#include "util/avl_bstree.h"
#include "util/sl_list.h"
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
    const std::string text = "\x1F\x20~\x7F" + std::string(296, 'w');
    EXPECT_EQ(debug_text([&] { Debug_print::binprint(bytes(text), 4); }), "1F 20( ) 7E(~) 7F ");
    const auto dump = [&] { Debug_print::printhex(bytes(text), 300, 0), Debug_print::printhex(bytes(text), 300, 300); };
    EXPECT_EQ(debug_text(dump).substr(906), " . ~." + std::string(250, 'w')) << "cut like any text";
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

/// Of all folders, since they share the output that may stall: a machine that hangs at its end is not restarted.
TEST(Ends_of_the_process, are_told_and_come_though_the_output_stalls) {
    struct Element : avl_bsnode, sll_node {
    } one, another;
    avl_bstree plain;
    c_bstree<avl_bstree, Element> typed;
    c_sl_list<Element> list;
    Mutex mutex;
    NV_store::NV_root root(nullptr, 1, "root");
    NV_store::NV_uint8 item(&root, 1, "item");
    CDS::Remote::Send_buffer nobody(nullptr, 0, 0);
    const Temporary_folder folder;
    write_file(folder.file("old"), "");
    ASSERT_TRUE(Pcf_host::mount(folder.path.c_str(), 11));
    PCFile_data_stream f;
    Atime never(false);
    never.millitm = 1000;
    module_man full;
    for (short id; full.init_module(&id, false) == 0;) {
    }
    const std::string asserted = "signal 6 test_util_Debug_print: ",
                      bug = asserted + "util/Bugger:42: static void Bugger::report_bug(const char*): Assertion `false' "
                                       "failed.\nBUG: ";
    const std::pair<const char*, void (*)()> stalls[] = {
        {"nothing", [] {}},
        {"debug file", [] { Debug_print::set_debug_file("/dev/null"), hold({Debug_print::debug_file}); }},
        {"held", [] { hold(); }},
        {"full", [] { use_pipe(true, true); }},
        {"too small", [] { use_pipe(false, true); }},
        {"broken", [] { use_pipe(false, false); }}};
    const int for_exits = 2, for_most = 4, all = 6; // at an exit the C library itself waits for the standard streams
    // How many of the stalls; what is told on standard error and, by bug reports, on standard output.
    const std::tuple<int, std::string, std::function<void()>> ends[] = {
        {all, "signal 6 ", [] { Util::flush_and_abort(); }},
        {all, "signal 6 t",
         [] { Debug_print::debug_file = stdout, Debug_print::try_print("t"), Util::flush_and_abort(); }},
        {all, asserted + "f:1: g: Assertion `a' failed.\n", [] { Util::assertion_failed("a", "f", 1, "g"); }},
        {for_most,
         asserted + "util/atime:1: const Atime& Atime::operator+=(int): Assertion `tm.millitm < 1000' failed.\n",
         [&] { never += 1; }},
        {for_most, bug + "b\r\n", [] { Bugger::report_bug("b"); }},
        {for_most, bug + "avl_bstree::insert, already in a tree.\r\n", [&] { plain.insert(&one), plain.insert(&one); }},
        {for_most, bug + "avl_bstree::create not called\r\n", [&] { plain.insert(&one), plain.insert(&another); }},
        {for_most, bug + "sl_list::push, already in a list.\n\r\n", [&] { list.push(&one), list.push(&one); }},
        {for_most, text_of("signal 6 Bad mutex status: 0, wanted: 1 %p (nil)", static_cast<void*>(&mutex)),
         [&] { mutex.check(Mutex::status_mine); }},
        {for_most, "signal 6 WHY CALL ME\n", [&] { item.Data_item::serialise_structure(nobody, 0); }},
        {for_most, "signal 6 PCF full\n", [&] { f.open_write("f", 1), f.__write(bytes("into 11 bytes"), 12); }},
        {for_exits, "30 DIE file=f line=1\n", [] { Debug_print::die("f", 1); }},
        {for_exits, "102 c_bstree::create not called", [&] { typed.insert(&one), typed.insert(&another); }},
        {for_exits,
         "102 c_bstree::get_mutable(): already in T::", [&] { typed.insert(&one), typed.get_mutable(&one); }},
        {for_exits, "123 Error opening file [/none/f]\n", [] { File_data_stream().open_read("/none/f"); }},
        {for_exits, "123 Error opening fd [-1]\n", [] { File_data_stream().open_read(-1); }},
        {for_exits, "122 Error opening file [/none/f]\n", [] { File_data_stream().open_write("/none/f"); }},
        {for_exits, "137 Duplicate NV_store ID twin:1 item:1 in root\n", [&] { NV_store::NV_uint8(&root, 1, "twin"); }},
        {for_exits, "124 ", [&] { Posix_threaded_data_stream().init(full); }},
        {for_exits, "255 Error opening file [/dev/null/f]\n",
         [] { Posix_threaded_serial_data_stream("/dev/null/f:9"); }},
        {for_exits, "101 Destruct while files are write open!!", [] { PCFile_data_stream().open_write("f", 1); }},
        {for_exits, "101 Destruct while files are read open!!", [&] { PCFile_data_stream().open_read("old", 1); }},
    };
    for (const auto& [num_stalls, told, end] : ends) {
        const std::string how = told.substr(0, told.find(' ', told[0] == 's' ? 7 : 0) + 1);
        for (int i = 0; i < num_stalls; ++i) {
            const Child_result r = run_child([&, &end = end] { stalls[i].second(), end(); }, 20);
            EXPECT_EQ(r.end().substr(0, how.size()), how) << told << " " << stalls[i].first;
            EXPECT_EQ(i > 0 ? told : r.end() + r.out, told);
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
