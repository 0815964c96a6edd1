// SPDX-License-Identifier: MIT
#include "glue/data_stream/Posix_threaded_serial_data_stream.h"

Posix_threaded_serial_data_stream::Posix_threaded_serial_data_stream() {
    set_name("DSPosTSer(%p)", static_cast<void*>(this));
}

Posix_threaded_serial_data_stream::Posix_threaded_serial_data_stream(const char* args)
    : Posix_threaded_serial_data_stream() {
    open_from_args(args);
}

Posix_threaded_serial_data_stream::~Posix_threaded_serial_data_stream() {
    if (initialised()) close();
}

bool Posix_threaded_serial_data_stream::init(module_man& mm) {
    Posix_threaded_data_stream::init(mm);
    return init();
}

bool Posix_threaded_serial_data_stream::open(const char* path) {
    close();
    if (!Posix_threaded_data_stream::open(path, false, false)) return false;
    set_name("DSPosTSer(%p, %s)", static_cast<void*>(this), path);
    bool claimed;
    const bool ok = init_opened(path, claimed);
    if (!claimed) close();
    return ok;
}

bool Posix_threaded_serial_data_stream::open_default(const char* path) {
    const bool ok = open(path);
    if (!ok) printf("OPEN BAD\n");
    return ok;
}

bool Posix_threaded_serial_data_stream::close() {
    release_claim();
    const bool closed = Posix_threaded_data_stream::close();
    deinit();
    set_name("DSPosTSer(%p)", static_cast<void*>(this));
    return closed;
}

int Posix_threaded_serial_data_stream::get_fd() const { return descriptor(); }
