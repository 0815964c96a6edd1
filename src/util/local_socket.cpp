// SPDX-License-Identifier: MIT
#include "util/local_socket.h"
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace Util {
namespace {

constexpr int backlog = 8;
constexpr int lock_attempts = 100, lock_wait_us = 10000;

/// Between a look at what is in a folder and what is done about it, no other program of this kind shall come.
class Folder_lock {
public:
    explicit Folder_lock(const std::string& path) {
        const size_t slash = path.rfind('/');
        const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
        _fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (_fd < 0) return;
        for (int i = 0; i < lock_attempts && !(held = flock(_fd, LOCK_EX | LOCK_NB) == 0); ++i) usleep(lock_wait_us);
    }
    ~Folder_lock() {
        const int reason = errno;
        if (_fd >= 0) ::close(_fd);
        errno = reason;
    }
    Folder_lock(const Folder_lock&) = delete;

    bool held = false; ///< if not, errno says why

private:
    int _fd;
};

/// Remove a socket that nobody listens at; false, with errno, when something else is there.
bool remove_stale(const char* path) {
    struct stat there;
    if (lstat(path, &there) != 0) return errno == ENOENT;
    if (!S_ISSOCK(there.st_mode)) {
        errno = EEXIST;
        return false;
    }
    const int fd = connect_local(path);
    const int reason = fd >= 0 ? EADDRINUSE : errno;
    if (fd >= 0) ::close(fd);
    if (reason == ECONNREFUSED) return unlink(path) == 0;
    // Full up, or of another kind: somebody has it open.
    errno = reason == EAGAIN || reason == EPROTOTYPE ? EADDRINUSE : reason;
    return false;
}

} // namespace

unsigned local_address(const char* path, struct sockaddr_un& address) {
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    const size_t length = strlen(path);
    errno = length == 0 ? ENOENT : ENAMETOOLONG;
    if (length == 0 || length >= sizeof address.sun_path) return 0;
    memcpy(address.sun_path, path, length);
    const bool abstract = path[0] == '@';
    if (abstract) address.sun_path[0] = 0;
    return static_cast<unsigned>(offsetof(struct sockaddr_un, sun_path) + length + (abstract ? 0 : 1));
}

int connect_local(const char* path) {
    struct sockaddr_un address;
    const unsigned size = local_address(path, address);
    if (size == 0) return -1;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); // a full one must not hold us up
    if (fd < 0) return -1;
    if (connect(fd, reinterpret_cast<const struct sockaddr*>(&address), size) == 0) {
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
        return fd;
    }
    const int reason = errno;
    ::close(fd);
    errno = reason;
    return -1;
}

bool Local_listener::bind_and_listen(const struct sockaddr_un& address, unsigned size) {
    _fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    struct stat made;
    // The file gets the rights of the socket that it is made from: so there is no moment at which it has others.
    if (_fd >= 0 && fchmod(_fd, 0600) == 0 &&
        bind(_fd, reinterpret_cast<const struct sockaddr*>(&address), size) == 0 &&
        lstat(address.sun_path, &made) == 0) {
        _path = address.sun_path;
        _device = made.st_dev, _inode = made.st_ino;
        if (listen(_fd, backlog) == 0) return true;
    }
    const int reason = errno;
    if (_fd >= 0) ::close(_fd);
    _fd = -1;
    errno = reason;
    return false;
}

bool Local_listener::open(const char* path) {
    close();
    struct sockaddr_un address;
    const unsigned size = *path == '@' ? 0 : local_address(path, address);
    if (*path == '@') errno = EINVAL; // it would have no rights
    if (size == 0) return false;
    const Folder_lock lock(path);
    return lock.held && remove_stale(path) && bind_and_listen(address, size);
}

void Local_listener::close() {
    if (_fd < 0) return;
    const Folder_lock lock(_path); // had or not: a place that is still ours is free again
    struct stat there;
    if (lstat(_path.c_str(), &there) == 0 && there.st_dev == _device && there.st_ino == _inode) unlink(_path.c_str());
    ::close(_fd);
    _fd = -1;
}

} // namespace Util
