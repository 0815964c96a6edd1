// SPDX-License-Identifier: MIT
#include "glue/data_stream/Recorder_data_stream.h"
#include "util/Debug_print.h"
#include "util/bytes.h"
#include <algorithm>
#include <cerrno>
#include <cstring>

using namespace Recording;

Recorder_data_stream::Recorder_data_stream(Data_stream& other, Data_stream& sink, Format format, char const* sink_name)
    : _other(other), _sink(sink), _format(format), _sink_name(sink_name), _last(Atime::now()) {
    if (format == raw) return;
    unsigned char head[head_size] = {};
    memcpy(head, magic, magic_size);
    head[8] = version;
    Util::to_little_endian(_last.millitm, head + 10);
    Util::to_little_endian(_last.time, head + 12);
    put(head, head_size);
}

bool Recorder_data_stream::get_data(int n) {
    const uint32_t room = buffer.room();
    _other.bytes_avail(std::min(static_cast<uint32_t>(n), room));
    unsigned char bytes[BUFFER_SIZE];
    uint32_t got;
    {
        Window window(_other); // not held while the sink writes: the other's reader goes on
        got = window.move(bytes, std::min<uint32_t>(room, BUFFER_SIZE));
    }
    buffer.put(bytes, got);
    bytes_read += got;
    record(kind_received, bytes, got);
    return got >= static_cast<uint32_t>(n);
}

unsigned int Recorder_data_stream::_write(unsigned char const* data, unsigned int n) {
    const unsigned done = _other._write(data, n);
    if (done > n) return done; // a failure
    bytes_written += done;
    if (_format == raw) return done;
    for (unsigned at = 0; at < done; at += max_record_size)
        record(kind_sent, data + at, std::min(done - at, max_record_size));
    return done;
}

void Recorder_data_stream::record(Kind kind, unsigned char const* data, uint32_t n) {
    if (n == 0 || !_recording) return;
    const Scoped_lock held(_mutex);
    if (_format == raw) return put(data, n);
    // In one piece: what a power cut leaves is a whole record more often.
    unsigned char piece[record_head_size + max_record_size];
    const Atime now = Atime::now();
    Util::to_little_endian(static_cast<uint32_t>(std::max(now - _last, 0)), piece);
    Util::to_little_endian(static_cast<uint16_t>(n), piece + 4);
    piece[6] = kind;
    piece[7] = 0;
    memcpy(piece + record_head_size, data, n);
    _last = now;
    put(piece, record_head_size + n);
}

/// Into the sink. The lock is held, or nobody else is there yet.
void Recorder_data_stream::put(unsigned char const* data, uint32_t n) {
    errno = 0;
    for (uint32_t done = 0; done < n && _recording;) {
        const uint32_t taken = _sink._write(data + done, n - done);
        done += taken;
        if (taken > 0 && taken <= n) continue;
        _recording = false;
        Debug_print::dprint("Recording to %s ends: %s\n", _sink_name, errno ? strerror(errno) : "it takes no more");
    }
}
