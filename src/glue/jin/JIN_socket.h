// SPDX-License-Identifier: MIT
#pragma once
#include "glue/jin/JIN_message.h"
#include "glue/jin/JIN_name.h"
#include <cstdint>

/// One J1939 socket of the kernel, non-blocking: the system calls of JIN_socket_stack. Results are an errno, 0 for
/// good.
class JIN_socket {
public:
    /// What the error queue tells about a transfer.
    enum Report { nothing, delivered, given_up, reception_given_up };

    JIN_socket() = default;
    ~JIN_socket() { close(); }
    JIN_socket(const JIN_socket&) = delete;
    JIN_socket& operator=(const JIN_socket&) = delete;

    /// Open and bind: to a NAME, or with none to all that is for everybody.
    int open(unsigned interface_index, JIN_name name);
    /// Waits for a transfer that is under way, unless the interface went down; 13 s at most.
    void close();
    /// The address that claims go out under.
    int bind(uint8_t address);
    /// Receive only these PGNs, and what comes from `own`; a negative `n`: all.
    void filter(const uint32_t* pgns, int n, uint8_t own);
    void filter_all_out();
    void set_promiscuous(bool on);
    /// Reports come on the error queue from now on: of long messages that are received, and of those that are `sent`.
    void want_reports(bool sent);

    int send(const JIN_message& m);
    /// Receive into `m`, whose size is the room and then the length. EMSGSIZE: it was longer and is lost.
    int receive(JIN_message& m);
    Report next_report();
    int take_error(); ///< the error that is pending, which is thereby cleared

    bool is_open() const { return _fd >= 0; }
    int fd() const { return _fd; }

private:
    int _fd = -1;
    unsigned _interface = 0;
    JIN_name _name;
    uint8_t _priority = JIN::default_priority;
};
