// SPDX-License-Identifier: MIT
#include "NV_store/Image_builder.h"
#include "apps/Commands.h"
#include "support/Pty.h"
#include "support/frame.h"
#include "util/version.h"
#include <sys/file.h>

namespace {

TEST_F(Commands, are_explained_and_want_an_argument_that_is_there_and_room_for_their_output) {
    const struct {
        std::string failure, program, argument, cannot;
    } programs[] = {{"1 ", "bus_monitor", "one interface or one file", "read"},
                    {"1 ", "cds_view", "a socket or a serial line", "look at"},
                    {"1 ", "history_dump", "a folder and at most a base name", "read"},
                    {"2 ", "nv_dump", "one file", "read"},
                    {"2 ", "trace_view", "one file", "read"},
                    {"1 ", "vorn_monitor", "one device with -c, or one file", "open"},
                    {"1 ", "field_controller", "", ""}};
    for (const auto& [failure, program, argument, cannot] : programs) {
        EXPECT_EQ(answer(program + " -h").rfind("0 Usage: " + program + " ", 0), 0u) << program;
        EXPECT_EQ(answer(program + " --version"), "0 " + program + " (kavqtglue) " + Kavqtglue::version() + "\n");
        expect_complaints({{program + " --help >/dev/full", failure + "cannot write: No space left on device"},
                           {program + " --version >&-", failure + "cannot write: Bad file descriptor"}});
        if (argument.empty()) {
            EXPECT_EQ(answer("field_controller --seconds 0 --quiet --settings quiet >/dev/null"), "0 ");
            continue;
        }
        expect_complaints({{program, "2 give " + argument + " (try --help)"},
                           {program + " /none", failure + "cannot " + cannot + " /none: No such file or directory"}});
    }
}

TEST_F(Commands, that_are_wrong_get_one_line_and_a_status) {
    using namespace Image;
    const Pty line, taken;
    const std::string packet = Frame("GT").u4(1).u2(2300).str() + "\r\n",
                      no_room = "1 cannot write: No space left on device",
                      no_record = " bytes are no record\nhistory_dump: ",
                      controller = "field_controller --seconds 0 --quiet --settings ";
    run_shell(
        "mkdir two empty bad; touch two/A0.dat two/B3.dat; echo nothing >file;"
        "printf SPFFFgarbage >bad/G0.dat; printf '\\1 line\\nGT' >bad/G1.dat; printf 'RE003%%x\\r\\n' >bad/G2.dat;"
        "ln -s " +
        line.path + " tty; ln -s " + taken.path + " taken");
    line.send(packet + packet);
    flock(open("taken", O_RDWR | O_NOCTTY | O_CLOEXEC), LOCK_EX);
    expect_complaints({
        {"bus_monitor can0 --colour", "2 unknown option --colour (try --help)"},
        {"bus_monitor can0 --request", "2 --request needs a value (try --help)"},
        {"bus_monitor can0 --request 0x40000", "2 wrong value 0x40000 for --request (0 to 262143)"},
        {"bus_monitor can0 --clear 1", "2 --clear asks before: without a terminal it needs --yes"},
        {"bus_monitor can0 --listen --request 1", "2 --listen sends nothing, --request and --clear do"},
        {"bus_monitor can0 --clear 1 --yes --request 1", "2 one of --request and --clear at a time"},
        {"bus_monitor file --record none", "2 nothing can be asked of or recorded from a file"},
        {"bus_monitor file", "1 no frames of such a bus in file"},
        {"bus_monitor nocan7 --once", "1 there is no interface nocan7, and no file of that name"},
        {"history_dump two --to 2023-13-01", "2 wrong value 2023-13-01 for --to (try --help)"},
        {"history_dump empty", "1 no history in empty"},
        {"history_dump two G", "1 no history G in two"},
        {"history_dump two", "2 more than one history in two: name one, for instance A"},
        {"history_dump two A --csv >/dev/full", no_room},
        {"history_dump bad", "1 bad/G0.dat: 12" + no_record + "bad/G1.dat: 8" + no_record + "bad/G2.dat: 7" +
                                 no_record + "no record at all"},
        {"nv_dump -", "1 -: it is empty"},
        {"nv_dump -", "1 -: stops at byte 0: no record", "garbage"},
        {"nv_dump -", "1 -: stops at byte 0: a value of an unknown type or length", header(12, 9, 1) + "x"},
        {"nv_dump -", "1 -: stops at byte 0: a container of an unknown type", header(2, 1, 1)},
        {"trace_view - --to 1e10", "2 wrong value 1e10 for --to (0 to 1000000000)"},
        {"cds_view socket --plot --once", "2 one of --once, --csv and --plot (try --help)"},
        {"cds_view socket --set speed", "2 --set needs PATH=VALUE, not speed"},
        {"cds_view file", "1 cannot look at file: it is neither a socket nor a serial line"},
        {"field_controller --serve -c tty", "2 --serve plays the receiver: it takes no --comm (try --help)"},
        {"field_controller now", "2 unknown argument now (try --help)"},
        {controller + "none/settings >out", "1 the settings are not saved"},
        {controller + "settings --plot plot >out", "1 cannot write plot: No data available"},
        {controller + "settings >/dev/full", no_room},
        {controller + "settings >&-", "1 cannot write: Bad file descriptor"},
        {controller + "settings --comm /dev/null >out", "1 cannot set up /dev/null"},
        {"vorn_monitor -c :9600", "2 -c needs a device (try --help)"},
        {"vorn_monitor -c tty:299", "2 wrong speed 299 (300 to 460800)"},
        {"vorn_monitor -c tty:9600:rs422", "2 wrong mode rs422 (rs232 or rs485)"},
        {"vorn_monitor -c /dev/null", "1 cannot open /dev/null: it is no serial line"},
        {"vorn_monitor -c taken", "1 cannot open taken: another program uses it (--shared reads along)"},
        {"vorn_monitor -c taken::rs485 --shared", "1 cannot set up taken::rs485"},
        {"vorn_monitor -c tty --speed 1", "2 --speed needs a recording (try --help)"},
        {"vorn_monitor - --speed fast", "2 wrong value fast for --speed (0.001 to 1000)"},
        {"vorn_monitor - --timed", "2 --timed needs --record (try --help)"},
        {"vorn_monitor - --record file", "1 cannot record to file: it is there already"},
        {"vorn_monitor - --record /none/x", "1 cannot record to /none/x: No such file or directory"},
        {"vorn_monitor - --plot track", "1 cannot draw track: no position was met", "PG01E half"},
        {"vorn_monitor - >/dev/full", no_room, packet},
        {"vorn_monitor -c tty >&-", "1 cannot write: Bad file descriptor"},
        {"vorn_monitor /", "1 cannot read /: it is a directory"},
        {"vorn_monitor /proc/self/mem", "1 cannot read /proc/self/mem: Input/output error"},
    });
    EXPECT_EQ(read_file("file"), "nothing\n") << "a recording is not written over";
}

} // namespace
