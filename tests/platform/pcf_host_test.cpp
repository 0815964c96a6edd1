// SPDX-License-Identifier: MIT
#include "platform/pcf_host.h"
#include "support/Temporary_folder.h"
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>

namespace {

class Flash : public testing::Test {
protected:
    Flash() { EXPECT_TRUE(Pcf_host::mount(folder.path.c_str(), 1000)); }
    ~Flash() override { Pcf_host::unmount(); }

    static bool save(const char* name, const std::string& bytes) {
        if ((pcfExists(name) ? pcfOpenWrite(name, -1) : pcfCreateWrite(name, -1)) != PCF_DONE) return false;
        const int n = pcfWrite(bytes.data(), static_cast<int>(bytes.size()), -1);
        return pcfCloseWrite(-1) && n == static_cast<int>(bytes.size());
    }
    static std::string load(const char* name, unsigned offset = 0) {
        std::string all;
        char piece[7];
        PcfResult result = PCF_NOTHING;
        if (pcfOpenRead(name, offset, 0) != PCF_DONE) return "?";
        for (int n; (n = pcfRead(piece, sizeof piece, &result, 0)) > 0;) all.append(piece, static_cast<size_t>(n));
        EXPECT_EQ(result, PCF_DONE);
        EXPECT_EQ(pcfCloseRead(0), PCF_DONE);
        return all;
    }
    static unsigned free_bytes() {
        PcfInfo info;
        EXPECT_TRUE(pcfInfo(&info));
        EXPECT_EQ(info.size, 1000u);
        return info.free_bytes;
    }

    Temporary_folder folder;
};

TEST_F(Flash, Files_are_made_extended_and_removed) {
    EXPECT_FALSE(pcfExists("a"));
    EXPECT_TRUE(save("a", "hello "));
    EXPECT_TRUE(save("a", "world"));
    EXPECT_EQ(load("a"), "hello world");
    EXPECT_EQ(load("a", 6), "world");
    EXPECT_EQ(load("a", 60), "");
    EXPECT_EQ(free_bytes(), 989u);
    EXPECT_EQ(pcfOpenRead("b", 0, 0), PCF_NO_FILE);
    EXPECT_EQ(pcfRemove("b"), PCF_NO_FILE);
    EXPECT_EQ(pcfRemove("a"), PCF_DONE);
    EXPECT_EQ(free_bytes(), 1000u);
    for (const char* bad : {"", "a/b", ".", "..", "a-name-of-forty-bytes-is-one-byte-too-lon"})
        EXPECT_EQ(pcfCreateWrite(bad, -1), PCF_FAILED) << bad;
    EXPECT_TRUE(save("a-name-of-thirty-nine-bytes-is-fine-aaa", ""));
}

TEST_F(Flash, Iterates_sorted_by_name_without_its_own_files) {
    for (const char* name : {"c", "a", "b"}) save(name, "x");
    EXPECT_EQ(pcfGetNumFiles(), 3u);
    char name[256];
    std::string all;
    for (unsigned i = 0; pcfGetFileName(i, name); ++i) all += name;
    EXPECT_EQ(all, "abc");
}

TEST_F(Flash, One_file_at_a_time_is_open_each_way) {
    save("a", "123");
    ASSERT_EQ(pcfOpenWrite("a", -1), PCF_DONE);
    EXPECT_EQ(pcfCreateWrite("b", -1), PCF_BUSY);
    EXPECT_EQ(pcfRemove("a"), PCF_BUSY);
    EXPECT_EQ(load("a"), "123") << "reading goes on beside writing";
    EXPECT_TRUE(pcfCloseWrite(-1));
    ASSERT_EQ(pcfOpenRead("a", 0, 0), PCF_DONE);
    EXPECT_EQ(pcfOpenRead("a", 0, 0), PCF_BUSY);
    pcfCloseRead(0);
    EXPECT_EQ(pcfCloseRead(0), PCF_NOTHING);
    EXPECT_EQ(pcfCloseWrite(-1), 0);
}

TEST_F(Flash, A_reader_sees_what_is_appended_and_nothing_that_is_taken_back) {
    const auto next = [](int n) {
        std::string bytes(static_cast<size_t>(n), '?');
        PcfResult result = PCF_NOTHING;
        bytes.resize(static_cast<size_t>(pcfRead(bytes.data(), n, &result, 0)));
        EXPECT_EQ(result, PCF_DONE);
        return bytes;
    };
    save("a", "1234");
    ASSERT_EQ(pcfOpenRead("a", 1, 0), PCF_DONE);
    EXPECT_EQ(next(2), "23");
    save("a", "5678");
    EXPECT_EQ(next(4), "4567");
    ASSERT_EQ(pcfOpenWrite("a", -1), PCF_DONE);
    pcfWrite("torn", 4, -1);
    EXPECT_EQ(next(2), "8t");
    Pcf_host::inject(Pcf_host::call_close_write, 1, Pcf_host::fault_error);
    EXPECT_FALSE(pcfCloseWrite(-1));
    EXPECT_EQ(next(2), "");
    pcfCloseRead(0);
    ASSERT_TRUE(Pcf_host::mount(folder.path.c_str(), 10000));
    save("a", std::string(9000, 'z')); // more than is read ahead
    ASSERT_EQ(pcfOpenRead("a", 4000, 0), PCF_DONE);
    std::string rest;
    for (std::string s; !(s = next(5000)).empty();) rest += s;
    EXPECT_EQ(rest, std::string(5008, 'z'));
    pcfCloseRead(0);
}

TEST_F(Flash, Keeps_its_quota_to_the_byte_and_drops_what_does_not_fit) {
    EXPECT_TRUE(save("a", std::string(600, 'a')));
    EXPECT_FALSE(save("b", std::string(401, 'b')));
    EXPECT_FALSE(pcfExists("b"));
    EXPECT_FALSE(save("a", std::string(401, 'b')));
    EXPECT_EQ(load("a"), std::string(600, 'a'));
    EXPECT_TRUE(save("b", std::string(400, 'b')));
    EXPECT_EQ(free_bytes(), 0u);
}

TEST_F(Flash, A_cut_between_open_and_close_leaves_the_old_state) {
    save("old", "1234567890");
    const struct {
        const char* name;
        int writes;
        bool close;
        std::string old, fresh;
    } table[] = {{"old", 0, false, "1234567890", "?"},
                 {"old", 2, false, "1234567890", "?"},
                 {"fresh", 2, false, "1234567890", "?"},
                 {"fresh", 2, true, "1234567890", "xyxy"},
                 {"old", 2, true, "1234567890xyxy", "xyxy"}};
    for (const auto& row : table) {
        pcfExists(row.name) ? pcfOpenWrite(row.name, -1) : pcfCreateWrite(row.name, -1);
        for (int i = 0; i < row.writes; ++i) pcfWrite("xy", 2, -1);
        if (row.close) {
            EXPECT_TRUE(pcfCloseWrite(-1));
        }
        ASSERT_TRUE(Pcf_host::mount(folder.path.c_str(), 1000)); // unmounts as a power cut would
        EXPECT_EQ(load("old"), row.old);
        EXPECT_EQ(load("fresh"), row.fresh);
        EXPECT_EQ(free_bytes(), 1000 - row.old.size() - (row.fresh == "?" ? 0 : row.fresh.size()));
        EXPECT_TRUE(pcfIsMounted());
    }
}

TEST_F(Flash, A_second_process_finds_it_not_mounted) {
    const std::string path = folder.path;
    const std::string command = "flock -n -x '" + path + "'/flash-store-lock* true";
    EXPECT_NE(system(command.c_str()), 0);
    Pcf_host::unmount();
    EXPECT_EQ(system(command.c_str()), 0);
    EXPECT_FALSE(pcfIsMounted());
    EXPECT_EQ(pcfGetNumFiles(), 0u);
    EXPECT_FALSE(Pcf_host::mount((path + "/none").c_str(), 1000));
}

TEST_F(Flash, Faults_can_be_injected) {
    save("a", "123");
    Pcf_host::inject(Pcf_host::call_open_read, 2, Pcf_host::fault_busy, 2);
    EXPECT_EQ(load("a"), "123");
    EXPECT_EQ(pcfOpenRead("a", 0, 0), PCF_BUSY);
    EXPECT_EQ(pcfOpenRead("a", 0, 0), PCF_BUSY);
    EXPECT_EQ(load("a"), "123");
    Pcf_host::inject(Pcf_host::call_write, 1, Pcf_host::fault_short_write);
    EXPECT_FALSE(save("a", "4567"));
    EXPECT_EQ(load("a"), "123");
    Pcf_host::inject(Pcf_host::call_close_write, 1, Pcf_host::fault_error);
    EXPECT_FALSE(save("b", "4567"));
    EXPECT_FALSE(pcfExists("b"));
    EXPECT_TRUE(save("b", "4567"));
}

} // namespace
