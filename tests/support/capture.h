// SPDX-License-Identifier: MIT
// What code prints, and how it ends a process.
#pragma once
#include "support/Temporary_folder.h"
#include "util/Debug_print.h"
#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <sys/wait.h>
#include <thread>
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
    explicit Capture(FILE* stream) : _stream(stream), _saved(fcntl(fileno(stream), F_DUPFD_CLOEXEC, 0)) {
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

/// Run `body` in a forked child, as a program that has just started: what it returned, or -N when signal N ended it.
/// `meanwhile` gets the child's number.
inline int in_child(const std::function<int()>& body, const std::function<void(pid_t)>& meanwhile = nullptr,
                    unsigned limit_s = 600) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) alarm(limit_s), _exit(body());
    if (meanwhile) meanwhile(pid);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

/// Run `body` in a forked child; a body that returns ends in exit(0). The child is killed after `limit_s`. For code
/// that ends the process; start no threads before the call.
inline Child_result run_child(const std::function<void()>& body, unsigned limit_s = 60) {
    FILE *const out = std::tmpfile(), *const err = std::tmpfile();
    const auto redirected = [&]() -> int {
        dup2(fileno(out), STDOUT_FILENO), dup2(fileno(err), STDERR_FILENO);
        body(), exit(0);
    };
    const int end = in_child(redirected, nullptr, limit_s);
    Child_result r = {std::max(end, -1), std::max(-end, 0), read_and_close(out), read_and_close(err)};
    r.err.resize(std::min(r.err.rfind("qemu: uncaught target signal"), r.err.size())); // the emulator's own line
    return r;
}

/// Run a command of the shell, for instance with its output redirected: ">/dev/full" is a full disk, ">&-" closed.
inline Child_result run_shell(const std::string& command) {
    return run_child([&] {
        if (std::freopen("/dev/null", "r", stdin)) execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(126);
    });
}

/// The streams are held for ever, as by a thread that writes to a stalled console. For a child that starts no
/// thread afterwards.
inline void hold(const std::vector<FILE*>& streams = {stdout, stderr}) {
    std::thread([&] { std::for_each(streams.begin(), streams.end(), flockfile); }).join(); // ends without giving back
}
