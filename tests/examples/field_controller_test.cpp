// SPDX-License-Identifier: MIT
#include "support/test.h"

namespace {

int occurrences(const std::string& text, const std::string& of) {
    int n = 0;
    for (size_t at = text.find(of); at != std::string::npos; at = text.find(of, at + 1)) ++n;
    return n;
}

TEST(field_controller, what_the_receiver_sends_goes_through_the_block_to_the_status_line) {
    Temporary_folder folder;
    const std::string file = folder.file("settings");
    const Child_result result =
        run_program(FIELD_CONTROLLER, {"--seconds", "3", "--faults", "0", "--messages", "--settings", file});
    EXPECT_EQ(result.status, 0) << result.err;
    const int lines = occurrences(result.out, "\nstatus: lat 49.200");
    EXPECT_VALUES("true true", lines >= 1, lines <= 4) << lines << " in three seconds";
    EXPECT_GE(occurrences(result.out, " m), satellites 8 GPS and 4 GLONASS, faults "), 1);
    EXPECT_GE(occurrences(result.out, "field simulator, all is well\n"), 1) << "a text, which has no checksum";
    EXPECT_EQ(occurrences(result.out, "\nframes rejected          0 "), 1) << result.out;

    // Positions come ten times a second and differ; nothing else wakes the status diner.
    unsigned woken = 0, delivered = 0;
    const size_t changes = result.out.find("position changes"), frames = result.out.find("frames delivered");
    ASSERT_VALUES("true true", changes != std::string::npos, frames != std::string::npos) << result.out;
    sscanf(&result.out[changes], "position changes %u", &woken);
    sscanf(&result.out[frames], "frames delivered %u", &delivered);
    EXPECT_GE(woken, 5u);
    EXPECT_LE(woken, static_cast<unsigned>(occurrences(result.out, "PG lat=")));
    EXPECT_LT(woken, delivered / 2);
    EXPECT_NE(result.out.find("\ncds_event:\n  fixed_space: "), std::string::npos);
    EXPECT_NE(result.out.find("\nAll diners terminated.\n"), std::string::npos);

    EXPECT_EQ(occurrences(result.out, "\nClock_watch: the clock was set forward by 1"), 1);
    EXPECT_EQ(occurrences(result.out, "\n140       agriculture, "), 1) << "no codes";
    EXPECT_EQ(occurrences(result.out, "\n          product FC-1 Field controller\n"), 1);

    const Child_result next = run_program(FIELD_CONTROLLER, {"--seconds", "3", "--faults", "2", "--settings", file});
    EXPECT_EQ(occurrences(next.out, "\n          SPN 520203 FMI 19 received data in error, "), 1) << next.out;
    const std::string first = "settings in " + file + ": ", saved = "\n" + first + "saved\n",
                      slot = "settings: a slot learns of ", diner = "settings: the status diner learns of ";
    EXPECT_EQ(result.out.rfind(first + "started from defaults; run 1, 0 positions before, ", 0), 0u) << result.out;
    EXPECT_EQ(next.out.rfind(first + "loaded; run 2, " + std::to_string(woken) + " positions before, ", 0), 0u);
    for (const std::string& line : {slot + "6", diner + "6", saved}) EXPECT_EQ(occurrences(result.out, line), 1);
    for (const std::string& line : {slot + "5", diner + "5", saved}) EXPECT_EQ(occurrences(next.out, line), 1);
}

TEST(field_controller, fails_when_something_that_a_run_leaves_behind_got_lost) {
    Temporary_folder folder;
    const std::string run = FIELD_CONTROLLER " --seconds 0 --quiet --settings ", settings = folder.file("settings");
    const std::pair<std::string, const char*> rows[] = {
        {folder.file("none/settings"), "field_controller: the settings are not saved\n"},
        {settings + " --plot " + folder.file("none/plot"), "/none/plot: No"},
        {settings + " >/dev/full", "field_controller: cannot write: No space left on device\n"},
        {settings + " >&-", "field_controller: cannot write: Bad file descriptor\n"},
        {settings + " --comm /dev/null", "field_controller: cannot set up /dev/null\n"},
    };
    for (const auto& [rest, line] : rows) {
        const Child_result r = run_shell(run + rest);
        EXPECT_VALUES("1 true", r.status, r.err.find(line) != std::string::npos) << r.end();
    }
    EXPECT_EQ(run_shell(run + settings).end(), "0 ");
}

TEST(field_controller, leaves_no_folder_behind_when_it_is_killed_and_ends_in_order_when_the_terminal_goes) {
    for (const auto& [signal, end] : {std::pair{SIGKILL, SIGKILL}, {SIGHUP, 0}}) {
        Temporary_folder folder, temporary;
        const std::string settings = folder.file("settings");
        const pid_t pid = fork();
        if (pid == 0) {
            setenv("TMPDIR", temporary.path.c_str(), 1);
            std::signal(SIGHUP, SIG_DFL);
            dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
            execl(FIELD_CONTROLLER, FIELD_CONTROLLER, "--settings", settings.c_str(), "--seconds", "60", nullptr);
            _exit(126);
        }
        // Sanitizers have files of their own there for a moment, before the program begins.
        const auto is_there = [&] {
            for (const auto& entry : std::filesystem::directory_iterator(temporary.path))
                if (entry.path().filename().string().rfind("field_controller-", 0) == 0) return true;
            return false;
        };
        EXPECT_TRUE(wait_until(is_there));
        kill(pid, signal);
        int status = -1;
        EXPECT_VALUES(texts(pid, end), waitpid(pid, &status, 0), status);
        EXPECT_TRUE(wait_until([&] { return !is_there(); })) << signal;
        EXPECT_EQ(std::filesystem::exists(settings), signal == SIGHUP) << "saved";
    }
}

} // namespace
