// SPDX-License-Identifier: MIT
#include "glue/data_stream/PCFile_data_stream.h"
#include "glue/diner/module_man.h"
#include "glue/diner/waiter_descriptor.h"
#include "platform/pcf_host.h"
#include "support/Temporary_folder.h"
#include "support/capture.h"
#include "support/child.h"
#include <csignal>
#include <functional>
#include <gtest/gtest.h>

namespace {

constexpr unsigned refused = static_cast<unsigned>(-4);

/// One for the process, as the class keeps its waiters.
module_man& modules() {
    static module_man& instance = []() -> module_man& {
        static module_man mm;
        PCFile_data_stream::static_init(mm);
        return mm;
    }();
    return instance;
}

class Flash_stream : public testing::Test {
protected:
    Flash_stream() {
        waiter.init(&modules());
        Pcf_host::mount(folder.path.c_str(), 100);
        PCFile_data_stream::register_waiter(&waiter);
    }
    ~Flash_stream() override {
        PCFile_data_stream::deregister_waiter(&waiter);
        Pcf_host::unmount();
    }
    static unsigned put(PCFile_data_stream& s, size_t n) {
        const std::string bytes(n, 'x');
        return s._write(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<unsigned>(n));
    }
    static void save(const char* name, size_t n) {
        PCFile_data_stream s;
        ASSERT_EQ(s.open_write(name, 1), PCFile_data_stream::done);
        ASSERT_EQ(put(s, n), n);
        ASSERT_EQ(s.close_write(), PCFile_data_stream::done);
    }
    /// Ids of the events that have arrived.
    std::string events() {
        std::string ids;
        waiter_event e;
        while (waiter.get_event(&e, Atime(false)) == 0) {
            EXPECT_TRUE(PCFile_data_stream::is_event(e));
            ids += std::to_string(e.id);
        }
        return ids;
    }

    Temporary_folder folder;
    waiter_descriptor waiter;
};

TEST_F(Flash_stream, Writes_reads_and_counts) {
    save("a", 50);
    PCFile_data_stream s;
    ASSERT_EQ(s.open_read("a", 1), PCFile_data_stream::done);
    EXPECT_EQ(s.open_read("a", 1), PCFile_data_stream::wrong_state);
    EXPECT_TRUE(s.bytes_avail(40u));
    EXPECT_EQ(s.bytes_avail(), 40);
    EXPECT_FALSE(s.bytes_avail(51u));
    EXPECT_EQ(s.bytes_avail(), 50);
    EXPECT_EQ(s.bytes_read, 50u);
    EXPECT_EQ(s.close_read(), 0);
    EXPECT_EQ(s.close_read(), PCFile_data_stream::wrong_state);
    unsigned used, size;
    EXPECT_TRUE(PCFile_data_stream::get_free_space(used, size));
    EXPECT_EQ(used, 50u);
    EXPECT_EQ(size, 100u);
    EXPECT_TRUE(PCFile_data_stream::exists("a"));
    EXPECT_TRUE(PCFile_data_stream::remove("a"));
    EXPECT_FALSE(PCFile_data_stream::remove("a"));
}

TEST_F(Flash_stream, Tells_what_stops_it_from_opening) {
    using F = PCFile_data_stream;
    save("a", 10);
    const struct {
        std::function<void()> prepare;
        std::function<int(F&)> call;
        int result;
        std::string text, told;
    } table[] = {
        {[] {}, [](F& s) { return s.open_read("none", 1); }, F::not_mounted, "", ""},
        {[] { Pcf_host::inject(Pcf_host::call_open_read, 1, Pcf_host::fault_busy, 2); },
         [](F& s) { return s.open_read("a", 2); }, F::wrong_state, "", ""},
        {[] { Pcf_host::inject(Pcf_host::call_open_read, 1, Pcf_host::fault_busy, 2); },
         [](F& s) { return s.open_read("a", 0); }, F::done, "", ""}, // as often as it takes
        {[] { Pcf_host::inject(Pcf_host::call_open_read, 1, Pcf_host::fault_error); },
         [](F& s) { return s.open_read("a", 3); }, PCF_FAILED, "", ""},
        {[] {}, [](F& s) { return s.open_write("a", 0); }, F::gave_up, "PCF Datastream Failed 221\n", ""},
        {[] { Pcf_host::inject(Pcf_host::call_open_write, 1, Pcf_host::fault_busy, 2); },
         [](F& s) { return s.open_write("a", 2); }, F::gave_up, "PCF Datastream Failed 227\n", ""},
        {[] { Pcf_host::inject(Pcf_host::call_create, 1, Pcf_host::fault_error); },
         [](F& s) { return s.open_write("new", 1); }, F::gave_up, "PCF Datastream Failed 236\n", ""},
        {[] { Pcf_host::inject(Pcf_host::call_create, 1, Pcf_host::fault_error); },
         [](F& s) { return s.open_write("new", 2); }, F::done, "", ""},
        {[] { Pcf_host::inject(Pcf_host::call_info, 1, Pcf_host::fault_error); },
         [](F& s) { return s.open_write("a", 1); }, F::wrong_state, "PCF Datastream Failed 216 (a 0 0)\n", "1"},
    };
    for (const auto& row : table) {
        row.prepare();
        F s;
        Capture err(stderr);
        EXPECT_EQ(row.call(s), row.result);
        EXPECT_EQ(err.text(), row.text);
        EXPECT_EQ(events(), row.told);
        if (s.is_open_read()) s.close_read();
        if (s.is_open_write()) s.close_write();
    }
}

TEST_F(Flash_stream, Does_nothing_without_a_store) {
    Pcf_host::unmount();
    PCFile_data_stream s;
    Capture err(stderr);
    EXPECT_FALSE(PCFile_data_stream::mounted());
    EXPECT_FALSE(PCFile_data_stream::exists("a"));
    EXPECT_EQ(s.open_read("a", 1), PCFile_data_stream::not_mounted);
    EXPECT_EQ(s.open_write("a", 1), PCFile_data_stream::not_mounted);
    EXPECT_EQ(s.close_write(), PCFile_data_stream::wrong_state);
    EXPECT_FALSE(PCFile_data_stream::copy("b", "a"));
    PCFile_data_stream::Iterator i;
    EXPECT_EQ(i.get_name(), nullptr);
    EXPECT_EQ(err.text(),
              "PCF Datastream Failed 192 (a)\nPCF Datastream Failed 207\nPCF not open\nPCF cannot iterate\n");
}

TEST_F(Flash_stream, A_full_store_tells_its_waiters) {
    save("a", 95);
    PCFile_data_stream s;
    EXPECT_EQ(put(s, 1), refused) << "not open";
    ASSERT_EQ(s.open_write("a", 1), PCFile_data_stream::done);
    Capture err(stderr);
    EXPECT_EQ(put(s, 20), refused);
    EXPECT_FALSE(s.is_open_write());
    EXPECT_EQ(events(), "1");
    save("b", 5);
    EXPECT_EQ(s.open_write("b", 1), PCFile_data_stream::wrong_state);
    EXPECT_EQ(events(), "1");
    EXPECT_EQ(err.text(), "PCF full\nPCF Datastream Failed 216 (b 100 100)\n");
}

TEST_F(Flash_stream, Aborts_when_a_write_does_not_fit_into_a_store_that_is_not_full) {
    for (const unsigned left : {10u, 11u}) {
        const Child_result child = run_child([&] {
            save("a", 100 - left);
            PCFile_data_stream s;
            s.open_write("a", 1);
            put(s, 20);
        });
        EXPECT_EQ(child.signal, left > 10 ? SIGABRT : 0) << left;
        PCFile_data_stream::remove("a");
        Pcf_host::mount(folder.path.c_str(), 100);
        PCFile_data_stream::remove("a");
    }
}

TEST_F(Flash_stream, A_failed_write_closes_the_file_and_is_told) {
    PCFile_data_stream s;
    ASSERT_EQ(s.open_write("a", 1), PCFile_data_stream::done);
    Pcf_host::inject(Pcf_host::call_write, 1, Pcf_host::fault_short_write);
    Capture err(stderr);
    EXPECT_EQ(put(s, 10), 5u);
    EXPECT_FALSE(s.is_open_write());
    EXPECT_EQ(events(), "0");
    EXPECT_EQ(err.text(), "PCF did not write 10!=5\nPCF failed to close\n");
}

TEST_F(Flash_stream, Copies_as_far_as_there_is_room) {
    Pcf_host::mount(folder.path.c_str(), 3000);
    const auto size_of = [](const char* name) {
        PCFile_data_stream s;
        if (s.open_read(name, 1) != PCFile_data_stream::done) return -1;
        while (s.bytes_avail(1u)) s.drop_all();
        s.close_read();
        return static_cast<int>(s.bytes_read);
    };
    save("a", 1200);
    save("b", 7);
    EXPECT_TRUE(PCFile_data_stream::copy("b", "a"));
    EXPECT_EQ(size_of("b"), 1200);
    EXPECT_EQ(events(), "");
    EXPECT_TRUE(PCFile_data_stream::copy("c", "a")) << "stops for lack of room, and says so by the event";
    EXPECT_EQ(size_of("c"), 500);
    EXPECT_EQ(events(), "1");
    EXPECT_FALSE(PCFile_data_stream::copy("d", "none"));
    save("empty", 0);
    EXPECT_FALSE(PCFile_data_stream::copy("d", "empty"));
    Pcf_host::inject(Pcf_host::call_open_read, 1, Pcf_host::fault_error);
    EXPECT_FALSE(PCFile_data_stream::copy("d", "a"));
}

TEST_F(Flash_stream, Destroyed_while_open_ends_the_process) {
    save("a", 1);
    const struct {
        bool read, write;
        const char* text;
    } table[] = {{true, false, "Destruct while files are read open!!"},
                 {false, true, "Destruct while files are write open!!"},
                 {true, true, "Destruct while files are read open!!"}};
    for (const auto& row : table) {
        const Child_result child = run_child([&] {
            PCFile_data_stream s;
            if (row.read) s.open_read("a", 1);
            if (row.write) s.open_write("a", 1);
        });
        EXPECT_EQ(child.status, 101);
        EXPECT_EQ(child.err, row.text);
    }
}

} // namespace
