// SPDX-License-Identifier: MIT
#pragma once
#include "glue/jin/JIN_frame.h"
#include <string>

/// A raw socket on a CAN interface: every frame with a 29-bit identifier, whoever it is for.
class Can_socket {
public:
    enum Result { none, frame, failed };

    /// Ends the program with one line and status 1 when there is no such interface, or no right.
    explicit Can_socket(const std::string& interface);
    ~Can_socket();
    Can_socket(const Can_socket&) = delete;

    /// The next frame if there is one; it does not wait. Failed: errno says why.
    Result read(JIN_frame& f) const;

    int fd;
};
