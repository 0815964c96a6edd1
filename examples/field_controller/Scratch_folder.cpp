// SPDX-License-Identifier: MIT
#include "Scratch_folder.h"
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void remove(const std::string& path) {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

/// The child's life. It leaves the terminal and its signals, and the streams that others wait for the end of.
[[noreturn]] void keep(const std::string& path, int lifeline) {
    setsid();
    const int nowhere = open("/dev/null", O_RDWR);
    for (int fd = 0; fd <= 2; ++fd) dup2(nowhere, fd);
    char c;
    while (read(lifeline, &c, 1) < 0 && errno == EINTR) {
    }
    remove(path);
    _exit(0);
}

} // namespace

Scratch_folder::Scratch_folder(const std::string& name) {
    std::error_code none;
    std::string pattern = (std::filesystem::temp_directory_path(none) / (name + "-XXXXXX")).string();
    if (!mkdtemp(pattern.data())) return;
    path = pattern;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    _keeper = fork();
    if (_keeper == 0) {
        close(ends[1]);
        keep(path, ends[0]);
    }
    close(ends[0]);
    _lifeline = ends[1];
}

Scratch_folder::~Scratch_folder() {
    if (_lifeline >= 0) close(_lifeline);
    if (_keeper > 0)
        while (waitpid(_keeper, nullptr, 0) < 0 && errno == EINTR) {
        }
    else if (!path.empty())
        remove(path);
}
