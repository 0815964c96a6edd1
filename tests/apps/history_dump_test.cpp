// SPDX-License-Identifier: MIT
#include "support/Temporary_folder.h"
#include "support/child.h"
#include "support/frame.h"
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

Child_result dump(const std::vector<std::string>& arguments) { return run_program(HISTORY_DUMP, arguments); }

std::string record(unsigned src, unsigned error, unsigned time) {
    return Frame("SP").u1(src).u2(287).u2(error).u4(time).u1(125).str() + "\n";
}

class history_dump : public testing::Test {
protected:
    history_dump() {
        // Current is 1, so 2 is left out, 8 the oldest; with damage, a reply, a torn end and what the restart put
        // there.
        std::string damaged = record(9, 9, 1700000002);
        damaged[8] ^= 1;
        write_file(folder.file("H8.dat"), record(128, 1234, 1700000000) + damaged + record(1, 5, 1700000001));
        write_file(folder.file("H9.dat"), "RE003%x\r\n" + record(128, 5, 1700000003) + record(7, 7, 0));
        write_file(folder.file("H0.dat"), record(2, 65535, 4000000000));
        write_file(folder.file("H1.dat"), record(3, 1, 5).substr(0, 9) + std::string(17, '\n') + record(4, 6, 86400));
        write_file(folder.file("notes.txt"), "no history");
    }
    Temporary_folder folder;
};

TEST_F(history_dump, prints_the_records_from_the_oldest_to_the_newest) {
    const Child_result text = dump({folder.path});
    EXPECT_EQ(text.out, "2023-11-14 22:13:20.500 source 128 error 1234 word 287\n"
                        "2023-11-14 22:13:21.500 source 1 error 5 word 287\n"
                        "2023-11-14 22:13:23.500 source 128 error 5 word 287\n"
                        "2096-10-02 07:06:40.500 source 2 error 65535 word 287\n"
                        "1970-01-02 00:00:00.500 source 4 error 6 word 287\n");
    EXPECT_EQ(text.err, "");
    EXPECT_EQ(text.status, 0);
    // Nothing may be made or changed, not even with all rights.
    size_t entries = 0;
    for (const auto& e : std::filesystem::directory_iterator(folder.path)) entries += e.exists();
    EXPECT_EQ(entries, 5u);
    EXPECT_EQ(read_file(folder.file("H1.dat")).size(), 9u + 17 + 17);
}

TEST_F(history_dump, filters_and_separates_by_commas) {
    const std::string a = "1700000000.500,128,1234,287\n", b = "1700000001.500,1,5,287\n",
                      c = "1700000003.500,128,5,287\n", d = "4000000000.500,2,65535,287\n", e = "86400.500,4,6,287\n";
    const struct {
        std::vector<std::string> filters;
        std::string expected;
    } table[] = {{{"H"}, a + b + c + d + e},
                 {{"--source", "0x80"}, a + c},
                 {{"--error=5"}, b + c},
                 {{"--source=128", "--error", "5"}, c},
                 {{"--from", "1700000001", "--to", "1700000003"}, b},
                 {{"--from", "2023-11-14T22:13:21", "--to=2024-01-01"}, b + c},
                 {{"--to", "1970-01-03"}, e},
                 {{"--from", "4000000001"}, ""}};
    for (const auto& row : table) {
        std::vector<std::string> arguments = {folder.path, "--csv"};
        arguments.insert(arguments.end(), row.filters.begin(), row.filters.end());
        const Child_result r = dump(arguments);
        EXPECT_EQ(r.out, "time,source,error,word\n" + row.expected) << row.filters.front();
        EXPECT_EQ(r.status, 0);
    }
}

TEST_F(history_dump, answers_what_is_wrong_with_one_line) {
    const std::string two = folder.file("two"), none = folder.file("none"), empty = folder.file("empty");
    std::filesystem::create_directory(two);
    std::filesystem::create_directory(empty);
    write_file(two + "/A0.dat", "");
    write_file(two + "/B3.dat", "");
    const struct {
        std::vector<std::string> arguments;
        int status;
        std::string line;
    } table[] = {{{}, 2, "give a folder and at most a base name (try --help)"},
                 {{"a", "b", "c"}, 2, "give a folder and at most a base name (try --help)"},
                 {{folder.path, "--colour"}, 2, "unknown option --colour (try --help)"},
                 {{folder.path, "-x"}, 2, "unknown option -x (try --help)"},
                 {{folder.path, "--source"}, 2, "--source needs a value (try --help)"},
                 {{folder.path, "--source", "256"}, 2, "wrong value 256 for --source (try --help)"},
                 {{folder.path, "--error", "-1"}, 2, "wrong value -1 for --error (try --help)"},
                 {{folder.path, "--error", "5x"}, 2, "wrong value 5x for --error (try --help)"},
                 {{folder.path, "--from", "4294967296"}, 2, "wrong value 4294967296 for --from (try --help)"},
                 {{folder.path, "--to", "2023-13-01"}, 2, "wrong value 2023-13-01 for --to (try --help)"},
                 {{none}, 1, "cannot read " + none + ": No such file or directory"},
                 {{empty}, 1, "no history in " + empty},
                 {{folder.path, "G"}, 1, "no history G in " + folder.path},
                 {{two}, 2, "more than one history in " + two + ": name one, for instance A"}};
    for (const auto& row : table) {
        const Child_result r = dump(row.arguments);
        EXPECT_EQ(r.err, "history_dump: " + row.line + "\n");
        EXPECT_EQ(r.status, row.status) << row.line;
        EXPECT_EQ(r.out, "");
    }
    EXPECT_EQ(dump({two, "B"}).status, 0);
    EXPECT_NE(dump({"--help"}).out.find("usage: history_dump"), std::string::npos);
}

} // namespace
