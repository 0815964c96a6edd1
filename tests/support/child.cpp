// SPDX-License-Identifier: MIT
#include "support/child.h"
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

/// Collect both pipes until the child has closed them; false when the limit came first.
bool collect(int out, int err, Child_result& result, Clock::time_point limit) {
    pollfd fds[2] = {{out, POLLIN, 0}, {err, POLLIN, 0}};
    std::string* texts[2] = {&result.out, &result.err};
    int open = 2;
    while (open > 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(limit - Clock::now()).count();
        if (left <= 0 || poll(fds, 2, static_cast<int>(left)) <= 0) return false;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !fds[i].revents) continue;
            char piece[4096];
            const ssize_t n = read(fds[i].fd, piece, sizeof piece);
            if (n > 0) {
                texts[i]->append(piece, static_cast<size_t>(n));
            } else {
                fds[i].fd = -1;
                --open;
            }
        }
    }
    return true;
}

} // namespace

Child_result run_child(const std::function<void()>& body, int limit_s) {
    Child_result result;
    int out[2], err[2];
    if (pipe(out) != 0 || pipe(err) != 0) return result;
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        for (int fd : {out[0], out[1], err[0], err[1]}) close(fd);
        body();
        exit(0);
    }
    close(out[1]);
    close(err[1]);
    if (!collect(out[0], err[0], result, Clock::now() + std::chrono::seconds(limit_s))) {
        result.timed_out = true;
        kill(pid, SIGKILL);
    }
    close(out[0]);
    close(err[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    const size_t emulator = result.err.rfind("qemu: uncaught target signal"); // it puts in a line of its own
    if (emulator != std::string::npos) result.err.erase(emulator);
    return result;
}

Child_result run_program(const char* path, std::vector<std::string> arguments, const std::string& input) {
    return run_child([&] {
        FILE* const in = tmpfile();
        fwrite(input.data(), 1, input.size(), in);
        rewind(in);
        dup2(fileno(in), STDIN_FILENO);
        arguments.insert(arguments.begin(), path);
        std::vector<char*> argv;
        for (auto& a : arguments) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(path, argv.data());
        _exit(126);
    });
}
