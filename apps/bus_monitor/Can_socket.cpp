// SPDX-License-Identifier: MIT
#include "Can_socket.h"
#include "fail.h"
#include <cerrno>
#include <cstring>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

Can_socket::Can_socket(const std::string& interface) : fd(-1) {
    const char* const name = interface.c_str();
    const unsigned index = if_nametoindex(name);
    if (index == 0) fail(1, "there is no interface %s, and no file of that name", name);
    fd = socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, CAN_RAW);
    if (fd < 0 && (errno == EPERM || errno == EACCES)) fail(1, "no right to listen to %s: run it as root", name);
    if (fd < 0) fail(1, "this kernel speaks no CAN (modprobe can-raw): %s", strerror(errno));
    const can_filter extended = {CAN_EFF_FLAG, CAN_EFF_FLAG | CAN_RTR_FLAG};
    setsockopt(fd, SOL_CAN_RAW, CAN_RAW_FILTER, &extended, sizeof extended);
    const int on = 1, room = 1 << 20;
    setsockopt(fd, SOL_SOCKET, SO_TIMESTAMP, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    sockaddr_can address = {};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(index);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fail(1, errno == ENODEV ? "%s is no CAN interface: %s" : "cannot listen to %s: %s", name, strerror(errno));
}

Can_socket::~Can_socket() { close(fd); }

Can_socket::Result Can_socket::read(JIN_frame& f) const {
    can_frame raw = {};
    iovec part = {&raw, sizeof raw};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timeval))];
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t n = recvmsg(fd, &message, 0);
    if (n < 0) return errno == EAGAIN || errno == EINTR ? none : failed;
    if (n != sizeof raw) return none;
    timeval when = {};
    gettimeofday(&when, nullptr);
    for (cmsghdr* c = CMSG_FIRSTHDR(&message); c; c = CMSG_NXTHDR(&message, c))
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_TIMESTAMP) memcpy(&when, CMSG_DATA(c), sizeof when);
    f.us = int64_t{when.tv_sec} * 1000000 + when.tv_usec;
    f.identifier = raw.can_id & CAN_EFF_MASK;
    f.size = raw.can_dlc <= JIN_frame::max_bytes ? raw.can_dlc : JIN_frame::max_bytes;
    memcpy(f.bytes, raw.data, f.size);
    return frame;
}
