// SPDX-License-Identifier: MIT
#include "platform/Service_manager.h"
#include "util/Debug_print.h"
#include "util/local_socket.h"
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

/// A whole number above 0 and nothing else; 0 when it is none.
unsigned long long number(const char* text) {
    char* end = nullptr;
    if (!text || *text < '0' || *text > '9') return 0;
    const unsigned long long value = strtoull(text, &end, 10);
    return *end ? 0 : value;
}

} // namespace

Service_manager::Service_manager()
    : Service_manager(getenv("NOTIFY_SOCKET"), getenv("WATCHDOG_USEC"), getenv("WATCHDOG_PID")) {}

Service_manager::Service_manager(const char* notify_socket, const char* watchdog_usec, const char* watchdog_pid) {
    struct sockaddr_un address;
    if (!notify_socket || !*notify_socket) return;
    errno = EAFNOSUPPORT;
    // A place or a name that is in no file system, and nothing that would be looked for in the current folder.
    if ((*notify_socket != '/' && *notify_socket != '@') || Util::local_address(notify_socket, address) == 0) {
        Debug_print::try_print("Service_manager: cannot speak to %s: %s\n", notify_socket, strerror(errno));
        return;
    }
    _fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (_fd < 0) return;
    _socket = notify_socket;
    if (watchdog_pid && number(watchdog_pid) != static_cast<unsigned long long>(getpid())) return;
    _limit_ms = static_cast<int>(std::min<unsigned long long>(number(watchdog_usec) / 1000, INT_MAX));
}

Service_manager::~Service_manager() {
    if (_fd >= 0) close(_fd);
}

bool Service_manager::ready() { return send("READY=1"); }
bool Service_manager::stopping() { return send("STOPPING=1"); }
bool Service_manager::feed() { return send("WATCHDOG=1"); }

bool Service_manager::status(const char* text) {
    const std::string all = text;
    return send("STATUS=" + all.substr(0, all.find('\n')));
}

bool Service_manager::send(const std::string& text) const {
    if (!is_there()) return true;
    struct sockaddr_un address;
    const unsigned size = Util::local_address(_socket.c_str(), address);
    return sendto(_fd, text.data(), text.size(), MSG_NOSIGNAL, reinterpret_cast<const struct sockaddr*>(&address),
                  size) == static_cast<ssize_t>(text.size());
}
