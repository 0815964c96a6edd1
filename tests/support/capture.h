// SPDX-License-Identifier: MIT
// What code prints, and how it ends a process.
#pragma once
#include "support/Temporary_folder.h"
#include "util/Debug_print.h"
#include <csignal>
#include <functional>
#include <utility>
#include <vector>

/// The text that printf would print (255 characters at most).
template <class... Arguments>
std::string text_of(const char* format, Arguments... arguments) {
    char text[256];
    snprintf(text, sizeof text, format, arguments...);
    return text;
}

/// All of a file, which is closed.
inline std::string read_and_close(FILE* file) {
    std::string all;
    std::rewind(file);
    for (int c; (c = std::fgetc(file)) != EOF;) all += static_cast<char>(c);
    std::fclose(file);
    return all;
}

/// Collects what is written to a descriptor (standard output or error, by stdio or raw) until text() is called.
class Capture {
public:
    explicit Capture(FILE* stream) : _stream(stream), _saved(dup(fileno(stream))) {
        fflush(_stream);
        dup2(fileno(_file), fileno(_stream));
    }
    ~Capture() {
        if (_file) text();
    }
    Capture(const Capture&) = delete;

    /// End the capture and return the text.
    std::string text() {
        fflush(_stream);
        dup2(_saved, fileno(_stream));
        close(_saved);
        return read_and_close(std::exchange(_file, nullptr));
    }

private:
    FILE *const _stream, *_file = std::tmpfile();
    const int _saved;
};

/// What `act` prints on the debug output, which is then a file; `flushed` receives whether any of it got there.
template <class Act>
std::string debug_text(Act act, bool* flushed = nullptr) {
    FILE* const before = std::exchange(Debug_print::debug_file, std::tmpfile());
    act();
    if (flushed) *flushed = lseek(fileno(Debug_print::debug_file), 0, SEEK_END) > 0;
    return read_and_close(std::exchange(Debug_print::debug_file, before));
}

/// What became of a child process.
struct Child_result {
    int status;      ///< exit status 0..255, -1 when a signal ended it
    int signal;      ///< the signal that ended it, 0 when it exited
    std::string out; ///< what reached its standard output, a file
    std::string err; ///< what reached its standard error, a file

    /// How it ended, in one text: status or signal, and its standard error.
    std::string end() const {
        return (signal ? "signal " + std::to_string(signal) : std::to_string(status)) + " " + err;
    }
};

/// Run `body` in a forked child; a body that returns ends in exit(0). The child is killed after `limit_s`. For code
/// that ends the process; start no threads before the call.
Child_result run_child(const std::function<void()>& body, unsigned limit_s = 60);
/// Run `body` in a forked child, as a program that has just started: what it returned, or -N when signal N ended it.
/// `meanwhile` gets the child's number.
int in_child(const std::function<int()>& body, const std::function<void(pid_t)>& meanwhile = nullptr,
             unsigned limit_s = 600);
/// Run a command of the shell, for instance with its output redirected: ">/dev/full" is a full disk, ">&-" closed.
Child_result run_shell(const std::string& command);
/// The streams are held for ever, as by a thread that writes to a stalled console. For a child that starts no
/// thread afterwards.
void hold(const std::vector<FILE*>& streams = {stdout, stderr});
