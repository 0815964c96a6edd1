// SPDX-License-Identifier: MIT
#include "glue/jin/JIN_frame.h"
#include <cstdio>

namespace {

constexpr uint32_t max_identifier = 0x1FFFFFFF;
constexpr int64_t max_seconds = 0x7FFFFFFF; // as the library's time has it

int digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

/// Reads what it is asked for, and remembers when it was not there.
class Reader {
public:
    explicit Reader(const std::string& text) : _text(text) {}

    bool expect(char c) {
        if (peek() != c) return false;
        ++_at;
        return true;
    }
    /// A number of `least` to `most` digits of a base.
    bool number(int base, unsigned least, unsigned most, int64_t& value) {
        unsigned n = 0;
        for (value = 0; n < most; ++n, ++_at) {
            const int d = digit(peek());
            if (d < 0 || d >= base) break;
            value = value * base + d;
        }
        return n >= least;
    }
    bool word() {
        const size_t begin = _at;
        while (peek() > ' ') ++_at;
        return _at > begin;
    }
    char peek() const { return _at < _text.size() ? _text[_at] : '\0'; }

private:
    const std::string& _text;
    size_t _at = 0;
};

} // namespace

bool JIN_frame::read(const std::string& line) {
    Reader in(line);
    int64_t seconds, fraction, id, byte;
    if (!in.expect('(') || !in.number(10, 1, 10, seconds) || seconds > max_seconds || !in.expect('.')) return false;
    if (!in.number(10, 6, 6, fraction) || !in.expect(')') || !in.expect(' ') || !in.word() || !in.expect(' '))
        return false;
    if (!in.number(16, 8, 8, id) || id > max_identifier || !in.expect('#')) return false;
    us = seconds * 1000000 + fraction;
    identifier = static_cast<uint32_t>(id);
    for (size = 0; digit(in.peek()) >= 0; ++size) {
        if (size == max_bytes || !in.number(16, 2, 2, byte)) return false;
        bytes[size] = static_cast<unsigned char>(byte);
    }
    return static_cast<unsigned char>(in.peek()) <= ' ';
}

std::string JIN_frame::to_line(const char* interface) const {
    char text[64];
    snprintf(text, sizeof text, "(%010lld.%06lld) %.16s %08X#", static_cast<long long>(us / 1000000),
             static_cast<long long>(us % 1000000), interface, static_cast<unsigned>(identifier));
    std::string line = text;
    for (unsigned i = 0; i < size && i < max_bytes; ++i) {
        snprintf(text, sizeof text, "%02X", unsigned{bytes[i]});
        line += text;
    }
    return line;
}
