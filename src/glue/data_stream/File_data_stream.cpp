// SPDX-License-Identifier: MIT
#include "glue/data_stream/File_data_stream.h"
#include "util/Debug_print.h"
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int exit_no_read = -133;
constexpr int exit_no_write = -134;

} // namespace

File_data_stream::File_data_stream() { set_name("DSFile(%p)", static_cast<void*>(this)); }

File_data_stream::~File_data_stream() {
    set_read_file(nullptr);
    set_write_file(nullptr);
}

void File_data_stream::set_read_file(FILE* file) {
    if (_read_file) fclose(_read_file);
    _read_file = file;
}

void File_data_stream::set_write_file(FILE* file) {
    if (_write_file) {
        fflush(_write_file);
        fclose(_write_file);
    }
    _write_file = file;
}

bool File_data_stream::open_read(const char* path) {
    set_read_file(nullptr);
    set_read_file(fopen(path, "rb"));
    if (!_read_file) {
        Debug_print::try_print("Error opening file [%s]\n", path);
        exit(exit_no_read);
    }
    set_name("DSFile(%p,%s, r)", static_cast<void*>(this), path);
    return true;
}

bool File_data_stream::open_read(int fd) {
    set_read_file(nullptr);
    set_read_file(fdopen(fd, "rb"));
    if (!_read_file) {
        Debug_print::try_print("Error opening fd [%i]\n", fd);
        exit(exit_no_read);
    }
    set_name("DSFile(%p,%d, r)", static_cast<void*>(this), fd);
    return true;
}

bool File_data_stream::open_write(const char* path) {
    set_write_file(nullptr); // first, so that what is flushed comes before what the new opening writes
    set_write_file(fopen(path, "a"));
    if (!_write_file) {
        Debug_print::try_print("Error opening file [%s]\n", path);
        exit(exit_no_write);
    }
    set_name("DSFile(%p,%s, w)", static_cast<void*>(this), path);
    return true;
}

bool File_data_stream::close_read() {
    if (!_read_file) return false;
    set_read_file(nullptr);
    set_name("DSFile(%p)", static_cast<void*>(this));
    return true;
}

bool File_data_stream::close_write() {
    if (!_write_file) return false;
    set_write_file(nullptr);
    set_name("DSFile(%p)", static_cast<void*>(this));
    return true;
}

bool File_data_stream::get_data(int n) {
    if (n == 0) return true;
    if (n < 0 || !_read_file) return false;
    for (; n > 0; --n) {
        const int c = fgetc(_read_file);
        if (c == EOF) break;
        unsigned char byte = static_cast<unsigned char>(c);
        buffer.put(&byte, 1);
        log_data(&byte, 1);
    }
    flush_log_data();
    return n == 0;
}

unsigned int File_data_stream::_write(const unsigned char* data, unsigned int n) {
    if (!_write_file) return UINT_MAX;
    return static_cast<unsigned int>(fwrite(data, 1, n, _write_file));
}

unsigned int File_data_stream::get_length() const {
    fpos_t position;
    if (!_read_file || fgetpos(_read_file, &position) != 0) return UINT_MAX;
    const bool at_end = fseeko(_read_file, 0, SEEK_END) == 0;
    const int64_t length = at_end ? ftello(_read_file) : -1;
    if (fsetpos(_read_file, &position) != 0 || length < 0 || length > UINT_MAX) return UINT_MAX;
    return static_cast<unsigned int>(length);
}

bool File_data_stream::exists(const char* path) {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno != ENOENT;
    ::close(fd);
    return true;
}
