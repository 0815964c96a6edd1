// SPDX-License-Identifier: MIT
#include "glue/data_stream/Data_stream.h"
#include "glue/vorn/Binary_message.h"
#include "util/Debug_print.h"
#include "util/assertion.h"
#include "util/number_text.h"
#include <algorithm>
#include <cstdio>

// A public operation takes the lock of a stream that has one, once, and then uses only unlocked calls: the lock is not
// recursive.

Data_stream::Data_stream() : buffer(_storage, BUFFER_SIZE) { set_name("DS(%p)", static_cast<void*>(this)); }

Data_stream::~Data_stream() = default;

void Data_stream::flush() {}

int Data_stream::set_read_timeout(int) { return 0; }

int Data_stream::set_default_read_timeout() { return 0; }

int Data_stream::set_write_timeout(int) { return 0; }

int Data_stream::set_default_write_timeout() { return 0; }

int Data_stream::bytes_avail() {
    const Scoped_lock held(stream_lock);
    return static_cast<int>(buffer.used());
}

bool Data_stream::bytes_avail(unsigned int n) {
    const Scoped_lock held(stream_lock);
    return ensure(n);
}

bool Data_stream::get_data(unsigned char* dest, unsigned int n) {
    const Scoped_lock held(stream_lock);
    return ensure(n) && buffer.peek(0, dest, n) == n;
}

unsigned char Data_stream::operator[](unsigned int i) {
    const Scoped_lock held(stream_lock);
    // Asked for first, so that i + 1 cannot wrap to 0 and be had for nothing.
    if (i >= BUFFER_SIZE || !ensure(i + 1)) return 0;
    return *buffer.at(i);
}

bool Data_stream::drop(unsigned int n) {
    const Scoped_lock held(stream_lock);
    if (!ensure(n)) return false;
    buffer.drop(n);
    return true;
}

void Data_stream::drop_all() {
    const Scoped_lock held(stream_lock);
    buffer.clear();
}

/// Called with the lock held. What the buffer cannot hold is never fetched, because the excess would be lost. The count
/// is tested again afterwards: a fetch may promise more than it brought.
bool Data_stream::ensure(uint32_t n) {
    if (n > BUFFER_SIZE) return false;
    const uint32_t have = buffer.used();
    return n <= have || (_get_data(static_cast<int>(n - have)) && buffer.used() >= n);
}

bool Data_stream::printf(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const bool ok = vprintf(fmt, args);
    va_end(args);
    return ok;
}

bool Data_stream::vprintf(const char* fmt, va_list args) {
    char text[256];
    const int length = Util::vformat(text, sizeof text, fmt, args);
    if (length < 0) return false;
    if (echo) Debug_print::printd(text, -1);
    // A text that was cut goes out with its closing zero: the receivers have always been sent 256 bytes then.
    const unsigned n = std::min<unsigned>(static_cast<unsigned>(length), sizeof text);
    return _write(reinterpret_cast<unsigned char*>(text), n) != 0;
}

bool Data_stream::write(Binary_message const& m, bool newline) {
    static const unsigned char line_feed = '\n';
    const unsigned n = __write(m.data, m.size);
    const bool all = n == m.size;
    const bool ended = !newline || __write(&line_feed, 1) == 1;
    if (all && ended) return true;
    Debug_print::dprint("Failed write len=%u/%u %d %d\n", n, static_cast<unsigned>(m.size), all, ended);
    return false;
}

bool Data_stream::write(Data_stream& src) {
    const auto avail = static_cast<unsigned>(src.bytes_avail());
    if (avail > BUFFER_SIZE) {
        Util::assertion_failed("avail <= BUFFER_SIZE", "glue/data_stream/Data_stream", 1,
                               "bool Data_stream::write(Data_stream&)");
    }
    unsigned char bytes[BUFFER_SIZE];
    return src.get_data(bytes, avail) && __write(bytes, avail) != 0;
}

void Data_stream::log_data(unsigned char*, int) {}

void Data_stream::flush_log_data() {}

void Data_stream::get_name(char (&copy)[name_size]) const {
    const Scoped_lock held(stream_lock);
    std::copy(name, name + name_size, copy);
}

Data_stream::Counts Data_stream::counts() const {
    const Scoped_lock held(stream_lock);
    return {bytes_lost, bytes_read, bytes_written};
}

void Data_stream::set_name(const char* fmt, ...) {
    char text[name_size] = {};
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    const Scoped_lock held(stream_lock);
    std::copy(text, text + name_size, name);
}

uint32_t Data_stream::Window::move(unsigned char* dest, uint32_t n) { return drop(_stream.buffer.peek(0, dest, n)); }
