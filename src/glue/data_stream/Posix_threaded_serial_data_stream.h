// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/Posix_serial_port.h"
#include "glue/data_stream/Posix_threaded_data_stream.h"
#include "util/api.h"

/// A serial line with a reader thread: the usual way to listen to a receiver.
///
///     Posix_threaded_serial_data_stream line;
///     line.init(modules);
///     line.register_waiter(&diner.waiter); // before it is opened: what comes first is notified, too
///     line.open_from_args("/dev/ttyS1:115200:rs485");
class KAV_API Posix_threaded_serial_data_stream : public Posix_threaded_data_stream, public Posix_serial_port {
public:
    Posix_threaded_serial_data_stream();
    /// Opens by a device argument, see open_from_args(); a device that cannot be opened ends the process, see open().
    explicit Posix_threaded_serial_data_stream(const char* args);
    ~Posix_threaded_serial_data_stream() override;

    /// As Posix_threaded_data_stream::init(), then Posix_serial_port::init(), whose result it returns: false while
    /// nothing is open, which does no harm.
    bool init(module_man& mm);
    using Posix_serial_port::init;

    /// As Posix_threaded_data_stream::open(), neither created nor appended to, then Posix_serial_port::init(). False
    /// also when the path is no terminal: the stream is open then, but has no settings.
    bool open(const char* path);
    bool open_default(const char* path) override; ///< open(); a failure writes "OPEN BAD\n" to what was opened
    bool close();                                 ///< true when something was open
    int get_fd() const override;                  ///< it does not block: a read or write that cannot go on fails
};
