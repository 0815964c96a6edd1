// SPDX-License-Identifier: MIT
#include "glue/jin/JIN_socket.h"
#include <cerrno>
#include <cstring>
#include <ctime> // for the kernel's header below
#include <linux/can.h>
#include <linux/can/j1939.h>
#include <linux/errqueue.h>
#include <linux/net_tstamp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct sockaddr_can address_of(unsigned interface_index, JIN_name name, uint32_t pgn, uint8_t address) {
    struct sockaddr_can a = {};
    a.can_family = AF_CAN;
    a.can_ifindex = static_cast<int>(interface_index);
    a.can_addr.j1939.name = name.value;
    a.can_addr.j1939.pgn = pgn;
    a.can_addr.j1939.addr = address;
    return a;
}

int result(long r) { return r < 0 ? errno : 0; }

template <class T>
int set(int fd, int level, int option, const T& value) {
    return result(setsockopt(fd, level, option, &value, sizeof value));
}

/// Aligned as control messages want it.
union Control {
    struct cmsghdr head;
    unsigned char bytes[256];
};

} // namespace

int JIN_socket::open(unsigned interface_index, JIN_name name) {
    close();
    _fd = socket(AF_CAN, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, CAN_J1939);
    if (_fd < 0) return errno;
    _interface = interface_index;
    _name = name;
    _priority = JIN::default_priority;
    set(_fd, SOL_SOCKET, SO_BROADCAST, 1);
    set(_fd, SOL_SOCKET, SO_RCVBUF, 1 << 18);
    set(_fd, SOL_SOCKET, SO_SNDBUF, 1 << 13); // a few messages: what waits longer is busy, and built anew
    return bind(J1939_NO_ADDR);
}

void JIN_socket::close() {
    if (_fd >= 0) ::close(_fd);
    _fd = -1;
}

int JIN_socket::bind(uint8_t address) {
    const struct sockaddr_can a = address_of(_interface, _name, J1939_NO_PGN, address);
    return result(::bind(_fd, reinterpret_cast<const struct sockaddr*>(&a), sizeof a));
}

void JIN_socket::filter(const uint32_t* pgns, int n, uint8_t own) {
    constexpr int most = 64;
    struct j1939_filter filters[most] = {};
    if (n < 0 || n >= most) {
        setsockopt(_fd, SOL_CAN_J1939, SO_J1939_FILTER, nullptr, 0);
        return;
    }
    for (int i = 0; i < n; ++i) {
        filters[i].pgn = pgns[i];
        filters[i].pgn_mask = JIN::pgn_max;
    }
    filters[n].addr = own;
    filters[n].addr_mask = 0xFF;
    setsockopt(_fd, SOL_CAN_J1939, SO_J1939_FILTER, filters, sizeof *filters * static_cast<unsigned>(n + 1));
}

/// Nothing comes from everybody's address.
void JIN_socket::filter_all_out() { filter(nullptr, 0, JIN::global); }

void JIN_socket::set_promiscuous(bool on) { set(_fd, SOL_CAN_J1939, SO_J1939_PROMISC, static_cast<int>(on)); }

void JIN_socket::want_reports(bool sent) {
    constexpr unsigned both =
        SOF_TIMESTAMPING_SOFTWARE | SOF_TIMESTAMPING_OPT_CMSG | SOF_TIMESTAMPING_OPT_ID | SOF_TIMESTAMPING_OPT_TSONLY;
    set(_fd, SOL_SOCKET, SO_TIMESTAMPING, both | (sent ? SOF_TIMESTAMPING_TX_ACK : SOF_TIMESTAMPING_RX_SOFTWARE));
    set(_fd, SOL_CAN_J1939, SO_J1939_ERRQUEUE, 1);
}

int JIN_socket::send(const JIN_message& m) {
    // Below 2 the kernel wants a right that is not worth a failure.
    if (m.priority != _priority && set(_fd, SOL_CAN_J1939, SO_J1939_SEND_PRIO, static_cast<int>(m.priority)) == 0)
        _priority = m.priority;
    const struct sockaddr_can to = address_of(_interface, JIN_name(), m.pgn, m.destination);
    return result(sendto(_fd, m.data, m.size, MSG_DONTWAIT | MSG_NOSIGNAL,
                         reinterpret_cast<const struct sockaddr*>(&to), sizeof to));
}

int JIN_socket::receive(JIN_message& m) {
    struct sockaddr_can from = {};
    struct iovec piece = {m.data, m.size};
    Control control;
    struct msghdr head = {};
    head.msg_name = &from;
    head.msg_namelen = sizeof from;
    head.msg_iov = &piece;
    head.msg_iovlen = 1;
    head.msg_control = &control;
    head.msg_controllen = sizeof control;
    const ssize_t got = recvmsg(_fd, &head, MSG_DONTWAIT);
    if (got < 0) return errno;
    if (head.msg_flags & MSG_TRUNC) return EMSGSIZE;
    m.size = static_cast<uint32_t>(got);
    m.pgn = from.can_addr.j1939.pgn;
    m.source = from.can_addr.j1939.addr;
    m.destination = JIN::global;
    m.priority = JIN::default_priority;
    for (struct cmsghdr* c = CMSG_FIRSTHDR(&head); c; c = CMSG_NXTHDR(&head, c)) {
        if (c->cmsg_level != SOL_CAN_J1939) continue;
        if (c->cmsg_type == SCM_J1939_DEST_ADDR) m.destination = *CMSG_DATA(c);
        if (c->cmsg_type == SCM_J1939_PRIO) m.priority = *CMSG_DATA(c);
    }
    return 0;
}

JIN_socket::Report JIN_socket::next_report() {
    for (;;) {
        Control control;
        struct msghdr head = {};
        head.msg_control = &control;
        head.msg_controllen = sizeof control;
        if (recvmsg(_fd, &head, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) return nothing;
        for (struct cmsghdr* c = CMSG_FIRSTHDR(&head); c; c = CMSG_NXTHDR(&head, c)) {
            if (c->cmsg_level != SOL_CAN_J1939 || c->cmsg_type != SCM_J1939_ERRQUEUE) continue;
            struct sock_extended_err e;
            memcpy(&e, CMSG_DATA(c), sizeof e);
            if (e.ee_origin == SO_EE_ORIGIN_TIMESTAMPING && e.ee_info == SCM_TSTAMP_ACK) return delivered;
            if (e.ee_origin == SO_EE_ORIGIN_LOCAL && e.ee_info == J1939_EE_INFO_TX_ABORT) return given_up;
            if (e.ee_origin == SO_EE_ORIGIN_LOCAL && e.ee_info == J1939_EE_INFO_RX_ABORT) return reception_given_up;
        }
    }
}

int JIN_socket::take_error() {
    int error = 0;
    socklen_t n = sizeof error;
    getsockopt(_fd, SOL_SOCKET, SO_ERROR, &error, &n);
    return error;
}
