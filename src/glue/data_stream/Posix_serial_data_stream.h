// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/Posix_data_stream.h"
#include "glue/data_stream/Posix_serial_port.h"
#include "util/api.h"

/// A serial line that its one owner reads and writes directly.
class KAV_API Posix_serial_data_stream : public Posix_data_stream, public Posix_serial_port {
public:
    Posix_serial_data_stream();
    /// Opens by a device argument, see open_from_args(); ask get_fd() whether that worked.
    explicit Posix_serial_data_stream(const char* args);
    ~Posix_serial_data_stream() override;

    /// As Posix_data_stream::open(), then init(). False also when the path is no terminal: the stream is open then, but
    /// has no settings.
    bool open(const char* path, bool create, bool blocking, bool append);
    bool open_default(const char* path) override; ///< blocking, neither created nor appended to
    bool close();                                 ///< true when it closed something
    int get_fd() const override;                  ///< -1 also when the directions have a descriptor each

    /// How programs describe the device argument in their help.
    static const char* get_help();
};
