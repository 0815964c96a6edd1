// SPDX-License-Identifier: MIT
#include "glue/vorn/Vorn_printer.h"
#include "util/number_text.h"
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

double degrees(double radians) { return radians * 180 / 3.141592653589793; }

/// `x` times the square root of `n`, in the steps and precisions that the printed digits come from.
float times_root(float x, int n) {
    const double square = static_cast<double>(x) * static_cast<double>(x);
    double sum = 0;
    for (int i = 0; i < n; ++i) sum += square;
    return static_cast<float>(std::sqrt(sum));
}

unsigned bits(unsigned value) { return value; }

/// Print the line of one of the two forms, which take the same values; returns the length of what stands in `buf`.
KAV_PRINTF(4, 6)
KAV_PRINTF(5, 6)
int print_line(char* buf, int size, bool verbose, const char* labelled, const char* comma, ...) {
    if (size <= 0) return 0;
    va_list args;
    va_start(args, comma);
    const int n = Util::vformat(buf, static_cast<size_t>(size), verbose ? labelled : comma, args);
    va_end(args);
    return std::min(n, size - 1);
}

/// Print name and elements. The room of an element is one byte less than there is, so a text that had to be cut leaves
/// the last byte but one free as well.
template <class Message>
int print_array(const Message& m, const char* name, int scale, char* buf, int size, bool verbose) {
    if (size <= 0) return 0;
    if (m.too_short()) {
        char line[32];
        Util::format(line, sizeof line, "%s message too short", name);
        puts(line);
        return 0;
    }
    int length = std::min(Util::format(buf, static_cast<size_t>(size), "%s", name), size - 1);
    const char* const element = verbose ? GNSS_messages::element_labelled : GNSS_messages::element_comma;
    const int count = m.count();
    for (int i = 0; i < count; ++i) {
        const int room = size - length - 1;
        if (room <= 1) break;
        const int n = Util::format(buf + length, static_cast<size_t>(room), element, m.get(i) * scale);
        length += std::min(n, room - 1);
    }
    return length;
}

/// A text ends at its zero or with the view, whichever comes first.
int print_text(const Vorn_message& m, char* buf, int size) {
    const int limit = static_cast<int>(std::min<uint32_t>(m.size, INT_MAX));
    return Util::format(buf, static_cast<size_t>(size), "%.*s", limit, reinterpret_cast<const char*>(m.data));
}

void print_unknown(const Vorn_message& m, char* buf, int size) {
    const int id[] = {m.get_uint8(0), m.get_uint8(1)};
    fprintf(stderr, "UNKNOWN %c%c\n", id[0], id[1]);
    Util::format(buf, static_cast<size_t>(size), "%c%c ???: ", id[0], id[1]);
    // An identifier may hold a zero, which ends the text there and lets the dump begin in its place.
    int length = static_cast<int>(strlen(buf));
    for (uint32_t i = 0; i <= m.size && length < size - 1; ++i) {
        const auto room = static_cast<size_t>(size - length);
        length += i < m.size ? Util::format(buf + length, room, " %02x", static_cast<unsigned>(m.data[i]))
                             : Util::format(buf + length, room, "\n");
    }
}

} // namespace

#define GNSS_MESSAGE(name, wire, about, field_list, ...)                                                               \
    int Vorn_printer::snprint([[maybe_unused]] const GNSS_messages::Msg_##name& m, char* buf, int size) const {        \
        return print_line(buf, size, verbose, __VA_ARGS__);                                                            \
    }
#define GNSS_ARRAY(name, wire, about, type, unit, spare, scale)                                                        \
    int Vorn_printer::snprint(const GNSS_messages::Msg_##name& m, char* buf, int size) const {                         \
        return print_array(m, #name, scale, buf, size, verbose);                                                       \
    }
#include "glue/vorn/GNSS_catalogue.h"

int Vorn_printer::snprint(const Vorn_message& msg, char* buf, int size) const {
    if (size <= 0) return 0;
    switch (msg.get_id()) {
#define GNSS_EACH(name, wire)                                                                                          \
    case GNSS_messages::id_##name:                                                                                     \
        return snprint(GNSS_messages::Msg_##name(msg), buf, size);
#define GNSS_TEXT(name, wire, about)                                                                                   \
    case GNSS_messages::id_##name:                                                                                     \
        return print_text(msg, buf, size);
#include "glue/vorn/GNSS_catalogue.h"
    }
    print_unknown(msg, buf, size);
    return 0;
}
