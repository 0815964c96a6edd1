// SPDX-License-Identifier: MIT
#include "apps/Commands.h"

namespace {

int occurrences(const std::string& text, const std::string& of) {
    int n = 0;
    for (size_t at = text.find(of); at != std::string::npos; at = text.find(of, at + 1)) ++n;
    return n;
}

TEST_F(Commands, field_controller_what_the_receiver_sends_goes_through_the_block_to_the_status_line) {
    // Ends well before the simulator's fourth second, in which too few satellites are a fault.
    const std::string run = "field_controller --seconds 2 --settings file --faults ",
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

TEST_F(Commands, field_controller_leaves_no_folder_behind_when_it_is_killed_and_ends_in_order_when_the_terminal_goes) {
    for (const auto& [signal, end] : {std::pair{SIGKILL, -SIGKILL}, {SIGHUP, 0}}) {
        const Temporary_folder temporary;
        // Sanitizers have files of their own there for a moment, before the program begins.
        const auto is_there = [&] { return run_shell("ls -d " + temporary.file("field_controller-*")).status == 0; };
        const std::string run = "env TMPDIR=" + temporary.path + " field_controller --settings settings >/dev/null";
        EXPECT_EQ(run_beside(run, signal, [&] { EXPECT_TRUE(wait_until(is_there)); }), end);
        EXPECT_TRUE(wait_until([&] { return !is_there(); })) << signal;
        EXPECT_EQ(std::filesystem::exists("settings"), signal == SIGHUP) << "saved";
    }
}

} // namespace
