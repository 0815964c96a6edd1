// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include "util/version.h"
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

/// A program's one way to fail: one line on standard error, behind what it has printed.
[[noreturn]] KAV_PRINTF(2, 3) inline void fail(int status, const char* fmt, ...) {
    fflush(stdout);
    va_list args;
    va_start(args, fmt);
    fprintf(stderr, "%s: ", program_invocation_short_name);
    vfprintf(stderr, fmt, args);
    fputc('\n', stderr);
    va_end(args);
    exit(status);
}

/// Where a standard stream is closed, let its use fail: the next file or device that is opened would take its place.
/// First thing in main.
inline void keep_standard_streams() {
    for (int fd = 0; fd <= 2; ++fd)
        if (fcntl(fd, F_GETFD) < 0) open("/dev/null", fd == 0 ? O_WRONLY : O_RDONLY);
}

/// Write out what stands in the buffer of standard output: why not all that was printed arrived, null when it did.
inline const char* output_error() {
    errno = 0;
    if (fflush(stdout) == 0 && !ferror(stdout)) return nullptr;
    return errno ? strerror(errno) : "the output went nowhere";
}

/// The end of what a program prints: when not all of it arrived, the program ends with this status.
inline void finish_output(int status) {
    if (const char* reason = output_error()) fail(status, "cannot write: %s", reason);
}

/// Answer to --help.
[[noreturn]] inline void show_usage(const char* text, int status_of_failure) {
    fputs(text, stdout);
    finish_output(status_of_failure);
    exit(0);
}

/// Answer to --version.
[[noreturn]] inline void show_version(int status_of_failure) {
    printf("%s (kavqtglue) %s\n", program_invocation_short_name, Kavqtglue::version());
    finish_output(status_of_failure);
    exit(0);
}

/// The signals that end a long-running program in good order. A hang-up is none where whoever started the program had
/// it ignored (nohup).
inline sigset_t stop_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    struct sigaction at_hang_up;
    if (sigaction(SIGHUP, nullptr, &at_hang_up) != 0 || at_hang_up.sa_handler != SIG_IGN) sigaddset(&set, SIGHUP);
    return set;
}
