// SPDX-License-Identifier: MIT
#include "support/frame.h"
#include "support/test.h"

namespace {

using Arguments = std::vector<std::string>;

TEST(history_dump, prints_the_records_from_the_oldest_to_the_newest_that_pass_the_filters) {
    const Temporary_folder folder;
    const auto record = [](unsigned src, unsigned error, unsigned time, unsigned word = 0x7F1F) {
        return Frame("SP").u1(src).u2(word).u2(error).u4(time).u1(125).str() + "\n";
    };
    // Current is 1, so 2 is left out, 8 the oldest; with damage, a reply, a torn end and what the restart put there.
    const std::string damaged = record(9, 9, 1700000002).replace(8, 1, "?");
    write_file(folder.file("H8.dat"), record(128, 1234, 1700000000, 0x011F) + damaged + record(1, 5, 1700000001, 17));
    write_file(folder.file("H9.dat"), "RE003%x\r\n" + record(128, 0xF000, 1700000003, 0xFEEC) + record(7, 7, 0));
    write_file(folder.file("H0.dat"), record(2, 65535, 4000000000));
    write_file(folder.file("H1.dat"), record(3, 1, 5).substr(0, 9) + std::string(17, '\n') + record(4, 6, 86400));
    const Child_result before = run_program(HISTORY_DUMP, {folder.path, "--to", "2023-11-15"});
    EXPECT_EQ(before.out, "2023-11-14 22:13:20.500 source 128 error 1234 word 287, SPN 1234 FMI 31 active, count 1\n"
                          "2023-11-14 22:13:21.500 source 1 error 5 word 17\n"
                          "2023-11-14 22:13:23.500 source 128 error 61440 word 65260, SPN 520192 FMI 12 "
                          "inactive, count 126\n"
                          "1970-01-02 00:00:00.500 source 4 error 6 word 32543\n");
    const std::string line = "history_dump: " + folder.path, no_record = " bytes are no record\n";
    EXPECT_EQ(before.end(), "0 " + line + "/H8.dat: 15" + no_record + line + "/H9.dat: 7" + no_record + line +
                                "/H1.dat: 9" + no_record);
    const std::string a = "1700000000.500,128,1234,287,1234,31,1,active\n", b = "1700000001.500,1,5,17,,,,\n",
                      c = "1700000003.500,128,61440,65260,520192,12,126,inactive\n",
                      d = "4000000000.500,2,65535,32543,,,,\n", e = "86400.500,4,6,32543,,,,\n";
    const std::pair<Arguments, std::string> table[] = {{{"H"}, a + b + c + d + e},
                                                       {{"--source", "0x80"}, a + c},
                                                       {{"--error=5"}, b},
                                                       {{"--from", "1700000001", "--to", "1700000003"}, b},
                                                       {{"--from", "2023-11-14T22:13:21", "--to=2024-01-01"}, b + c}};
    for (const auto& [filters, expected] : table) {
        Arguments arguments = {folder.path, "--csv"};
        arguments.insert(arguments.end(), filters.begin(), filters.end());
        EXPECT_EQ(run_program(HISTORY_DUMP, arguments).out, "time,source,error,word,spn,fmi,count,change\n" + expected)
            << filters.front();
    }
}

TEST(history_dump, answers_what_is_wrong_with_one_line_and_a_status) {
    const Temporary_folder folder;
    const std::string two = folder.file("two"), none = folder.file("none");
    std::filesystem::create_directory(two);
    write_file(two + "/A0.dat", "");
    write_file(two + "/B3.dat", "");
    for (const char* garbage : {"SPFFFgarbage", "\x01 line\nGT", "RE003%x\r\n"}) {
        const std::string file = folder.file("garbage0.dat");
        write_file(file, garbage);
        Child_result r = run_program(HISTORY_DUMP, {folder.path});
        EXPECT_VALUES("1 true", r.status, r.err.find("garbage0.dat: ") != std::string::npos) << garbage << r.err;
        std::filesystem::remove(file);
    }
    EXPECT_EQ(run_program(HISTORY_DUMP, {"-h"}).out.rfind("Usage: ", 0), 0u);
    for (const std::string& command : {std::string(" -h"), " " + two + " A --csv"})
        EXPECT_EQ(run_shell(HISTORY_DUMP + command + " >/dev/full").end(),
                  "1 history_dump: cannot write: No space left on device\n");
    const std::pair<Arguments, std::string> rows[] = {
        {{}, "2 give a folder and at most a base name (try --help)"},
        {{two, "--colour"}, "2 unknown option --colour (try --help)"},
        {{two, "--source"}, "2 --source needs a value (try --help)"},
        {{two, "--source", "256"}, "2 wrong value 256 for --source (try --help)"},
        {{two, "--error", "5x"}, "2 wrong value 5x for --error (try --help)"},
        {{two, "--to", "2023-13-01"}, "2 wrong value 2023-13-01 for --to (try --help)"},
        {{none}, "1 cannot read " + none + ": No such file or directory"},
        {{folder.path}, "1 no history in " + folder.path},
        {{two, "G"}, "1 no history G in " + two},
        {{two}, "2 more than one history in " + two + ": name one, for instance A"},
    };
    for (const auto& [arguments, end] : rows) {
        Child_result r = run_program(HISTORY_DUMP, arguments);
        r.err.erase(0, r.err.find(": ") + 2); // the program's name
        EXPECT_EQ(r.end() + r.out, end + "\n");
    }
}

} // namespace
