// SPDX-License-Identifier: MIT
#include "support/frames.h"
#include "support/test.h"

namespace {

using Arguments = std::vector<std::string>;

/// A bus: an engine with a code and a terminal that says what it is, with one long message, and lines that are no
/// frames of such a bus.
std::string recorded() {
    const int64_t begin = 1700000000000000; // 2023-11-14 22:13:20
    const std::string name("\x01\x00\x60\x0F\x00\x81\x00\xA0", 8);
    std::string log = "nothing\n(1700000000.000000) can0 123#11\n\n";
    const auto add = [&](const std::vector<JIN_frame>& frames) {
        for (const JIN_frame& f : frames) log += f.to_line("can0") + "\n";
    };
    add(frames_of(60928, 38, name, begin));
    add(frames_of(65226, 0, std::string("\x04\xF3\xD2\x04\x1F\x01\xFF\xFF", 8), begin + 1000000));
    add(frames_of(64653, 38, "P1*Terminal*T \x01\"800\"*", begin + 2000000));
    add(frames_of(65242, 38, "\x01V2.1*", begin + 3000000));
    add(frames_of(65226, 0, std::string("\x04\xF3\xD2\x04\x1F\x02\x00\xF0\xEC\xFE", 10), begin + 4000000));
    return log;
}

TEST(bus_monitor, replays_a_log) {
    setenv("TZ", "UTC", 1);
    const Temporary_folder folder;
    const std::string path = folder.file("log");
    write_file(path, recorded());
    const Child_result table = run_program(BUS_MONITOR, {path});
    EXPECT_EQ(table.out, "adr  codes\n"
                         "  0  2    NAME not heard, lamps: amber warning flashes slowly\n"
                         "          SPN   1234 FMI 31 condition exists, 2 times, since 22:13:21\n"
                         "          SPN 520192 FMI 12 bad device or component, 126 times, in an old form: the SPN may "
                         "be wrong, since 22:13:24\n"
                         " 38       agriculture, class 0.0, function 129.0, ECU 0, maker 123, number 1\n"
                         "          product P1 Terminal T _\"800\"\n"
                         "          software V2.1\n");
    EXPECT_EQ(table.end(), "0 bus_monitor: 2 lines were no frames of such a bus\n");
    EXPECT_EQ(run_program(BUS_MONITOR, {"-", "--csv"}, recorded()).out,
              "address,name,product,software,spn,fmi,meaning,count,first,last,state\n"
              "0,0000000000000000,\"\",\"\",1234,31,\"condition exists\",2,1700000001.000,1700000004.100,active\n"
              "0,0000000000000000,\"\",\"\",520192,12,\"bad device or component\",126,1700000004.100,1700000004.100,"
              "active\n"
              "38,A00081000F600001,\"P1 Terminal T _\"\"800\"\"\",\"V2.1\",,,,,,,\n");
}

TEST(bus_monitor, answers_what_is_wrong_with_one_line_and_a_status) {
    const Temporary_folder folder;
    const std::string empty = folder.file("empty"), none = folder.file("none");
    write_file(empty, "nothing\n");
    const std::pair<Arguments, std::string> rows[] = {
        {{}, "2 give one interface or one file (try --help)"},
        {{"a", "b"}, "2 give one interface or one file (try --help)"},
        {{"can0", "--colour"}, "2 unknown option --colour (try --help)"},
        {{"can0", "--request"}, "2 --request needs a value (try --help)"},
        {{"can0", "--request", "0x40000"}, "2 wrong value 0x40000 for --request (try --help)"},
        {{"can0", "--clear", "254"}, "2 wrong value 254 for --clear (try --help)"},
        {{"can0", "--clear", "1"}, "2 --clear asks before: without a terminal it needs --yes"},
        {{"can0", "--listen", "--request", "1"}, "2 --listen sends nothing, --request and --clear do"},
        {{"can0", "--clear", "1", "--yes", "--request", "1"}, "2 one of --request and --clear at a time"},
        {{empty, "--record", none}, "2 nothing can be asked of or recorded from a file"},
        {{empty}, "1 no frames of such a bus in " + empty},
        {{none}, "1 cannot read " + none + ": No such file or directory"},
        {{"nocan7", "--once"}, "1 there is no interface nocan7, and no file of that name"}};
    for (const auto& [arguments, end] : rows) {
        const Child_result r = run_program(BUS_MONITOR, arguments);
        EXPECT_EQ(r.end(), end.substr(0, 2) + "bus_monitor: " + end.substr(2) + "\n");
        EXPECT_EQ(r.out, "");
    }
    EXPECT_EQ(run_program(BUS_MONITOR, {"-h"}).out.substr(0, 18), "Usage: bus_monitor");
}

} // namespace
