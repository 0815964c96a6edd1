// SPDX-License-Identifier: MIT
#include "glue/data_stream/Posix_polled_serial_data_stream.h"

Posix_polled_serial_data_stream::Posix_polled_serial_data_stream() {
    set_name("DSPosPSer(%p)", static_cast<void*>(this));
}

Posix_polled_serial_data_stream::~Posix_polled_serial_data_stream() {
    if (initialised()) close();
}

bool Posix_polled_serial_data_stream::open(const char* path) {
    close();
    if (!Posix_polled_data_stream::open(path)) return false;
    set_name("DSPosPSer(%p, %s)", static_cast<void*>(this), path);
    bool claimed;
    const bool ok = init_opened(path, claimed);
    if (!claimed) close();
    return ok;
}

bool Posix_polled_serial_data_stream::close() {
    release_claim();
    const bool closed = Posix_polled_data_stream::close();
    deinit();
    set_name("DSPosPSer(%p)", static_cast<void*>(this));
    return closed;
}
