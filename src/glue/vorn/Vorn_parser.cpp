// SPDX-License-Identifier: MIT
#include "glue/vorn/Vorn_parser.h"
#include "glue/vorn/Vorn_message.h"
#include "glue/vorn/frame_characters.h"
#include "util/Debug_print.h"
#include "util/bytes.h"
#include <algorithm>
#include <climits>

using Vorn_frame::is_line_end;

namespace {

constexpr int go_on = -1; ///< not a packet yet, and something has changed: look again
constexpr uint32_t header_size = Vorn_message::header_size;
constexpr uint32_t hunt_limit = 4190; ///< [bytes] without a line end that are given up at once

bool is_identifier(unsigned char c) { return c >= '0' && c <= '~'; }

bool is_reply(const unsigned char* id) { return (id[0] == 'R' && id[1] == 'E') || (id[0] == 'E' && id[1] == 'R'); }

/// Advance `i` over what is buffered to the next line end: true. Else it ends behind the last byte, or at the limit.
bool find_line_end(const Data_stream::Window& window, uint32_t& i) {
    while (i < hunt_limit) {
        uint32_t n;
        const unsigned char* from = window.span(i, n);
        if (n == 0) return false;
        const unsigned char* to = from + std::min(n, hunt_limit - i);
        const unsigned char* found = std::find_if(from, to, is_line_end);
        i += static_cast<uint32_t>(found - from);
        if (found != to) return true;
    }
    return false;
}

} // namespace

/// The caller's buffer.
struct Vorn_parser::Output {
    void move(Data_stream::Window& window, uint32_t n) { count = window.move(bytes, std::min(n, room)); }
    void append(unsigned char c) {
        if (count < room) bytes[count++] = c;
    }

    unsigned char* bytes;
    uint32_t room;
    uint32_t count = 0;
};

bool Vorn_parser::Dummy_checker::check(Data_stream&, unsigned short, int) { return true; }

Vorn_parser::Vorn_parser(Data_stream* s, bool flush) : stream(s) {
    if (flush && stream) stream->drop_all();
}

void Vorn_parser::init() {
    synced = 1;
    _hunted = nullptr;
    if (stream) stream->drop_all();
}

void Vorn_parser::init(Data_stream* s) {
    stream = s;
    init();
}

bool Vorn_parser::is_newline(int i) {
    const auto index = static_cast<unsigned>(i);
    return stream && stream->bytes_avail(index) && is_line_end((*stream)[index]);
}

int Vorn_parser::get_packet(unsigned char* buf, int buf_size, int& len) {
    len = 0;
    if (!stream) return kind_none;
    Output out{buf, static_cast<uint32_t>(std::max(buf_size, 0))};
    Data_stream::Window window(*stream);
    int kind = go_on;
    while (kind == go_on) {
        if (!window.ensure(header_size)) return kind_none;
        kind = synced ? in_step(window, out) : hunt(window, out);
    }
    len = static_cast<int>(out.count);
    return kind;
}

int Vorn_parser::get_packet(Vorn_message& msg, int& len) {
    return get_packet(msg.data, static_cast<int>(std::min<uint32_t>(msg.size, INT_MAX)), len);
}

int Vorn_parser::get_packet(unsigned char* buf, int buf_size) {
    int len;
    const int kind = get_packet(buf, buf_size, len);
    return kind == kind_frame ? len : kind == kind_text ? -len : 0;
}

int Vorn_parser::in_step(Data_stream::Window& window, Output& out) {
    unsigned char header[header_size];
    window.peek(header, header_size);
    if (!is_identifier(header[0]) || !is_identifier(header[1])) {
        // Receivers send zeros ahead of a frame: no reason to lose step.
        if (header[0] == 0)
            window.drop(1);
        else
            synced = 0;
        return go_on;
    }
    const int length = Vorn_frame::hex_number(header + 2, 3);
    if (length < 0) return reject(window);
    const int total = length + static_cast<int>(header_size);
    const uint32_t need = static_cast<uint32_t>(total) + (expect_line_end ? 1 : 0);
    const bool was_whole = window.used() >= need;
    if (!accepted(window, header, total)) return reject(window);
    if (!window.ensure(need)) return kind_none;
    // The rest has come since the checker was asked: of what lies there now it saw a part.
    if (!was_whole && !accepted(window, header, total)) return reject(window);
    if (!expect_line_end) return take_frame(window, need, out);
    if (is_reply(header)) return take_reply(window, need, out);
    if (is_line_end(window.at(need - 1))) return take_frame(window, need, out);
    // One byte at a time, and still in step: a damaged length does not cost the frames inside.
    window.drop(1);
    return go_on;
}

/// Ask the checker: one that uses the stream's own operations without the lock. What is buffered must be asked for
/// again afterwards.
bool Vorn_parser::accepted(Data_stream::Window& window, const unsigned char* id, int total) {
    if (!checker || checker == &dummy_checker) return true;
    const auto number = Util::from_little_endian<unsigned short>(id);
    const bool looks = checker == _looking && _look;
    if (looks && _look(*checker, window, number, total)) return true;
    window.release();
    const bool ok = !looks && checker->check(*stream, number, total);
    if (!ok) {
        char name[Data_stream::name_size];
        stream->get_name(name);
        Debug_print::dprint("Unexpected msg %c%c(%d) in %s[%d]\n", id[0], id[1], total, name, stream->bytes_avail());
    }
    window.take();
    return ok;
}

int Vorn_parser::reject(Data_stream::Window& window) {
    if (!keep_on_reject) window.drop(1);
    synced = 0;
    return go_on;
}

/// A reply ends in CR LF, or in any byte and LF: one that a lone LF ends is not taken for a reply.
int Vorn_parser::take_reply(Data_stream::Window& window, uint32_t need, Output& out) {
    if (!window.ensure(need + 1) && window.at(need - 1) == '\r') return kind_none;
    if (window.at(need) != '\n') {
        window.drop(1);
        return go_on;
    }
    out.move(window, need + 1);
    out.append(0);
    out.append(0);
    return kind_reply;
}

int Vorn_parser::take_frame(Data_stream::Window& window, uint32_t need, Output& out) {
    out.move(window, need);
    // Further line ends and the zeros between frames belong to nobody. Asked for one at a time, so that the end of the
    // stream ends the loop.
    while (window.ensure(1)) {
        const unsigned char c = window.at(0);
        if (!is_line_end(c) && c != 0) break;
        window.drop(1);
    }
    if (!expect_line_end) out.append('\n');
    return kind_frame;
}

/// Hand out everything up to and including the next run of line ends. How far it has looked is kept for the next call
/// as a position in the stream, so that it holds whatever is dropped meanwhile.
int Vorn_parser::hunt(Data_stream::Window& window, Output& out) {
    const uint64_t front = window.position();
    const bool looked = _hunted == stream && _hunted_to > front;
    uint32_t i = looked ? static_cast<uint32_t>(_hunted_to - front) : 0;
    while (!find_line_end(window, i)) {
        if (i == hunt_limit) {
            window.drop(hunt_limit);
            return go_on;
        }
        if (!window.ensure(i + 1)) {
            _hunted = stream;
            _hunted_to = front + i;
            return kind_none;
        }
    }
    uint32_t n = i + 1;
    while (window.ensure(n + 1) && is_line_end(window.at(n))) ++n; // at most to the end of the stream's buffer
    synced = 1;
    out.move(window, n);
    return kind_text;
}
