// SPDX-License-Identifier: MIT
#include "apps/Commands.h"

using cds_remote = Commands;
using field_controller = Commands;

namespace {

int occurrences(const std::string& text, const std::string& of) {
    int n = 0;
    for (size_t at = text.find(of); at != std::string::npos; at = text.find(of, at + 1)) ++n;
    return n;
}

TEST_F(cds_remote, a_second_process_learns_the_block_reads_it_and_wakes_the_machine) {
    const std::string got = answer("cds_remote");
    expect_in(got, {"visitor:         float load = 0.62\n", "visitor:     double position[] = 49.2, 8.6\n",
                    "visitor:     char driver[] = \"A. Driver\"\n", "visitor: wrote 1800, now wanted_speed = 1800\n",
                    "machine: woken, somebody wants 1800 revolutions per minute\n"});
    EXPECT_VALUES("0 1", got.substr(0, 1), occurrences(got, "machine: woken")) << "by the one write alone\n" << got;
}

TEST_F(field_controller, what_the_receiver_sends_goes_through_the_block_to_the_status_line) {
    const std::string run = "field_controller --seconds 3 --settings file --faults ",
                      settings = "settings in file: ", saved = "\n" + settings + "saved\n";
    const std::string first = answer(run + "0 --messages");
    expect_in(first, {"0 " + settings + "started from defaults; run 1, 0 positions before, ",
                      " m), satellites 8 GPS and 4 GLONASS, faults ",
                      "field simulator, all is well\n", // a text, which has no checksum
                      "\nframes rejected          0 ", "\ncds_event:\n  fixed_space: ", "\nAll diners terminated.\n",
                      "\n140       agriculture, ", // no codes
                      "\n          product FC-1 Field controller\n", saved});
    EXPECT_VALUES("1 1 1", occurrences(first, "\nClock_watch: the clock was set forward by 1"),
                  occurrences(first, "\nsettings: a slot learns of 6"),
                  occurrences(first, "\nsettings: the status diner learns of 6"));
    // Positions come ten times a second and differ; nothing else wakes the status diner.
    const auto number_behind = [&](const char* text) { return std::atoi(&first[first.find(text) + strlen(text)]); };
    const int woken = number_behind("position changes"), delivered = number_behind("frames delivered"),
              lines = occurrences(first, "\nstatus: lat 49.200");
    EXPECT_TRUE(5 <= woken && woken <= occurrences(first, "PG lat=") && woken < delivered / 2) << first;
    EXPECT_TRUE(1 <= lines && lines <= 4) << "one in a second\n" << first;

    expect_in(answer(run + "2"), {"0 " + settings + "loaded; run 2, " + std::to_string(woken) + " positions before, ",
                                  "\n          SPN 520203 FMI 19 received data in error, ",
                                  "\nsettings: a slot learns of 5", "\nsettings: the status diner learns of 5", saved});
}

TEST_F(field_controller, fails_when_something_that_a_run_leaves_behind_got_lost) {
    const std::string run = "field_controller --seconds 0 --quiet --settings ";
    for (const auto& [rest, line] :
         {std::pair{"none/settings", "field_controller: the settings are not saved\n"},
          {"settings --plot none/plot", "cannot write none/plot: No"},
          {"settings >/dev/full", "field_controller: cannot write: No space left on device\n"},
          {"settings >&-", "field_controller: cannot write: Bad file descriptor\n"},
          {"settings --comm /dev/null", "field_controller: cannot set up /dev/null\n"}}) {
        const std::string got = answer(run + rest);
        EXPECT_TRUE(got[0] == '1' && got.find(line) != std::string::npos) << rest << ": " << got;
    }
    EXPECT_EQ(answer(run + "settings >/dev/null"), "0 ");
}

TEST_F(field_controller, leaves_no_folder_behind_when_it_is_killed_and_ends_in_order_when_the_terminal_goes) {
    for (const auto& [signal, end] : {std::pair{SIGKILL, SIGKILL}, {SIGHUP, 0}}) {
        const Temporary_folder temporary;
        const Running program("env TMPDIR=" + temporary.path + " field_controller --settings settings >/dev/null");
        // Sanitizers have files of their own there for a moment, before the program begins.
        const auto is_there = [&] { return run_shell("ls -d " + temporary.file("field_controller-*")).status == 0; };
        EXPECT_TRUE(wait_until(is_there));
        EXPECT_EQ(program.end(signal), end);
        EXPECT_TRUE(wait_until([&] { return !is_there(); })) << signal;
        EXPECT_EQ(std::filesystem::exists("settings"), signal == SIGHUP) << "saved";
    }
}

} // namespace
