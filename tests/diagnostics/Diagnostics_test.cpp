// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Diagnostics.h"
#include "glue/diner/Diner_info_list.h"
#include "platform/pcf_host.h"
#include "support/Manual_clock.h"
#include "support/Temporary_folder.h"
#include "support/allocations.h"
#include "support/capture.h"
#include "support/frame.h"
#include "support/wait_until.h"
#include "util/Debug_base.h"
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

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
        if (on_output) on_output();
    }
    bool check_ready() override { return !ready || ready(); }
    void history_started() override { hooks += "started "; }
    void history_finished() override { hooks += is_done() ? "finished " : "early "; }

    Numbers got;
    std::string hooks;
    std::function<void()> on_output;
    std::function<bool()> ready;
};

Numbers range(int from, int to) {
    Numbers all;
    for (int n = from; n <= to; ++n) all.push_back(n);
    return all;
}

std::string record_of(int number, unsigned time = now) {
    return Frame("SP").u1(1).u2(0).u2(static_cast<unsigned>(number)).u4(time).u1(125).str() + "\n";
}

class History : public testing::Test {
protected:
    History() { EXPECT_TRUE(Pcf_host::mount(folder.path.c_str(), 100000)); }
    ~History() override { Pcf_host::unmount(); }

    std::string path(int n) const { return folder.file("H" + std::to_string(n) + ".dat"); }
    /// Write a file of the history by hand; the store counts it from its next mount on.
    void put(int n, const std::string& bytes) const { write_file(path(n), bytes); }
    static Numbers replay(Manager& manager) {
        Sink sink;
        EXPECT_TRUE(manager.request_history(&sink));
        manager.pass();
        EXPECT_TRUE(sink.is_done());
        return sink.got;
    }

    Temporary_folder folder;
    Manual_clock clock{now, 500};
};

TEST_F(History, A_record_is_a_frame_with_line_feed) {
    Manager manager;
    ASSERT_TRUE(manager.record(0x80, 0x011F, 0x04D2));
    const std::string golden("\x53\x50\x30\x30\x42\x80\x1F\x01\xD2\x04\x00\xF1\x53\x65\x7D\xB6\x0A", record_bytes);
    ASSERT_TRUE(manager.record(0x80, 0x011F, 0x04D2));
    Manager restarted;
    ASSERT_TRUE(restarted.record(0x80, 0x011F, 0x04D2));
    EXPECT_EQ(read_file(path(0)), golden + golden + std::string(record_bytes, '\n') + golden);
}

TEST_F(History, A_torn_record_costs_no_other) {
    const std::string torn = record_of(77);
    for (size_t cut = 0; cut <= record_bytes; ++cut) {
        put(0, record_of(1) + torn.substr(0, cut));
        Manager manager;
        Numbers expected = {1};
        if (cut == record_bytes) expected.push_back(77);
        EXPECT_EQ(replay(manager), expected) << cut;
        ASSERT_TRUE(manager.record(2));
        ASSERT_TRUE(manager.record(3));
        if (cut == record_bytes - 1) expected.push_back(77); // its line end has come
        expected.insert(expected.end(), {2, 3});
        EXPECT_EQ(replay(manager), expected) << cut;
    }
}

TEST_F(History, Rotates_ten_files_and_finds_its_place_again) {
    constexpr int in_file = 5;
    auto manager = std::make_unique<Manager>(in_file * record_bytes);
    for (int n = 1; n <= 150; ++n) {
        ASSERT_TRUE(manager->record(n));
        const int current = manager->current_file();
        EXPECT_LE(std::filesystem::file_size(path(current)), in_file * record_bytes);
        EXPECT_FALSE(std::filesystem::exists(path(Diagnostics::inc_file_num(current))));
        const Numbers got = replay(*manager);
        ASSERT_EQ(got, range(n + 1 - static_cast<int>(got.size()), n));
        ASSERT_GE(got.size(), static_cast<size_t>(std::min(n, 30))) << n;
        if (n % 7 == 0) manager = std::make_unique<Manager>(in_file * record_bytes);
        ASSERT_EQ(replay(*manager), got);
    }
}

TEST_F(History, The_file_that_none_follows_is_the_current_one) {
    const struct {
        const char* there; // '1' or the newest record of the file as a letter
        int expected;
    } table[] = {{"..........", 0}, {"x.........", 0}, {"xxxx......", 3}, {".........x", 9}, {"xx.....xxx", 1},
                 {"xxxx.xxxxx", 3}, {"abcdefghij", 9}, {"fghijabcde", 4}, {"b.a.......", 0}, {"a.b..c....", 5}};
    for (const auto& row : table) {
        bool there[Diagnostics::num_files];
        for (int n = 0; n < Diagnostics::num_files; ++n) there[n] = row.there[n] != '.';
        const auto newest = [&](int n) { return static_cast<unsigned>(row.there[n]); };
        EXPECT_EQ(Diagnostics::find_current(there, newest), row.expected) << row.there;
    }
}

TEST_F(History, A_replay_goes_from_the_oldest_file_to_the_current_one) {
    for (const int n : {0, 1, 2, 3, 5, 6, 7, 8, 9}) put(n, record_of(n));
    Manager manager;
    Sink sink;
    ASSERT_TRUE(manager.request_history(&sink));
    put(4, record_of(4)); // comes too late to be taken for a part of the history
    manager.pass();
    EXPECT_EQ(sink.got, (Numbers{5, 6, 7, 8, 9, 0, 1, 2, 3}));
    EXPECT_EQ(sink.hooks, "started finished ");
    // With all files there the newest record tells, and the oldest file goes.
    for (int n = 0; n < 10; ++n) put(n, record_of(n, static_cast<unsigned>(1000 + (n + 4) % 10)));
    Manager restarted;
    EXPECT_EQ(replay(restarted), (Numbers{7, 8, 9, 0, 1, 2, 3, 4, 5}));
    EXPECT_FALSE(std::filesystem::exists(path(6)));
}

TEST_F(History, A_replay_may_pause_at_every_record) {
    std::string damaged = record_of(99);
    damaged[7] ^= 1;
    // Text, damage, foreign frames and times of zero between records.
    put(2, record_of(1) + "text\n" + record_of(98, 0) + record_of(2) + damaged + record_of(3) +
               Frame("PG").u4(5).str() + "\n" + record_of(4) + record_of(97, 0));
    put(3, record_of(5));
    for (int pause_at = 0; pause_at <= 6; ++pause_at) {
        Manager manager;
        Sink sink;
        int asked = 0, passes = 0;
        sink.ready = [&] { return asked++ != pause_at; };
        ASSERT_TRUE(manager.request_history(&sink));
        for (; !sink.is_done() && passes < 20; ++passes) {
            manager.pass();
            EXPECT_EQ(pcfCloseRead(0), PCF_NOTHING) << "no file stays open";
        }
        EXPECT_EQ(sink.got, range(1, 5)) << pause_at;
        EXPECT_EQ(passes, pause_at == 6 ? 1 : 2) << pause_at;
    }
}

TEST_F(History, A_replay_that_cannot_go_on_is_tried_again_100_ms_later) {
    put(0, record_of(1));
    Manager manager;
    Sink sink;
    bool ready = false;
    sink.ready = [&] { return ready; };
    Debug_filter::add_filter(_JDB::jdb_diagnostics);
    Capture capture(stderr);
    ASSERT_TRUE(manager.request_history(&sink));
    Atime due(false);
    for (const int wait : {0, 100}) {
        ASSERT_EQ(manager.next_timeout(due), 0);
        EXPECT_EQ(due.get_ms_from_now(), wait);
        clock.advance(wait);
        if (ready) Pcf_host::inject(Pcf_host::call_open_read, 1, Pcf_host::fault_error);
        manager.pass();
        ready = true;
    }
    EXPECT_EQ(capture.text(), "Could not open file 2: H0.dat\r\n");
    Debug_filter::remove_filter(_JDB::jdb_diagnostics);
    ASSERT_EQ(manager.next_timeout(due), 0);
    EXPECT_EQ(due.get_ms_from_now(), 100);
    manager.pass();
    EXPECT_EQ(sink.got, Numbers{1});
}

TEST_F(History, A_replay_goes_on_beside_the_writer) {
    // Between two passes the writer gets `pace` records further: it overtakes the replay or does not.
    for (const int pace : {0, 1, 60}) {
        constexpr int in_file = 4, old = 40;
        for (int n = 0; n < 10; ++n) std::filesystem::remove(path(n));
        Manager manager(in_file * record_bytes);
        for (int n = 1; n <= old; ++n) ASSERT_TRUE(manager.record(n));
        const Numbers before = replay(manager);
        Sink sink;
        bool paused = false;
        sink.ready = [&] { return !paused; };
        sink.on_output = [&] { paused = true; };
        ASSERT_TRUE(manager.request_history(&sink));
        for (int i = 0; i < 100 && !sink.is_done(); ++i) {
            paused = false;
            manager.pass();
            for (int k = 0; k < pace; ++k) ASSERT_TRUE(manager.record(old + 1));
        }
        EXPECT_TRUE(sink.is_done());
        // In order, each once, nothing newer than the request; what was overwritten meanwhile is missing.
        ASSERT_FALSE(sink.got.empty());
        for (size_t i = 1; i < sink.got.size(); ++i) EXPECT_LT(sink.got[i - 1], sink.got[i]) << pace;
        EXPECT_TRUE(pace <= 1 ? sink.got.back() == old : sink.got.back() <= old) << pace;
        EXPECT_TRUE(pace > 0 || sink.got == before);
    }
}

TEST_F(History, Serves_one_request_at_a_time) {
    put(0, record_of(1) + record_of(2));
    Manager manager, other(4096, "other");
    Sink first, second;
    first.set_filter(0, 2, 0, 0xFFFFFFFF);
    for (int round = 1; round <= 2; ++round) {
        EXPECT_FALSE(manager.request_history(nullptr));
        EXPECT_TRUE(manager.request_history(&first));
        EXPECT_FALSE(first.is_done());
        EXPECT_FALSE(manager.request_history(&second) || manager.request_history(&first));
        EXPECT_FALSE(other.request_history(&first)) << "it waits for the first manager";
        manager.pass();
        EXPECT_EQ(first.got, Numbers(static_cast<size_t>(round), 2)) << "its filter stays";
    }
    EXPECT_TRUE(other.request_history(&first)) << "it is free again";
    other.pass();
    EXPECT_TRUE(manager.request_history(&second));
    manager.pass();
    EXPECT_EQ(second.got, (Numbers{1, 2}));

    const std::string longest(26, 'n'), longer(27, 'n');
    EXPECT_TRUE(Manager(4096, longest.c_str()).record(1));
    EXPECT_EQ(read_file(folder.file(longest + "0.dat")).size(), record_bytes);
    Capture capture(stderr);
    Manager bad(4096, longer.c_str());
    EXPECT_EQ(capture.text(), "Diagnostics: base name " + longer + " is longer than 26 characters\n");
    EXPECT_FALSE(bad.log_error(1, 2, 3) || bad.request_history(&second));
}

TEST_F(History, Counts_and_tells_what_cannot_be_stored_and_goes_on) {
    using namespace Pcf_host;
    const struct {
        const char* what;
        int file; // 0: the record makes a new file; 1: it goes to an existing one; 2: it needs a rotation
        Call call;
        Fault fault;
        int nth, times;
        bool stored;
    } table[] = {{"busy for a while", 1, call_open_write, fault_busy, 1, 2, true},
                 {"busy", 1, call_open_write, fault_busy, 1, 5, false},
                 {"not created", 0, call_create, fault_error, 1, 5, false},
                 {"short write", 0, call_write, fault_short_write, 1, 1, false},
                 {"failing close", 1, call_close_write, fault_error, 1, 1, false},
                 {"no information", 1, call_info, fault_error, 1, 1, false},
                 {"no information once open", 1, call_info, fault_error, 3, 1, false},
                 {"old file stays", 2, call_remove, fault_error, 1, 1, false}};
    for (const auto& row : table) {
        for (int n = 0; n < 10; ++n) std::filesystem::remove(path(n));
        if (row.file > 0) put(0, record_of(1));
        ASSERT_TRUE(mount(folder.path.c_str(), 100000));
        waiter_descriptor waiter;
        waiter.init(&Diner_info_list::get());
        Manager manager(row.file == 2 ? record_bytes : 4096);
        manager.set_lost_waiter(&waiter);
        if (row.file == 2) replay(manager), put(1, record_of(0)); // in the way
        Capture quiet(stderr);
        inject(row.call, row.nth, row.fault, row.times);
        EXPECT_EQ(manager.record(2), row.stored) << row.what;
        waiter_event e;
        if (!row.stored) {
            ASSERT_EQ(waiter.get_event(&e, Atime(false)), 0) << row.what;
            EXPECT_TRUE(e.module_id == manager.module_id() && e.id == Diagnostics::event_lost);
        }
        EXPECT_NE(waiter.get_event(&e, Atime(false)), 0) << row.what;
        EXPECT_EQ(manager.records_lost(), row.stored ? 0u : 1u) << row.what;
        inject(row.call, 1, fault_none, 0);
        EXPECT_TRUE(manager.record(3)) << row.what;
        const int first = row.file > 0;
        const Numbers without = first ? Numbers{1, 3} : Numbers{3};
        EXPECT_EQ(replay(manager), row.stored ? range(2 - first, 3) : without) << row.what;
        manager.set_lost_waiter(nullptr);
    }
}

TEST_F(History, Makes_room_in_a_full_store_by_its_oldest_file) {
    constexpr unsigned quota = 700;
    ASSERT_TRUE(Pcf_host::mount(folder.path.c_str(), quota));
    Manager manager(8 * record_bytes);
    for (int n = 1; n <= 100; ++n) {
        ASSERT_TRUE(manager.record(n)) << n;
        const Numbers got = replay(manager);
        ASSERT_EQ(got, range(n + 1 - static_cast<int>(got.size()), n));
        ASSERT_GE(got.size(), static_cast<size_t>(std::min(n, 20)));
        unsigned used, size;
        ASSERT_TRUE(PCFile_data_stream::get_free_space(used, size) && size - used >= Diagnostics::store_reserve);
    }
    // What others have stored is not ours to remove: without room the record is lost, and the process goes on.
    Capture quiet(stderr);
    write_file(folder.file("foreign"), std::string(quota - 20, 'x'));
    ASSERT_TRUE(Pcf_host::mount(folder.path.c_str(), quota));
    EXPECT_FALSE(manager.record(101));
    Pcf_host::unmount();
    EXPECT_FALSE(manager.record(102));
    std::filesystem::remove(folder.file("foreign"));
    ASSERT_TRUE(Pcf_host::mount(folder.path.c_str(), quota));
    EXPECT_TRUE(manager.record(103));
    EXPECT_EQ(replay(manager).back(), 103);
}

TEST_F(History, Is_echoed_on_the_debug_output_while_its_category_is_on) {
    put(0, record_of(0x1234) + record_of(0x11, 0));
    Manager manager;
    Sink sink;
    Debug_filter::add_filter(_JDB::jdb_diagnostics);
    Capture capture(stderr);
    ASSERT_TRUE(manager.request_history(&sink));
    manager.pass();
    EXPECT_TRUE(sink.is_done());
    EXPECT_FALSE(manager.request_history(&sink)) << "the echo is running";
    clock.advance(100);
    manager.pass();
    const std::string records = "Hist Msg 1 1234 0 6553f100 1f4\n", zero = "Hist Msg 1 11 0 0 1f4\n";
    EXPECT_EQ(capture.text(), records + zero + records + "ERR,1:4660,0,1700000000.500\n" + zero);
    Debug_filter::remove_filter(_JDB::jdb_diagnostics);
    EXPECT_EQ(replay(manager), Numbers{0x1234}) << "the echo is not echoed";
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
    std::thread one(log), two(log);
    one.join();
    two.join();
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
