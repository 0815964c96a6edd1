// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/Data_stream.h"
#include "glue/data_stream/Posix_serial_port.h"
#include <string>

/// The way to the controller: a Unix socket, or a serial line that is this program's alone. Whoever waits for bytes is
/// woken by a signal, too.
class Line final : public Data_stream, public Posix_serial_port {
public:
    /// `stop`: a descriptor that is readable when the program shall end. An answer is waited for `timeout_ms`.
    Line(int stop, int timeout_ms) : _stop(stop), _timeout_ms(timeout_ms) {}
    ~Line() override;

    /// Open a socket, or a device[:baud[:mode]]; empty, or why not.
    std::string open(const std::string& source);

    using Data_stream::get_data;
    bool get_data(int n) override;
    unsigned int _write(const unsigned char* data, unsigned int n) override;
    int get_fd() const override { return _fd; }
    bool open_default(const char*) override { return init(); } ///< open() has opened it

private:
    bool ready(short events, int64_t end) const;

    const int _stop, _timeout_ms;
    int _fd = -1;
};
