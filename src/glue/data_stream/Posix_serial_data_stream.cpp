// SPDX-License-Identifier: MIT
#include "glue/data_stream/Posix_serial_data_stream.h"

Posix_serial_data_stream::Posix_serial_data_stream() { set_name("DSPosSer(%p)", static_cast<void*>(this)); }

Posix_serial_data_stream::Posix_serial_data_stream(const char* args) {
    open_from_args(args);
    set_name("DSPosSer(%p, %s)", static_cast<void*>(this), args);
}

Posix_serial_data_stream::~Posix_serial_data_stream() { release_claim(); }

bool Posix_serial_data_stream::open(const char* path, bool create, bool blocking, bool append) {
    close();
    if (!Posix_data_stream::open(path, create, blocking, append)) {
        set_name("DSPosSer(%p)", static_cast<void*>(this));
        return false;
    }
    set_name("DSPosSer(%p, %s)", static_cast<void*>(this), path);
    bool claimed;
    const bool ok = init_opened(path, claimed);
    if (!claimed) close();
    return ok;
}

bool Posix_serial_data_stream::open_default(const char* path) { return open(path, false, true, false); }

bool Posix_serial_data_stream::close() {
    release_claim();
    const bool closed = Posix_data_stream::close();
    deinit();
    set_name("DSPosSer(%p)", static_cast<void*>(this));
    return closed;
}

int Posix_serial_data_stream::get_fd() const { return read_fd() == write_fd() ? read_fd() : -1; }

const char* Posix_serial_data_stream::get_help() { return "-c|--comm device[:baud]"; }
