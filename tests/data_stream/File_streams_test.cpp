// SPDX-License-Identifier: MIT
#include "glue/data_stream/File_checksummed_data_stream.h"
#include "glue/data_stream/PCFile_data_stream.h"
#include "glue/diner/module_man.h"
#include "platform/pcf_host.h"
#include "support/Pty.h"
#include "support/test.h"
#include <sys/resource.h>

using namespace std::string_literals;

namespace {

class Files : public testing::Test {
protected:
    /// What can still be read.
    static std::string drain(Data_stream& s) { return s.bytes_avail(4000u), take(s); }
    /// What a checksummed file of these bytes yields or complains of.
    std::string load(const std::string& bytes) {
        write_file(path, bytes);
        File_checksummed_data_stream s;
        Capture err(stderr);
        if (!s.open_read(at)) return err.text();
        const std::string text = drain(s);
        EXPECT_EQ(s.read_crc32_seek_off, static_cast<int>(text.size()));
        return text;
    }
    /// The checksummed file of a payload that comes in uneven pieces: the checksum does not depend on them.
    std::string saved(const std::string& payload) {
        File_checksummed_data_stream s;
        EXPECT_TRUE(s.open_write(at));
        for (size_t i = 0; i < payload.size(); i += 37) put(s, payload.substr(i, 37));
        EXPECT_TRUE(s.close_write());
        return read_file(path);
    }
    Temporary_folder folder{Temporary_folder::quick};
    const std::string path = folder.file("a.txt"), missing = folder.file("none/a.txt"),
                      failure = "Error opening file [" + missing + "]\n";
    const char *const at = path.c_str(), *const none = missing.c_str();
};

TEST_F(Files, are_appended_to_and_read_by_path_or_descriptor) {
    File_data_stream s;
    EXPECT_VALUES(texts(false, false, false, true, UINT_MAX, UINT_MAX), s.close_read(), s.close_write(), s.get_data(1),
                  s.get_data(0), put(s, "x"), s.get_length());
    for (const char* piece : {"hello ", "world"})
        EXPECT_VALUES(texts(true, strlen(piece), true), s.open_write(at), put(s, piece), s.close_write());
    EXPECT_VALUES(texts(true, 'w', 11, "hello world", stream_name("DSFile", s, "," + path + ", r")), s.open_read(at),
                  s[6], s.get_length(), drain(s), s.name);
    EXPECT_VALUES(texts(true, true, "hello world"), s.close_read(), s.open_read(::open(at, O_RDONLY)), drain(s));
    EXPECT_VALUES("false true", s.exists(none), s.exists((path + "/x").c_str())) << "no folder: it cannot be told";
}

TEST_F(Files, with_a_checksum_verify_by_the_rules_of_the_field) {
    const std::string where = " checksummed file [" + path + "]\n", cut = "Empty or truncated" + where,
                      no_sum = "Failure while reading CRC32 in" + where, wrong_sum = "Error CRC32 mismatch on" + where;
    // Above 255 bytes the last chunk runs into the trailer unless they are a multiple.
    for (size_t n = 0; n <= 600; ++n) {
        const std::string payload(n, 'p');
        ASSERT_EQ(load(saved(payload)), n <= 255 || n % 255 == 0 ? payload : wrong_sum) << n;
    }
    const std::string good = saved("hello");
    EXPECT_EQ(good, "hello\n\nCRC32=BD1E346E");
    // No zero may be among the last four bytes, save in the first of them.
    const std::string zeros[] = {"1\0"s + "3456", "1\0"s + "3", "1\0"s + "345", "123\0"s};
    for (const std::string& payload : zeros) EXPECT_EQ(load(saved(payload)), &payload - zeros < 2 ? payload : no_sum);
    const std::pair<std::string, std::string> damaged[] = {
        {good.substr(0, 15), wrong_sum},   {good.substr(0, 14), cut},   {good.substr(0, 13) + "zz", no_sum},
        {"S" + good.substr(1), wrong_sum}, {good + "12345", wrong_sum}, {"hello\n\nCRC32=1BD1E346E", wrong_sum},
        {good + "123456", no_sum},         {good + "\nx", "hello"}};
    for (const auto& [bytes, yielded] : damaged) EXPECT_EQ(load(bytes), yielded) << bytes;

    write_file(path, "\nCRC32=5CA1AB1E");
    File_checksummed_data_stream s;
    EXPECT_VALUES("true -1 false", s.open_read(at), s.read_crc32_seek_off, s._get_data(0));
    Capture err(stderr);
    EXPECT_VALUES("false false false false", s.open_read(none), s.open_write(none), s.close_write(), s.open_read(0));
    EXPECT_VALUES(texts(UINT_MAX, s.seed), put(s, "x"), s.get_crc());
    EXPECT_EQ(err.text(), failure + failure + "CRCFILE not open for write!\n");
    const auto on_a_full_disk = [&] {
        const struct rlimit tight = {100, 100};
        signal(SIGXFSZ, SIG_IGN);
        s.open_write(at);
        exit(setrlimit(RLIMIT_FSIZE, &tight) == 0 && put(s, std::string(10000, 'x')) && s.close_write() ? 7 : 1);
    };
    EXPECT_EQ(run_child(on_a_full_disk).status, 7);
    EXPECT_EQ(read_file(path), std::string(100, 'x')) << "no trailer after a write error";
}

TEST_F(Files, with_a_checksum_may_be_opened_again_each_way_at_any_time) {
    const std::string other = folder.file("other"), huge = folder.file("huge");
    write_file(other, saved("a record"));
    File_checksummed_data_stream s;
    ASSERT_VALUES("true 3 true 5", s.open_write(at), put(s, "old"), s.open_write(at), put(s, "hello"));
    EXPECT_VALUES("true a record", s.open_read(other.c_str()), drain(s)) << "verified beside the writing";
    EXPECT_EQ(reinterpret_cast<uint32_t*>(&s.read_crc32_seek_off)[-1], s.get_crc()) << "the fields' order";
    EXPECT_VALUES("6 true hello world", put(s, " world"), s.close_write(), load(read_file(path)));

    Capture err(stderr);
    const std::string idle = stream_name("CRCFILE", s, "");
    EXPECT_VALUES(texts(false, idle, false), s.open_read(none), s.name, s.close_read());
    EXPECT_VALUES(texts(true, false, idle), s.open_write(at), s.open_write(none), s.name);
    write_file(huge, "x");
    std::filesystem::resize_file(huge, uintmax_t{3} << 30);
    EXPECT_FALSE(s.open_read(huge.c_str()));
    EXPECT_EQ(err.text(), failure + failure + "CRC32 seek failed in checksummed file [" + huge + "]: File too large\n");
}

// ---- the flash store, and what stands in for it on a host: what stress/power_cut_test.cpp does not show

using F = PCFile_data_stream;

class Flash_store : public testing::Test {
protected:
    Flash_store() {
        static module_man& modules = *new module_man; // one for the process, as the class keeps its waiters
        if (F::waiters.module_id() == 0) F::static_init(modules);
        waiter.init(&modules);
        EXPECT_VALUES("true 0", Pcf_host::mount(folder.path.c_str(), 100), F::register_waiter(&waiter));
    }
    ~Flash_store() override {
        EXPECT_EQ(F::deregister_waiter(&waiter), 0);
        Pcf_host::unmount();
    }
    /// Append to a file by the store's own functions.
    static bool save(const std::string& name, const std::string& bytes) {
        if ((pcfExists(name.c_str()) ? pcfOpenWrite : pcfCreateWrite)(name.c_str(), -1) != PCF_DONE) return false;
        pcfWrite(bytes.data(), static_cast<int>(bytes.size()), -1);
        return pcfCloseWrite(-1);
    }
    std::string stored(const std::string& name) const { return read_file(folder.file(name)); }
    /// Up to `n` bytes of the open file.
    static std::string next(int n) {
        char bytes[8];
        PcfResult result = PCF_NOTHING;
        const int got = pcfRead(bytes, n, &result, 0);
        return result == PCF_DONE ? std::string(bytes, static_cast<size_t>(got)) : "?";
    }
    static unsigned fill(F& s, size_t n) { return put(s, std::string(n, 'x')); }
    /// Ids of the events that have arrived.
    std::string events() {
        std::string ids;
        for (waiter_event e; waiter.get_event(&e, Atime(false)) == 0; ids += std::to_string(e.id))
            EXPECT_TRUE(F::is_event(e));
        return ids;
    }
    Temporary_folder folder;
    waiter_descriptor waiter;
};

TEST_F(Flash_store, holds_named_files_up_to_its_quota_one_open_each_way) {
    for (const char* bad : {"", "a/b", ".", "..", "a-name-of-forty-bytes-is-one-byte-too-lon"})
        EXPECT_EQ(pcfCreateWrite(bad, -1), PCF_FAILED) << bad;
    EXPECT_TRUE(save("a-name-of-thirty-nine-bytes-is-fine-aaa", ""));
    const std::string much(90, 'c');
    EXPECT_VALUES("true true", save("b", "hello "), save("b", "world"));
    EXPECT_VALUES("false false", save("c", much), save("b", much)) << "one byte too many";
    EXPECT_VALUES("hello world 0 true", stored("b"), pcfExists("c"), save("0", much.substr(1)));

    ASSERT_EQ(pcfOpenWrite("b", -1), PCF_DONE);
    EXPECT_VALUES(texts(PCF_BUSY, PCF_BUSY, PCF_DONE, "hello w", PCF_DONE), pcfCreateWrite("d", -1), pcfRemove("b"),
                  pcfOpenRead("b", 0, 0), next(7), pcfCloseRead(0));
    EXPECT_VALUES("1 0 hello world", pcfCloseWrite(-1), pcfCloseWrite(-1), stored("b"));
    const size_t open = num_descriptors();
    EXPECT_VALUES(texts(PCF_NO_FILE, PCF_NO_FILE, PCF_DONE, PCF_BUSY, ""), pcfRemove("d"), pcfOpenRead("d", 0, 0),
                  pcfOpenRead("b", 60, 0), pcfOpenRead("b", 0, 0), next(7));
    EXPECT_VALUES(texts(PCF_DONE, open, PCF_NOTHING), pcfCloseRead(0), num_descriptors(), pcfCloseRead(0));
}

TEST_F(Flash_store, shows_a_reader_what_is_appended_and_nothing_that_is_taken_back) {
    save("a", "1234");
    ASSERT_EQ(pcfOpenRead("a", 1, 0), PCF_DONE);
    EXPECT_VALUES("23 true 4567", next(2), save("a", "5678"), next(4));
    ASSERT_EQ(pcfOpenWrite("a", -1), PCF_DONE);
    EXPECT_VALUES("4 8t", pcfWrite("torn", 4, -1), next(2));
    Pcf_host::inject(Pcf_host::call_close_write, 1, Pcf_host::fault_error);
    EXPECT_VALUES("0 ", pcfCloseWrite(-1), next(2));
}

TEST_F(Flash_store, takes_back_at_a_crash_what_was_not_closed_and_nothing_of_a_file_with_a_name_alike) {
    const std::string names[] = {"a", "a\nb", " a", "a ", "\n", " ", "1 a", "a\n", "\ta"};
    for (const std::string& name : names) ASSERT_TRUE(save(name, name));
    for (const std::string& name : names) {
        EXPECT_VALUES(texts(PCF_DONE, 4), pcfOpenWrite(name.c_str(), -1), pcfWrite("torn", 4, -1));
        ASSERT_TRUE(Pcf_host::mount(folder.path.c_str(), 100));
        for (const std::string& each : names) EXPECT_EQ(stored(each), each) << "after " << name;
    }
}

TEST_F(Flash_store, tells_what_stops_it_from_opening) {
    using namespace Pcf_host;
    save("a", "some text");
    // the result, what is printed, the events
    const std::tuple<Call, Fault, int, const char*, int, const char*> rows[] = {
        {call_open_read, fault_none, 1, "none", 1, "3  "},
        {call_open_read, fault_busy, 2, "a", 2, "4  "},
        {call_open_read, fault_busy, 2, "a", 0, "0  "}, // as often as it takes
        {call_open_read, fault_error, 1, "a", 3, "2  "},
        {call_open_write, fault_none, 1, "a", 0, "1 PCF Datastream Failed 221\n "},
        {call_open_write, fault_busy, 2, "a", 2, "1 PCF Datastream Failed 227\n "},
        {call_create, fault_error, 1, "new", 1, "1 PCF Datastream Failed 236\n "},
        {call_create, fault_error, 1, "new", 2, "0  "},
        {call_info, fault_error, 1, "a", 1, "4 PCF Datastream Failed 216 (a 0 0)\n 1"},
    };
    for (const auto& [call, fault, times, name, retries, expected] : rows) {
        inject(call, 1, fault, times);
        F s;
        Capture err(stderr);
        const int result = call == call_open_read ? s.open_read(name, retries) : s.open_write(name, retries);
        EXPECT_VALUES(expected, result, err.text(), events());
        if (result == F::done) call == call_open_read ? s.close_read() : s.close_write();
    }
    const std::string lock = "flock -n -x '" + folder.path + "'/flash-store-lock* true";
    EXPECT_NE(system(lock.c_str()), 0) << "one process at a time has it mounted";
    unmount();
    EXPECT_VALUES("0 false", system(lock.c_str()), mount(folder.file("none").c_str(), 100));
    F s;
    Capture err(stderr);
    EXPECT_VALUES("false false false null", F::mounted(), F::exists("a"), F::copy("b", "a"), F::Iterator().get_name());
    EXPECT_VALUES("3 3 4", s.open_read("a", 1), s.open_write("a", 1), s.close_write());
    EXPECT_EQ("PCF Datastream Failed 192 (a)\nPCF cannot iterate\nPCF Datastream Failed 207\nPCF not open\n",
              err.text());
}

TEST_F(Flash_store, counts_what_is_free_and_tells_of_a_full_store_and_a_failed_write) {
    F s;
    Capture err(stderr);
    EXPECT_VALUES(texts(~3u, 0, F::wrong_state), fill(s, 1), s.open_write("a", 1), s.open_write("a", 1));
    EXPECT_EQ(stream_name("DSPCF", s, ", a, w"), s.name);
    EXPECT_VALUES("90 10 90", fill(s, 90), F::pcf_info.free_bytes, s.bytes_written);
    EXPECT_VALUES(texts(~3u, false, 1), fill(s, 20), s.is_open_write(), events());
    Pcf_host::inject(Pcf_host::call_write, 1, Pcf_host::fault_short_write);
    EXPECT_VALUES("0 2 false 0", s.open_write("b", 1), fill(s, 4), s.is_open_write(), events());
    save("b", "the rest. ");
    EXPECT_VALUES(texts(F::wrong_state, 1), s.open_write("b", 1), events());
    EXPECT_VALUES(texts(0, false, 90, std::string(90, 'x'), 0, F::wrong_state), s.open_read("a", 1), s.bytes_avail(91u),
                  s.bytes_read, take(s), s.close_read(), s.close_read());
    EXPECT_EQ(err.text(), "PCF Datastream Failed 202\nPCF full\nPCF did not write 4!=2\nPCF failed to close\n"
                          "PCF Datastream Failed 216 (b 100 100)\n");
    std::string names;
    for (F::Iterator i; const char* name = i.get_name(); i.next()) { // removing a file moves no other
        names += name;
        EXPECT_VALUES("true true false false", F::exists(name), F::remove(name), F::remove(name), F::exists(name));
    }
    EXPECT_EQ(names, "ab");
}

TEST_F(Flash_store, copies_as_far_as_there_is_room) {
    Pcf_host::mount(folder.path.c_str(), 2900);
    save("a", std::string(1200, 'x')), save("b", "removed"), save("empty", "");
    EXPECT_VALUES("true 1200 ", F::copy("b", "a"), stored("b").size(), events());
    EXPECT_VALUES("true 500 1", F::copy("c", "a"), stored("c").size(), events()) << "tells when there is no room left";
    EXPECT_VALUES("false false false", F::copy("c", "none"), F::copy("b", "empty"), F::exists("b"));
    for (const auto& [call, nth] : {std::pair{Pcf_host::call_open_read, 1}, {Pcf_host::call_read, 2}}) {
        Pcf_host::inject(call, nth, Pcf_host::fault_error);
        EXPECT_FALSE(F::copy("d", "a")) << "cut at call " << nth;
    }
}

TEST_F(Flash_store, has_no_events_when_no_module_id_is_left) {
    const auto without_an_id = [] {
        new (&F::waiters) waiter_list(F::mutex); // as in a process that has just begun
        module_man modules;
        for (short id; modules.init_module(&id, false) == 0;) {
        }
        exit(F::static_init(modules) || F::is_event(waiter_event(0, F::event_full, 0)) ? 1 : 7);
    };
    EXPECT_EQ(run_child(without_an_id).end(), "7 PCF Datastream has no module id\n");
}

} // namespace
