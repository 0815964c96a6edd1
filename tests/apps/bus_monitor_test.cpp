// SPDX-License-Identifier: MIT
#include "apps/Commands.h"
#include "support/frames.h"

using bus_monitor = Commands;

/// Of an engine with a code and a terminal that says what it is, with one long message, and lines that are no frames of
/// such a bus.
TEST_F(bus_monitor, replays_a_log) {
    const std::tuple<uint32_t, unsigned, std::string> messages[] = {
        {60928, 38, std::string("\x01\x00\x60\x0F\x00\x81\x00\xA0", 8)},
        {65226, 0, "\x04\xF3\xD2\x04\x1F\x01\xFF\xFF"},
        {64653, 38, "P1*Terminal*T \x01\"800\"*"},
        {65242, 38, "\x01V2.1*"},
        {65226, 0, std::string("\x04\xF3\xD2\x04\x1F\x02\x00\xF0\xEC\xFE", 10)}};
    std::string log = "nothing\n(1700000000.000000) can0 123#11\n\n";
    int64_t us = 1700000000000000; // 2023-11-14 22:13:20
    for (const auto& [pgn, source, bytes] : messages) {
        for (const JIN_frame& f : frames_of(pgn, source, bytes, us)) log += f.to_line("can0") + "\n";
        us += 1000000;
    }
    write_file("log", log);
    EXPECT_EQ(answer("bus_monitor log"),
              "0 bus_monitor: 2 lines were no frames of such a bus\n"
              "adr  codes\n"
              "  0  2    NAME not heard, lamps: amber warning flashes slowly\n"
              "          SPN   1234 FMI 31 condition exists, 2 times, since 22:13:21\n"
              "          SPN 520192 FMI 12 bad device or component, 126 times, in an old form: the SPN may be wrong, "
              "since 22:13:24\n"
              " 38       agriculture, class 0.0, function 129.0, ECU 0, maker 123, number 1\n"
              "          product P1 Terminal T _\"800\"\n"
              "          software V2.1\n");
    EXPECT_EQ(run_shell("bus_monitor - --csv <log").out,
              "address,name,product,software,spn,fmi,meaning,count,first,last,state\n"
              "0,0000000000000000,\"\",\"\",1234,31,\"condition exists\",2,1700000001.000,1700000004.100,active\n"
              "0,0000000000000000,\"\",\"\",520192,12,\"bad device or component\",126,1700000004.100,1700000004.100,"
              "active\n"
              "38,A00081000F600001,\"P1 Terminal T _\"\"800\"\"\",\"V2.1\",,,,,,,\n");
}
