// SPDX-License-Identifier: MIT
// What the streams over it do not show (data_stream/File_streams_test.cpp, stress/power_cut_test.cpp).
#include "platform/pcf_host.h"
#include "support/Pty.h"
#include "support/test.h"

namespace {

struct Flash : testing::Test {
    Flash() { EXPECT_TRUE(Pcf_host::mount(folder.path.c_str(), 1000)); }
    ~Flash() override { Pcf_host::unmount(); }

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
    const Temporary_folder folder;
};

TEST_F(Flash, Holds_named_files_up_to_its_quota_one_open_each_way) {
    for (const char* bad : {"", "a/b", ".", "..", "a-name-of-forty-bytes-is-one-byte-too-lon"})
        EXPECT_EQ(pcfCreateWrite(bad, -1), PCF_FAILED) << bad;
    EXPECT_TRUE(save("a-name-of-thirty-nine-bytes-is-fine-aaa", ""));
    const std::string much(990, 'c');
    EXPECT_VALUES("true true", save("b", "hello "), save("b", "world"));
    EXPECT_VALUES("false false", save("c", much), save("b", much)) << "one byte too many";
    EXPECT_VALUES("hello world 0 true", stored("b"), pcfExists("c"), save("0", much.substr(1)));
    char names[2][256] = {};
    EXPECT_VALUES("3 1 1", pcfGetNumFiles(), pcfGetFileName(0, names[0]), pcfGetFileName(2, names[1]));
    EXPECT_VALUES("0 b", names[0], names[1]) << "in order";
    EXPECT_VALUES(texts(PCF_NO_FILE, PCF_DONE), pcfRemove("c"), pcfRemove("0"));

    ASSERT_EQ(pcfOpenWrite("b", -1), PCF_DONE);
    EXPECT_VALUES(texts(PCF_BUSY, PCF_BUSY, PCF_DONE, "hello w", PCF_DONE), pcfCreateWrite("d", -1), pcfRemove("b"),
                  pcfOpenRead("b", 0, 0), next(7), pcfCloseRead(0));
    EXPECT_VALUES("1 0 hello world", pcfCloseWrite(-1), pcfCloseWrite(-1), stored("b"));
    const size_t open = num_descriptors();
    EXPECT_VALUES(texts(PCF_NO_FILE, PCF_DONE, PCF_BUSY, ""), pcfOpenRead("d", 0, 0), pcfOpenRead("b", 60, 0),
                  pcfOpenRead("b", 0, 0), next(7));
    EXPECT_VALUES(texts(PCF_DONE, open, PCF_NOTHING), pcfCloseRead(0), num_descriptors(), pcfCloseRead(0));
}

TEST_F(Flash, A_reader_sees_what_is_appended_and_nothing_that_is_taken_back) {
    save("a", "1234");
    ASSERT_EQ(pcfOpenRead("a", 1, 0), PCF_DONE);
    EXPECT_VALUES("23 true 4567", next(2), save("a", "5678"), next(4));
    ASSERT_EQ(pcfOpenWrite("a", -1), PCF_DONE);
    EXPECT_VALUES("4 8t", pcfWrite("torn", 4, -1), next(2));
    Pcf_host::inject(Pcf_host::call_close_write, 1, Pcf_host::fault_error);
    EXPECT_VALUES("0 ", pcfCloseWrite(-1), next(2));
}

TEST_F(Flash, A_crash_takes_back_what_was_not_closed_and_nothing_of_a_file_with_a_name_alike) {
    const std::string names[] = {"a", "a\nb", " a", "a ", "\n", " ", "1 a", "a\n", "\ta"};
    for (const std::string& name : names) ASSERT_TRUE(save(name, name));
    for (const std::string& name : names) {
        EXPECT_VALUES(texts(PCF_DONE, 4), pcfOpenWrite(name.c_str(), -1), pcfWrite("torn", 4, -1));
        ASSERT_TRUE(Pcf_host::mount(folder.path.c_str(), 1000));
        for (const std::string& each : names) EXPECT_EQ(stored(each), each) << "after " << name;
    }
}

TEST_F(Flash, One_process_at_a_time_has_it_mounted) {
    const std::string command = "flock -n -x '" + folder.path + "'/flash-store-lock* true";
    EXPECT_NE(system(command.c_str()), 0);
    Pcf_host::unmount();
    EXPECT_VALUES("0 0 0", system(command.c_str()), pcfIsMounted(), pcfGetNumFiles());
    EXPECT_FALSE(Pcf_host::mount(folder.file("none").c_str(), 1000));
}

} // namespace
