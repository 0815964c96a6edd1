// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <string>
#include <sys/types.h>

struct sockaddr_un;

/// Unix sockets of the stream kind, by their place in the file system. Any thread; nothing is printed.
namespace Util {

/// A socket that listens at a place, and removes it from there at its end. Only its owner's programs (and root's) can
/// connect: it has rights 0600 from the beginning.
///
/// What a killed program left at the place is replaced. A socket that somebody listens at is not, nor a file. Programs
/// that start at the same time keep each other out by a lock (flock) of the folder.
class KAV_INTERNAL Local_listener {
public:
    Local_listener() = default;
    ~Local_listener() { close(); }
    Local_listener(const Local_listener&) = delete;
    Local_listener& operator=(const Local_listener&) = delete;

    /// Listen there; what was open is closed first. False with errno: EADDRINUSE when a program listens there, EEXIST
    /// when something is there that is no such socket, ENAMETOOLONG above 107 characters, EWOULDBLOCK when the folder
    /// is locked for more than a second, else the system's reason.
    bool open(const char* path);
    void close();
    int fd() const { return _fd; } ///< does not block; -1 while closed

private:
    bool bind_and_listen(const struct sockaddr_un& address, unsigned size);

    int _fd = -1;
    std::string _path;
    dev_t _device = 0; ///< with the next one: which file is ours
    ino_t _inode = 0;
};

/// Connect to the socket that a program listens at: an open descriptor, which is the caller's, or -1 with errno.
/// ECONNREFUSED: nobody listens.
KAV_API int connect_local(const char* path);

/// Fill in the address of a place; an '@' in front stands for a name that is in no file system. Its size [bytes], or 0
/// with errno ENAMETOOLONG, or ENOENT for an empty one.
KAV_API unsigned local_address(const char* path, struct sockaddr_un& address);

} // namespace Util
