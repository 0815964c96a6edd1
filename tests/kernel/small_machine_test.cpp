// SPDX-License-Identifier: MIT
// The field controller for a minute in a machine of 64 MiB without swap. With --few for five seconds.
#include "kernel/Guest.h"
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

const char* seconds = "60";

/// A line of the system's table of memory [KiB].
long memory(const std::string& key) {
    const std::string all = "\n" + read_file("/proc/meminfo");
    return std::stol(all.substr(all.find("\n" + key + ":") + key.size() + 2));
}

TEST(Small_machine, runs_the_field_controller_for_a_minute) {
    const std::string program =
        std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / "examples/field_controller";
    const std::string out = "/run/out";
    ASSERT_LT(memory("MemTotal"), 64 * 1024) << "this is for a small machine";
    ASSERT_EQ(memory("SwapTotal"), 0);
    const long before = memory("MemAvailable");
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
        execl(program.c_str(), program.c_str(), "--seconds", seconds, "--quiet", "--settings", "/run/settings",
              nullptr);
        _exit(126);
    }
    int status = 0;
    rusage usage = {};
    long least = LONG_MAX;
    while (wait4(pid, &status, WNOHANG, &usage) == 0) {
        least = std::min(least, memory("MemAvailable"));
        usleep(100000);
    }
    const std::string text = read_file(out);
    EXPECT_EQ(status, 0) << text;
    EXPECT_NE(text.find("\nAll diners terminated.\n"), std::string::npos) << text;
    EXPECT_GT(least, 4 * 1024);
    printf(
        "field_controller for %s s in a machine of %ld KiB: at most %ld KiB resident, %ld of %ld KiB free at least\n",
        seconds, memory("MemTotal"), usage.ru_maxrss, least, before);
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc > 1 && strcmp(argv[1], "--few") == 0) seconds = "5";
    return RUN_ALL_TESTS();
}
