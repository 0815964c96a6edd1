// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_file_iterator.h"
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace NV_store {
namespace {

/// The common part of both directions; `move` is read or write.
template <class Byte, class Move>
int move_all(int fd, Byte* data, int n, Move move) {
    if (!data || n < 0) return -1;
    int done = 0;
    while (done < n) {
        const ssize_t moved = move(fd, data + done, static_cast<size_t>(n - done));
        if (moved > 0) {
            done += static_cast<int>(moved);
        } else if (moved == 0) {
            break;
        } else if (errno != EINTR && errno != EAGAIN) {
            printf("Error in NV_file_iterator: %s\n", strerror(errno));
            return -1;
        }
    }
    return done;
}

int open_flags(NV_iterator::modes_t mode) {
    switch (mode) {
    case NV_iterator::mode_read:
        return O_RDONLY;
    case NV_iterator::mode_write:
        return O_WRONLY | O_CREAT | O_TRUNC;
    default:
        return O_WRONLY | O_CREAT | O_APPEND;
    }
}

} // namespace

NV_file_iterator::NV_file_iterator(const char* file) : path(file) {}

NV_file_iterator::~NV_file_iterator() { set_mode(mode_closed); }

int NV_file_iterator::set_mode(modes_t m) {
    if (mode != mode_closed) {
        const int closed = ::close(descriptor);
        descriptor = -1;
        mode = mode_closed;
        if (closed != 0) return closed;
    }
    if (m < mode_read || m > mode_journal_2) return 0;
    descriptor = ::open(path.c_str(), open_flags(m) | O_CLOEXEC, 0777);
    if (descriptor < 0) return -1;
    mode = m;
    if (m == mode_write) transferred = 0;
    return 0;
}

bool NV_file_iterator::push_bytes(unsigned char* data, int n) {
    if (mode < mode_write) return false;
    transferred += static_cast<unsigned int>(n);
    return blocking_write(descriptor, data, n) == n;
}

bool NV_file_iterator::pop_bytes(unsigned char* data, int n) {
    if (mode != mode_read) return false;
    transferred += static_cast<unsigned int>(n);
    return blocking_read(descriptor, data, n) == n;
}

bool NV_file_iterator::peek_bytes(unsigned char* data, int n) {
    if (mode != mode_read) return false;
    transferred += static_cast<unsigned int>(n);
    const off_t before = lseek(descriptor, 0, SEEK_CUR);
    const int got = blocking_read(descriptor, data, n);
    if (got < 0) return false;
    // What cannot seek has lost the bytes.
    return lseek(descriptor, -got, SEEK_CUR) == before && before >= 0 && got == n;
}

bool NV_file_iterator::get_free_space(unsigned int& used, unsigned int& total) const {
    used = transferred;
    total = budget;
    return true;
}

int NV_file_iterator::blocking_read(int fd, void* data, int n) {
    return move_all(fd, static_cast<char*>(data), n, [](int f, char* p, size_t k) { return ::read(f, p, k); });
}

int NV_file_iterator::blocking_write(int fd, const void* data, int n) {
    return move_all(fd, static_cast<const char*>(data), n,
                    [](int f, const char* p, size_t k) { return ::write(f, p, k); });
}

} // namespace NV_store
