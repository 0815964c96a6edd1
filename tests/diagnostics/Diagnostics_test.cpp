// SPDX-License-Identifier: MIT
#include "diagnostics/Driven_manager.h"
#include "glue/vorn/Vorn_parser.h"
#include "jin/Test_bus.h"
#include "platform/pcf_host.h"
#include "support/frame.h"
#include "support/test.h"
#include "util/Debug_base.h"

/// In place of the C library's: thousands of records need not reach the disk.
extern "C" int fsync(int) { return 0; }

namespace {

using namespace Pcf_host;
using Numbers = std::vector<int>;
constexpr unsigned now = 1700000000; // [s]
constexpr size_t record_bytes = 17;

/// Collects the second words of the records.
struct Sink : Diagnostic_history {
    void output(unsigned char, unsigned short, unsigned short b, unsigned int, unsigned short) override {
        got.push_back(b);
    }
    bool check_ready() override { return ready(); }
    void history_started() override { hooks += "started "; }
    void history_finished() override { hooks += is_done() ? "finished " : "early "; }

    Numbers got;
    std::string hooks;
    std::function<bool()> ready = [] { return true; };
};

std::string record_of(int number, unsigned time = now, unsigned fours_of_ms = 125) {
    return Frame("SP").u1(1).u2(0).u2(static_cast<unsigned>(number)).u4(time).u1(fours_of_ms).str() + "\n";
}

class History : public testing::Test {
protected:
    History() { begin(); }
    ~History() override { unmount(); }

    std::string path(int n) const { return folder.file("H" + std::to_string(n) + ".dat"); }
    /// A store of so many bytes without a history, but for these bytes in its first file.
    void begin(const std::string& bytes = "", unsigned quota = 100000) {
        for (int n = 0; n < Diagnostics::num_files; ++n) std::filesystem::remove(path(n));
        if (!bytes.empty()) write_file(path(0), bytes);
        ASSERT_TRUE(mount(folder.path.c_str(), quota));
    }
    static Numbers replay(Driven_manager& manager) {
        Sink sink;
        EXPECT_TRUE(manager.request_history(&sink));
        manager.turn();
        EXPECT_TRUE(sink.is_done());
        return sink.got;
    }

    Temporary_folder folder{Temporary_folder::quick};
    Manual_clock clock{now, 500};
};

/// A history of random writes, restarts and replays that pause at random, with what is no record among the records.
TEST_F(History, Rotates_ten_files_within_the_quota_while_it_is_replayed_and_restarted) {
    std::string damaged = record_of(999);
    damaged[7] ^= 1;
    for (unsigned seed = 0; seed < 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const unsigned quota = seed % 2 ? 700 : 100000;
        const int in_file = seed % 2 ? 8 : 3; // records of a file
        begin("", quota);
        auto manager = std::make_unique<Driven_manager>(in_file * record_bytes);
        Sink sink;
        sink.ready = [&] { return random() % 4 > 0; };
        int last = 0, asked = 0;
        for (int step = 0; step < 200; ++step) {
            const bool pass = random() % 2;
            if (pass) clock.advance(100), manager->turn();
            EXPECT_EQ(pcfCloseRead(0), PCF_NOTHING) << "no file stays open";
            for (int n = pass ? 0 : static_cast<int>(random() % (1u << (seed + 1) % 6)); n >= 0; --n) {
                clock.advance(1000);
                ASSERT_TRUE(manager->record(++last));
                const int current = manager->current_file();
                EXPECT_LE(std::filesystem::file_size(path(current)), in_file * record_bytes);
                EXPECT_FALSE(std::filesystem::exists(path(Diagnostics::inc_file_num(current))));
                unsigned used, size;
                ASSERT_TRUE(PCFile_data_stream::get_free_space(used, size));
                ASSERT_GE(size - used, Diagnostics::store_reserve);
            }
            if (asked && !sink.is_done()) continue;
            const std::string foreign[] = {"text\n", damaged, Frame("PG").u4(5).str() + "\n", record_of(998, 0),
                                           record_of(997).substr(0, 1 + random() % (record_bytes - 2))}; // torn
            const std::string file = path(manager->current_file()), bytes = read_file(file) + foreign[random() % 5];
            if (bytes.size() <= in_file * record_bytes) write_file(file, bytes);
            ASSERT_TRUE(mount(folder.path.c_str(), quota)); // counts it
            manager = std::make_unique<Driven_manager>(in_file * record_bytes);
            const Numbers all = replay(*manager);
            Numbers expected(all.size());
            std::iota(expected.begin(), expected.end(), last + 1 - static_cast<int>(all.size()));
            ASSERT_EQ(all, expected);
            ASSERT_GE(static_cast<int>(all.size()), std::min(last, 12)) << "that many have room among what is foreign";
            if (asked) { // in order, each once, and all that is still there
                EXPECT_TRUE(std::is_sorted(sink.got.begin(), sink.got.end(), std::less_equal<int>()));
                EXPECT_TRUE(sink.got.empty() || sink.got.back() <= asked + in_file) << "nothing from later files";
                for (int n = all.front(); n <= asked; ++n)
                    EXPECT_EQ(std::count(sink.got.begin(), sink.got.end(), n), 1) << n << " of " << last;
            }
            sink.got.clear();
            asked = last;
            ASSERT_TRUE(manager->request_history(&sink));
        }
        for (; !sink.is_done(); manager->turn()) clock.advance(100);
    }
}

TEST_F(History, The_file_that_none_follows_is_the_current_one) {
    // Letters are the order of the records, four of them a second. With all files there the newest record tells.
    const std::pair<const char*, int> table[] = {
        {"..........", 0}, {".........a", 9}, {"aa.....aaa", 1}, {"b.a.......", 0}, {"a.b..c....", 5},
        {"abcdefghij", 9}, {"fghijabcde", 4}, {"jihgfedcba", 0}, {"aabbbaaaaa", 4}, {"baaaaaaaab", 0}};
    for (const auto& [files, expected] : table) {
        begin();
        for (int n = 0; n < Diagnostics::num_files; ++n)
            if (const int age = files[n] - 'a'; age >= 0) write_file(path(n), record_of(n, now + age / 4u, age % 4u));
        mount(folder.path.c_str(), 100000); // counts them
        Driven_manager manager;
        EXPECT_TRUE(manager.record(99)) << files;
        EXPECT_EQ(manager.current_file(), expected) << files;
        EXPECT_FALSE(std::filesystem::exists(path(Diagnostics::inc_file_num(expected)))) << "the oldest goes";
    }
}

TEST_F(History, A_replay_that_cannot_go_on_is_tried_again_100_ms_later_and_then_echoed_for_debugging) {
    begin(record_of(0x1234, now, 1) + record_of(0x11, 0));
    Driven_manager manager;
    Sink sink;
    bool ready = false;
    sink.ready = [&] { return ready; };
    Debug_filter::add_filter(_JDB::jdb_diagnostics);
    std::string waits;
    const std::string printed = debug_text([&] {
        ASSERT_TRUE(manager.request_history(&sink));
        // The sink is not ready, no file opens, all is handed out; the echo waits until the clock moves.
        for (int step = 0; step < 4; ++step, ready = true) {
            Atime due(false);
            waits +=
                Values{manager.request_history(&sink), manager.next_timeout(due), due.get_ms_from_now()}.text + ", ";
            clock.advance(due.get_ms_from_now());
            if (step == 1) inject(call_open_read, 1, fault_error);
            manager.turn();
            EXPECT_EQ(sink.is_done(), step >= 2);
        }
    });
    Debug_filter::remove_filter(_JDB::jdb_diagnostics);
    EXPECT_VALUES("false 0 0, false 0 100, false 0 100, false 0 100,  started finished ", waits, sink.hooks);
    const std::string records = "Hist Msg 1 1234 0 6553f100 4\n", last = "Hist Msg 1 11 0 0 1f4\n";
    EXPECT_EQ(printed,
              "Could not open file 2: H0.dat\r\n" + records + last + records + "ERR,1:4660,0,1700000000.004\n" + last);
    EXPECT_EQ(sink.got, Numbers{0x1234});
    EXPECT_EQ(replay(manager), Numbers{0x1234}) << "the echo is not echoed";
}

TEST_F(History, Serves_one_request_at_a_time) {
    begin(record_of(1) + record_of(2).substr(0, record_bytes - 1));
    Driven_manager manager, other(4096, "other");
    Sink first, second;
    first.set_filter(0, 1, 0, 0xFFFFFFFF);
    EXPECT_VALUES("true false false false", manager.request_history(&first), first.is_done(),
                  manager.request_history(&second), other.request_history(&first));
    manager.turn();
    EXPECT_TRUE(other.request_history(&first)) << "it is free again";
    other.turn();
    EXPECT_VALUES("true false", manager.request_history(&first), first.is_done());
    manager.turn();
    EXPECT_EQ(first.got, (Numbers{1, 1})) << "its filter stays";
    EXPECT_TRUE(manager.record(3));
    EXPECT_EQ(replay(manager), (Numbers{1, 2, 3})) << "a record needs no line end";
    Vorn_parser parser(nullptr, false);
    EXPECT_EQ(other.process_history(parser), Diagnostics::progress_finished) << "nobody asked";

    const std::string longest(26, 'n'), longer(27, 'n');
    EXPECT_TRUE(Driven_manager(4096, longest.c_str()).record(1));
    EXPECT_EQ(read_file(folder.file(longest + "0.dat")).size(), record_bytes);
    EXPECT_EQ(debug_text([&] {
                  Driven_manager bad(4096, longer.c_str());
                  EXPECT_VALUES("false false", bad.log_error(1, 2, 3), bad.request_history(&second));
              }),
              "Diagnostics: base name " + longer + " is longer than 26 characters\n");
}

TEST_F(History, Counts_and_tells_what_cannot_be_stored_and_goes_on) {
    // The record makes a new file (0), goes to an existing one (1), or needs a rotation (2); the calls that fail.
    const std::tuple<const char*, int, Call, Fault, int, int, unsigned> table[] = {
        {"full store", 0, call_info, fault_none, 1, 1, 1},
        {"busy for a while", 1, call_open_write, fault_busy, 1, 2, 0},
        {"busy", 1, call_open_write, fault_busy, 1, 5, 1},
        {"not created", 0, call_create, fault_error, 1, 5, 1},
        {"short write", 0, call_write, fault_short_write, 1, 1, 1},
        {"failing close", 1, call_close_write, fault_error, 1, 1, 1},
        {"no information", 1, call_info, fault_error, 1, 1, 1},
        {"no information once open", 1, call_info, fault_error, 3, 1, 1},
        {"old file stays", 2, call_remove, fault_error, 1, 1, 1}};
    for (const auto& [what, file, call, fault, nth, times, lost] : table) {
        begin(file > 0 ? record_of(1) : "");
        Inbox told;
        Driven_manager manager(file == 2 ? record_bytes : 4096);
        manager.set_lost_waiter(&told.waiter);
        if (file == 2) replay(manager), write_file(path(1), record_of(0)); // in the way
        if (fault == fault_none) mount(folder.path.c_str(), 30);
        Capture quiet(stderr);
        inject(call, nth, fault, times);
        EXPECT_VALUES(texts(lost == 0, lost, lost ? "1" : ""), manager.record(2), manager.records_lost(), told.events())
            << what;
        inject(call, 1, fault_none, 0);
        mount(folder.path.c_str(), 100000);
        EXPECT_TRUE(manager.record(3)) << what;
        Numbers expected{1, 2, 3};
        if (file == 0) expected.erase(expected.begin());
        if (lost) expected.erase(expected.end() - 2);
        EXPECT_EQ(replay(manager), expected) << what;
        manager.set_lost_waiter(nullptr);
    }
    unmount();
    EXPECT_FALSE(Driven_manager().record(102));
}

} // namespace
