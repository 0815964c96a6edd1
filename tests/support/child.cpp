// SPDX-License-Identifier: MIT
#include "support/child.h"
#include "support/stress.h"
#include <atomic>
#include <cstdlib>
#include <thread>

int in_child(const std::function<int()>& body, const std::function<void(pid_t)>& meanwhile, unsigned limit_s) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(limit_s);
        _exit(body());
    }
    if (meanwhile) meanwhile(pid);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

Child_result run_child(const std::function<void()>& body, unsigned limit_s) {
    FILE *const out = std::tmpfile(), *const err = std::tmpfile();
    const auto redirected = [&]() -> int {
        dup2(fileno(out), STDOUT_FILENO);
        dup2(fileno(err), STDERR_FILENO);
        body();
        exit(0);
    };
    const int end = in_child(redirected, nullptr, limit_s);
    Child_result result;
    (end < 0 ? result.signal : result.status) = std::abs(end);
    result.timed_out = result.signal == SIGALRM;
    result.out = read_and_close(out);
    result.err = read_and_close(err);
    const size_t emulator = result.err.rfind("qemu: uncaught target signal"); // it puts in a line of its own
    if (emulator != std::string::npos) result.err.erase(emulator);
    return result;
}

void hold(std::vector<FILE*> streams) {
    static std::atomic<bool> held{false};
    std::thread([streams] {
        for (FILE* f : streams) flockfile(f);
        held = true;
        pause();
    }).detach();
    while (!held) std::this_thread::yield();
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

Child_result run_shell(const std::string& command) { return run_program("/bin/sh", {"-c", command}); }
