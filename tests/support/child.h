// SPDX-License-Identifier: MIT
#pragma once
#include "support/capture.h"
#include <csignal>
#include <functional>
#include <string>
#include <vector>

/// What became of a child process.
struct Child_result {
    int status = -1;        ///< exit status 0..255, -1 when a signal ended it
    int signal = 0;         ///< the signal that ended it, 0 when it exited
    bool timed_out = false; ///< it was killed because it did not end in time
    std::string out;        ///< what reached its standard output, a file
    std::string err;        ///< what reached its standard error, a file

    /// How it ended, in one text: status or signal, and its standard error.
    std::string end() const {
        return (signal ? "signal " + std::to_string(signal) : std::to_string(status)) + " " + err;
    }
};

/// Run `body` in a forked child; a body that returns ends in exit(0). The child is killed after `limit_s`. For code
/// that ends the process; start no threads before the call.
Child_result run_child(const std::function<void()>& body, unsigned limit_s = 60);
/// The streams are held for ever, as by a thread that writes to a stalled console. For a child.
void hold(std::vector<FILE*> streams = {stdout, stderr});
/// Run a program with these arguments and this text as standard input.
Child_result run_program(const char* path, std::vector<std::string> arguments, const std::string& input = "");
/// Run a command of the shell, for instance with its output redirected: ">/dev/full" is a full disk, ">&-" closed.
Child_result run_shell(const std::string& command);
