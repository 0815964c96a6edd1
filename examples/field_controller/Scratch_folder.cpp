// SPDX-License-Identifier: MIT
#include "Scratch_folder.h"
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// The child's life: it makes the folder, tells its path, and removes it at the end of the lifeline, whatever happens
/// to the program meanwhile. It leaves the terminal and its signals, and the streams that others wait for the end of.
[[noreturn]] void keep(const std::string& name, int lifeline) {
    std::error_code none;
    std::string path = (std::filesystem::temp_directory_path(none) / (name + "-XXXXXX")).string();
    setsid();
    if (!mkdtemp(path.data())) _exit(errno);
    const int nowhere = open("/dev/null", O_RDWR);
    for (int fd = 0; fd <= 2; ++fd) dup2(nowhere, fd);
    send(lifeline, path.data(), path.size(), MSG_NOSIGNAL);
    char c;
    while (read(lifeline, &c, 1) < 0 && errno == EINTR) {
    }
    std::filesystem::remove_all(path, none);
    _exit(0);
}

} // namespace

Scratch_folder::Scratch_folder(const std::string& name) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return;
    _lifeline = ends[0];
    _keeper = fork();
    if (_keeper == 0) {
        close(ends[0]);
        keep(name, ends[1]);
    }
    close(ends[1]);
    char told[PATH_MAX];
    const ssize_t n = _keeper > 0 ? read(_lifeline, told, sizeof told) : -1;
    if (n > 0) path.assign(told, static_cast<size_t>(n));
    if (n == 0) errno = join();
}

Scratch_folder::~Scratch_folder() { join(); }

int Scratch_folder::join() {
    close(_lifeline);
    int status = 0;
    while (_keeper > 0 && waitpid(_keeper, &status, 0) < 0 && errno == EINTR) {
    }
    _keeper = _lifeline = -1;
    return WEXITSTATUS(status);
}
