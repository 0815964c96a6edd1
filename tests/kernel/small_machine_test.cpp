// SPDX-License-Identifier: MIT
// The field controller for a minute in a machine of 64 MiB without swap. With --few for seven seconds.
#include "kernel/Guest.h"
#include <sys/resource.h>

namespace {

/// A line of the system's table of memory [KiB].
long memory(const std::string& key) {
    const std::string all = "\n" + read_file("/proc/meminfo");
    return std::stol(all.substr(all.find("\n" + key + ":") + key.size() + 2));
}

TEST(Small_machine, runs_the_field_controller_for_a_minute) {
    const auto program =
        std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / "examples/field_controller";
    const std::string seconds = std::to_string(std::min(Guest::rounds(60), 60));
    ASSERT_LT(memory("MemTotal"), 64 * 1024) << "this is for a small machine";
    ASSERT_EQ(memory("SwapTotal"), 0);
    const long before = memory("MemAvailable");
    std::atomic<bool> over{false};
    long least = before;
    std::thread watch([&] {
        for (; !over; usleep(100000)) least = std::min(least, memory("MemAvailable"));
    });
    const auto run = [&] {
        execl(program.c_str(), program.c_str(), "--seconds", seconds.c_str(), "--quiet", "--settings", "/run/settings",
              nullptr);
    };
    const Child_result r = run_child(run, 120);
    over = true;
    watch.join();
    rusage usage = {};
    getrusage(RUSAGE_CHILDREN, &usage);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("\nAll diners terminated.\n"), std::string::npos) << r.out;
    EXPECT_GT(least, 4 * 1024);
    printf(
        "field_controller for %s s in a machine of %ld KiB: at most %ld KiB resident, %ld of %ld KiB free at least\n",
        seconds.c_str(), memory("MemTotal"), usage.ru_maxrss, least, before);
}

} // namespace
