// SPDX-License-Identifier: MIT
#include "support/capture.h"
#include <algorithm>
#include <sys/wait.h>
#include <thread>

int in_child(const std::function<int()>& body, const std::function<void(pid_t)>& meanwhile, unsigned limit_s) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) alarm(limit_s), _exit(body());
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
    Child_result r = {std::max(end, -1), std::max(-end, 0), read_and_close(out), read_and_close(err)};
    r.err.resize(std::min(r.err.rfind("qemu: uncaught target signal"), r.err.size())); // the emulator's own line
    return r;
}

Child_result run_shell(const std::string& command) {
    return run_child([&] {
        if (std::freopen("/dev/null", "r", stdin)) execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(126);
    });
}

void hold(const std::vector<FILE*>& streams) {
    std::thread([&] { std::for_each(streams.begin(), streams.end(), flockfile); }).join(); // ends without giving back
}
