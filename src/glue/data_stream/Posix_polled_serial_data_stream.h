// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/Posix_polled_data_stream.h"
#include "glue/data_stream/Posix_serial_port.h"
#include "util/api.h"

/// A serial line that the diner which uses it polls itself; see Posix_polled_data_stream for threads and limits.
class KAV_API Posix_polled_serial_data_stream : public Posix_polled_data_stream, public Posix_serial_port {
public:
    Posix_polled_serial_data_stream();
    ~Posix_polled_serial_data_stream() override;

    using Posix_polled_data_stream::init;
    using Posix_serial_port::init;

    /// Posix_polled_data_stream::open(), then Posix_serial_port::init(). False also when the path is no terminal: the
    /// stream is open then, but has no settings.
    bool open(const char* path);
    bool open_default(const char* path) override { return open(path); }
    bool close(); ///< true when something was open
    int get_fd() const override { return descriptor(); }
};
