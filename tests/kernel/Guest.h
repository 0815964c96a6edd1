// SPDX-License-Identifier: MIT
#pragma once
#include "support/stress.h"
#include "support/test.h"

/// The emulated machine that tools/in_kernel starts. Programs that include this set clocks and stop file systems, so
/// they refuse to run anywhere else.
namespace Guest {

inline const bool checked = [] {
    if (read_file("/proc/cmdline").find("kav.guest") != std::string::npos) return true;
    fprintf(stderr, "This would set the clock and stop file systems: run it by tools/in_kernel\n");
    exit(2);
}();

/// Run a command of the shell; its exit status.
inline int sh(const std::string& command) {
    const int status = system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// The same for what the test cannot do without.
inline void must(const std::string& command) { ASSERT_EQ(sh(command), 0) << command; }

/// How often something is done: with --few as the program's argument an eighth of `n`, with --nightly ten times `n`.
inline int rounds(int n) {
    const bool few = read_file("/proc/self/cmdline").find("--few") != std::string::npos;
    return few ? n / 8 : nightly() ? n * 10 : n;
}

} // namespace Guest
