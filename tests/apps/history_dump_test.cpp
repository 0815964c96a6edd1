// SPDX-License-Identifier: MIT
#include "apps/Commands.h"
#include "support/frame.h"

using namespace std::string_literals;
using history_dump = Commands;

TEST_F(history_dump, prints_the_records_from_the_oldest_to_the_newest_that_pass_the_filters) {
    const auto record = [](unsigned src, unsigned error, unsigned time, unsigned word = 0x7F1F) {
        return Frame("SP").u1(src).u2(word).u2(error).u4(time).u1(125).str() + "\n";
    };
    // Current is 1, so 2 is left out, 8 the oldest; with damage, a reply, a torn end and what the restart put there.
    const std::string damaged = record(9, 9, 1700000002).replace(8, 1, "?");
    write_file("H8.dat", record(128, 1234, 1700000000, 0x011F) + damaged + record(1, 5, 1700000001, 17));
    write_file("H9.dat", "RE003%x\r\n" + record(128, 0xF000, 1700000003, 0xFEEC) + record(7, 7, 0));
    write_file("H0.dat", record(2, 65535, 4000000000));
    write_file("H1.dat", record(3, 1, 5).substr(0, 9) + std::string(17, '\n') + record(4, 6, 86400));
    EXPECT_EQ(answer("history_dump . --to 2023-11-15"),
              "0 history_dump: ./H8.dat: 15 bytes are no record\n"
              "history_dump: ./H9.dat: 7 bytes are no record\n"
              "history_dump: ./H1.dat: 9 bytes are no record\n"
              "2023-11-14 22:13:20.500 source 128 error 1234 word 287, SPN 1234 FMI 31 active, count 1\n"
              "2023-11-14 22:13:21.500 source 1 error 5 word 17\n"
              "2023-11-14 22:13:23.500 source 128 error 61440 word 65260, SPN 520192 FMI 12 inactive, count 126\n"
              "1970-01-02 00:00:00.500 source 4 error 6 word 32543\n");
    const std::string a = "1700000000.500,128,1234,287,1234,31,1,active\n", b = "1700000001.500,1,5,17,,,,\n",
                      c = "1700000003.500,128,61440,65260,520192,12,126,inactive\n",
                      d = "4000000000.500,2,65535,32543,,,,\n", e = "86400.500,4,6,32543,,,,\n";
    for (const auto& [filters, rows] : {std::pair{"H", a + b + c + d + e},
                                        {"--source 0x80", a + c},
                                        {"--error=5", b},
                                        {"--from 1700000001 --to 1700000003", b},
                                        {"--from 2023-11-14T22:13:21 --to=2024-01-01", b + c}})
        EXPECT_EQ(run_shell("history_dump . --csv "s + filters).out,
                  "time,source,error,word,spn,fmi,count,change\n" + rows)
            << filters;
}

TEST_F(history_dump, fails_where_there_is_not_one_record) {
    for (const auto& [garbage, bytes] : {std::pair{"SPFFFgarbage", 12}, {"\x01 line\nGT", 8}, {"RE003%x\r\n", 7}}) {
        write_file("G0.dat", garbage);
        EXPECT_EQ(answer("history_dump ."), text_of("1 history_dump: ./G0.dat: %d bytes are no record\n", bytes) +
                                                "history_dump: no record at all\n");
    }
}
