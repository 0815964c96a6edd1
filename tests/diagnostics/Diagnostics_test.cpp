// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Diagnostics.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/vorn/Vorn_parser.h"
#include "jin/Test_bus.h"
#include "platform/pcf_host.h"
#include "support/frame.h"
#include "support/test.h"
#include "util/Debug_base.h"

/// In place of the C library's: thousands of records need not reach the disk.
extern "C" int fsync(int) { return 0; }

namespace {

constexpr unsigned now = 1700000000; // [s]
constexpr size_t record_bytes = 17;
using Numbers = std::vector<int>;

/// Driven by the test instead of its thread, which stays parked.
class Manager : public Diagnostics {
public:
    explicit Manager(unsigned max_file_bytes = 4096, const char* base = "H") : Diagnostics(base, max_file_bytes) {
        init(Diner_info_list::get(), nullptr, 0);
    }
    ~Manager() override { terminate(true); }
    /// As when a posted record comes up: true when it was stored.
    bool record(unsigned src, unsigned a, unsigned b) {
        const unsigned before = records_written();
        lock(-1);
        waiter_event e(module_id(), static_cast<int>(src), a | b << 16);
        handle_event(e);
        unlock();
        return records_written() > before;
    }
    bool record(int number) { return record(1, 0, static_cast<unsigned>(number)); }
    /// As when the sink's timeout fires.
    void pass() {
        lock(-1);
        process_history();
        unlock();
    }
};

/// Collects the second words of the records.
struct Sink : Diagnostic_history {
    void output(unsigned char, unsigned short, unsigned short b, unsigned int, unsigned short) override {
        got.push_back(b);
    }
    bool check_ready() override { return !ready || ready(); }
    void history_started() override { hooks += "started "; }
    void history_finished() override { hooks += is_done() ? "finished " : "early "; }

    Numbers got;
    std::string hooks;
    std::function<bool()> ready;
};

TEST(Diagnostic_history, Hands_on_what_passes_its_filter) {
    constexpr unsigned end = 0xFFFFFFFF;
    const auto passed = [](unsigned char src, unsigned short error, unsigned from, unsigned to) {
        Sink sink;
        sink.set_filter(src, error, from, to);
        sink._output(1, 7, 5, 10, 0);
        sink._output(1, 5, 6, 11, 0); // the first error word is no key
        sink._output(128, 7, 5, 12, 0);
        sink._output(128, 7, 8, end, 0); // no bound is above it
        return sink.got;
    };
    EXPECT_EQ(passed(0, 0, 0, end), (Numbers{5, 6, 5}));
    EXPECT_EQ(passed(1, 0, 0, end), (Numbers{5, 6}));
    EXPECT_EQ(passed(0, 5, 0, end), (Numbers{5, 5}));
    EXPECT_EQ(passed(128, 5, 0, end), (Numbers{5}));
    EXPECT_EQ(passed(0, 0, 11, 12), (Numbers{6}));
}

Numbers range(int from, int to) {
    Numbers all;
    for (int n = from; n <= to; ++n) all.push_back(n);
    return all;
}

std::string record_of(int number, unsigned time = now, unsigned fours_of_ms = 125) {
    return Frame("SP").u1(1).u2(0).u2(static_cast<unsigned>(number)).u4(time).u1(fours_of_ms).str() + "\n";
}

class History : public testing::Test {
protected:
    History() { begin(); }
    ~History() override { Pcf_host::unmount(); }

    std::string path(int n) const { return folder.file("H" + std::to_string(n) + ".dat"); }
    /// Write a file of the history by hand; the store counts it from its next mount on.
    void put(int n, const std::string& bytes) const { write_file(path(n), bytes); }
    /// A store of so many bytes without a history.
    void begin(unsigned quota = 100000) {
        for (int n = 0; n < Diagnostics::num_files; ++n) std::filesystem::remove(path(n));
        ASSERT_TRUE(Pcf_host::mount(folder.path.c_str(), quota));
    }
    static Numbers replay(Manager& manager) {
        Sink sink;
        EXPECT_TRUE(manager.request_history(&sink));
        manager.pass();
        EXPECT_TRUE(sink.is_done());
        return sink.got;
    }

    Temporary_folder folder{Temporary_folder::quick_place()};
    Manual_clock clock{now, 500};
};

TEST_F(History, A_record_is_a_frame_with_line_feed) {
    const std::string golden("\x53\x50\x30\x30\x42\x80\x1F\x01\xD2\x04\x00\xF1\x53\x65\x7D\xB6\x0A", record_bytes);
    for (int start = 0; start < 2; ++start) EXPECT_TRUE(Manager().record(0x80, 0x011F, 0x04D2));
    EXPECT_EQ(read_file(path(0)), golden + std::string(record_bytes, '\n') + golden);
}

TEST_F(History, A_torn_record_costs_no_other) {
    for (size_t cut = 0; cut <= record_bytes; ++cut) {
        put(0, record_of(1) + record_of(77).substr(0, cut));
        Manager manager;
        EXPECT_EQ(replay(manager), cut == record_bytes ? (Numbers{1, 77}) : Numbers{1}) << cut;
        ASSERT_TRUE(manager.record(2) && manager.record(3));
        const bool ended = cut >= record_bytes - 1; // its line end may have come only now
        EXPECT_EQ(replay(manager), ended ? (Numbers{1, 77, 2, 3}) : (Numbers{1, 2, 3})) << cut;
    }
}

/// A history of random writes, restarts and replays that pause at random, with what is no record among the records.
TEST_F(History, Rotates_ten_files_within_the_quota_while_it_is_replayed_and_restarted) {
    std::string damaged = record_of(999);
    damaged[7] ^= 1;
    const std::string foreign[] = {"text\n", damaged, Frame("PG").u4(5).str() + "\n", record_of(998, 0)};
    for (unsigned seed = 0; seed < 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const bool small = seed % 2;
        const int in_file = small ? 8 : 3,
                  least = 12; // records of a file, and those that are kept among what is foreign
        begin(small ? 700 : 100000);
        std::unique_ptr<Manager> manager;
        const auto restart = [&] { manager = std::make_unique<Manager>(in_file * record_bytes); };
        Sink sink;
        sink.ready = [&] { return random() % 4 > 0; };
        int last = 0, asked = 0;
        restart();
        for (int step = 0; step < 300; ++step) {
            const unsigned pass = random() % 2;
            if (pass && asked) manager->pass();
            EXPECT_EQ(pcfCloseRead(0), PCF_NOTHING) << "no file stays open";
            for (int n = pass ? 0 : static_cast<int>(random() % (1u << seed % 6)); n >= 0; --n) {
                clock.advance(1000);
                ASSERT_TRUE(manager->record(++last));
                const int current = manager->current_file();
                EXPECT_LE(std::filesystem::file_size(path(current)), in_file * record_bytes);
                EXPECT_FALSE(std::filesystem::exists(path(Diagnostics::inc_file_num(current))));
                unsigned used, size;
                ASSERT_VALUES("true true", PCFile_data_stream::get_free_space(used, size),
                              size - used >= Diagnostics::store_reserve);
            }
            if (asked && !sink.is_done()) continue;
            const std::string file = path(manager->current_file()), bytes = read_file(file) + foreign[random() % 4];
            if (random() % 2 && bytes.size() <= in_file * record_bytes) {
                write_file(file, bytes);
                ASSERT_TRUE(Pcf_host::mount(folder.path.c_str(), small ? 700 : 100000)); // counts it
                restart();
            }
            if (random() % 2) restart();
            const Numbers all = replay(*manager);
            ASSERT_EQ(all, range(last + 1 - static_cast<int>(all.size()), last));
            ASSERT_GE(static_cast<int>(all.size()), std::min(last, least));
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
        while (!sink.is_done()) manager->pass();
    }
}

TEST_F(History, A_full_store_costs_records_and_nothing_of_others) {
    Capture quiet(stderr);
    Manager manager;
    write_file(folder.file("foreign"), std::string(680, 'x'));
    ASSERT_TRUE(Pcf_host::mount(folder.path.c_str(), 700));
    EXPECT_FALSE(manager.record(101));
    Pcf_host::unmount();
    EXPECT_FALSE(manager.record(102));
}

TEST_F(History, The_file_that_none_follows_is_the_current_one) {
    // 'x', or the newest record of the file as a letter
    const std::pair<const char*, int> table[] = {
        {"..........", 0}, {"x.........", 0}, {"xxxx......", 3}, {".........x", 9}, {"xx.....xxx", 1},
        {"xxxx.xxxxx", 3}, {"abcdefghij", 9}, {"fghijabcde", 4}, {"b.a.......", 0}, {"a.b..c....", 5},
        {"aabbbaaaaa", 4}, {"baaaaaaaab", 0}, {"bbaaaaaaab", 1}};
    for (const auto& [files, expected] : table) {
        bool there[Diagnostics::num_files];
        for (int n = 0; n < Diagnostics::num_files; ++n) there[n] = files[n] != '.';
        const auto newest = [](void* letters, int n) { return static_cast<uint64_t>(static_cast<char*>(letters)[n]); };
        EXPECT_EQ(Diagnostics::find_current(there, newest, const_cast<char*>(files)), expected) << files;
    }
    // With all there the newest record tells, to its millisecond, and the oldest file goes.
    for (const bool in_one_second : {false, true}) {
        for (int n = 0; n < 10; ++n) {
            const unsigned age = (n + 4u) % 10;
            put(n, record_of(n, in_one_second ? now : now + age, age));
        }
        Manager manager;
        EXPECT_EQ(replay(manager), (Numbers{7, 8, 9, 0, 1, 2, 3, 4, 5})) << in_one_second;
        EXPECT_FALSE(std::filesystem::exists(path(6)));
    }
}

TEST_F(History, A_replay_that_cannot_go_on_is_tried_again_100_ms_later_and_then_echoed_for_debugging) {
    put(0, record_of(0x1234, now, 1) + record_of(0x11, 0));
    Manager manager;
    Sink sink;
    bool ready = false;
    sink.ready = [&] { return ready; };
    Debug_filter::add_filter(_JDB::jdb_diagnostics);
    Capture capture(stderr);
    ASSERT_TRUE(manager.request_history(&sink));
    std::string waits;
    // The sink is not ready, no file opens, all is handed out; the echo waits until the clock moves, and prints.
    for (int step = 0; step < 5; ++step, ready = true) {
        Atime due(false);
        waits += Values{manager.request_history(&sink), manager.next_timeout(due), due.get_ms_from_now()}.text + ", ";
        clock.advance(due.get_ms_from_now());
        if (step == 1) Pcf_host::inject(Pcf_host::call_open_read, 1, Pcf_host::fault_error);
        manager.pass();
        EXPECT_EQ(sink.is_done(), step >= 2);
    }
    EXPECT_VALUES("false 0 0, false 0 100, false 0 100, false 0 0, false 0 100,  started finished ", waits, sink.hooks);
    Debug_filter::remove_filter(_JDB::jdb_diagnostics);
    const std::string records = "Hist Msg 1 1234 0 6553f100 4\n", last = "Hist Msg 1 11 0 0 1f4\n";
    EXPECT_EQ(capture.text(),
              "Could not open file 2: H0.dat\r\n" + records + last + records + "ERR,1:4660,0,1700000000.004\n" + last);
    EXPECT_EQ(sink.got, Numbers{0x1234});
    EXPECT_EQ(replay(manager), Numbers{0x1234}) << "the echo is not echoed";
}

TEST_F(History, Serves_one_request_at_a_time) {
    put(0, record_of(1) + record_of(2));
    Manager manager, other(4096, "other");
    Sink first, second;
    first.set_filter(0, 2, 0, 0xFFFFFFFF);
    EXPECT_TRUE(manager.request_history(&first));
    EXPECT_VALUES("false false false", first.is_done(), manager.request_history(&second),
                  other.request_history(&first));
    manager.pass();
    EXPECT_TRUE(other.request_history(&first)) << "it is free again";
    other.pass();
    EXPECT_VALUES("true false", manager.request_history(&first), first.is_done());
    manager.pass();
    EXPECT_EQ(first.got, (Numbers{2, 2})) << "its filter stays";
    EXPECT_EQ(replay(manager), (Numbers{1, 2}));
    PCFile_data_stream file;
    ASSERT_EQ(file.open_read("H0.dat", 5), PCFile_data_stream::done);
    Vorn_parser parser(&file, false);
    EXPECT_EQ(other.process_history(parser), Diagnostics::progress_finished) << "nobody asked";
    file.close_read();

    const std::string longest(26, 'n'), longer(27, 'n');
    EXPECT_TRUE(Manager(4096, longest.c_str()).record(1));
    EXPECT_EQ(read_file(folder.file(longest + "0.dat")).size(), record_bytes);
    Capture capture(stderr);
    Manager bad(4096, longer.c_str());
    EXPECT_EQ(capture.text(), "Diagnostics: base name " + longer + " is longer than 26 characters\n");
    EXPECT_VALUES("false false", bad.log_error(1, 2, 3), bad.request_history(&second));
}

TEST_F(History, Counts_and_tells_what_cannot_be_stored_and_goes_on) {
    using namespace Pcf_host;
    const struct {
        const char* what;
        int file; // 0: the record makes a new file; 1: it goes to an existing one; 2: it needs a rotation
        Call call;
        Fault fault;
        int nth, times, lost;
    } table[] = {{"busy for a while", 1, call_open_write, fault_busy, 1, 2, 0},
                 {"busy", 1, call_open_write, fault_busy, 1, 5, 1},
                 {"not created", 0, call_create, fault_error, 1, 5, 1},
                 {"short write", 0, call_write, fault_short_write, 1, 1, 1},
                 {"failing close", 1, call_close_write, fault_error, 1, 1, 1},
                 {"no information", 1, call_info, fault_error, 1, 1, 1},
                 {"no information once open", 1, call_info, fault_error, 3, 1, 1},
                 {"old file stays", 2, call_remove, fault_error, 1, 1, 1}};
    for (const auto& row : table) {
        begin();
        if (row.file > 0) put(0, record_of(1));
        ASSERT_TRUE(mount(folder.path.c_str(), 100000)); // counts the file
        Listener told;
        Manager manager(row.file == 2 ? record_bytes : 4096);
        manager.set_lost_waiter(&told.waiter);
        if (row.file == 2) replay(manager), put(1, record_of(0)); // in the way
        Capture quiet(stderr);
        inject(row.call, row.nth, row.fault, row.times);
        EXPECT_VALUES(texts(row.lost == 0, row.lost, row.lost ? "1" : ""), manager.record(2), manager.records_lost(),
                      told.events())
            << row.what;
        inject(row.call, 1, fault_none, 0);
        EXPECT_TRUE(manager.record(3)) << row.what;
        Numbers expected = range(row.file > 0 ? 1 : 2, 3);
        if (row.lost) expected.erase(expected.end() - 2);
        EXPECT_EQ(replay(manager), expected) << row.what;
        manager.set_lost_waiter(nullptr);
    }
}

TEST_F(History, Runs_on_its_own_thread_and_survives_a_restart_in_mid_replay) {
    Diagnostics manager("H");
    EXPECT_FALSE(manager.log_error(1, 0, 1)) << "not initialised";
    ASSERT_EQ(manager.init(Diner_info_list::get(), nullptr, 0), 0);
    EXPECT_TRUE(manager.log_error(1, 0, 1)) << "kept for the start";
    ASSERT_EQ(manager.start(), 0);
    EXPECT_TRUE(wait_until([&] { return manager.records_written() == 1; }));
    manager.lock(-1); // its thread, which allocates in the store, waits
    const long before = allocations();
    for (int n = 0; n < 10; ++n) EXPECT_TRUE(manager.log_error(1, 0, 1));
    EXPECT_EQ(allocations(), before);
    manager.unlock();
    const auto log = [&] {
        for (int n = 0; n < 10; ++n)
            while (!manager.log_error(2, 0, 2)) std::this_thread::yield();
    };
    std::thread other(log);
    log();
    other.join();
    EXPECT_TRUE(wait_until([&] { return manager.records_written() == 31; }));

    std::atomic<bool> ready{false};
    Sink sink;
    sink.ready = [&] { return ready.load(); };
    ASSERT_TRUE(manager.request_history(&sink));
    ASSERT_EQ(manager.stop(), 0);
    ASSERT_TRUE(wait_until([&] { return manager.get_state() == Diner::state_stop; }));
    EXPECT_FALSE(manager.log_error(1, 0, 3));
    ASSERT_EQ(manager.start(), 0);
    // The clock stands still unless it is moved: the replay goes on because the restart has submitted it anew.
    ready = true;
    EXPECT_TRUE(wait_until([&] {
        clock.advance(100);
        return sink.is_done();
    }));
    manager.terminate(true); // its hook has returned
    EXPECT_EQ(sink.got.size(), 31u);
}

} // namespace
