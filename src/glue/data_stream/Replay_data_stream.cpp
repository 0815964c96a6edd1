// SPDX-License-Identifier: MIT
#include "glue/data_stream/Replay_data_stream.h"
#include "glue/data_stream/trace_bytes.h"
#include "util/Debug_print.h"
#include "util/bytes.h"
#include <algorithm>
#include <cmath>
#include <cstring>

using namespace Recording;

Replay_data_stream::Replay_data_stream(Data_stream& source, double speed)
    : _source(source), _speed(speed), _begun(false), _due(Atime::now()) {
    unsigned char head[head_size];
    if (!is_recording(source) || !source.get_data(head, head_size)) {
        end(unreadable, "it is none");
        return;
    }
    if (head[8] != version || head[9] != 0) {
        end(unreadable, "it is of another version");
        return;
    }
    skip(head_size);
    _begun.millitm = std::min<uint16_t>(Util::from_little_endian<uint16_t>(head + 10), 999);
    _begun.time = Util::from_little_endian<int32_t>(head + 12);
}

bool Replay_data_stream::is_recording(Data_stream& source) {
    unsigned char begin[magic_size];
    return source.get_data(begin, magic_size) && memcmp(begin, magic, magic_size) == 0;
}

int Replay_data_stream::ms_to_next() {
    if (_left == 0 && !load_record()) return -1;
    return std::max(_due.get_ms_from_now(), 0);
}

int Replay_data_stream::set_read_timeout(int ms) {
    _read_timeout = ms;
    return 1;
}

bool Replay_data_stream::get_data(int n) {
    constexpr int longest_wait = 100; // [ms] after which the clock is looked at: it may have been set
    uint32_t missing = static_cast<uint32_t>(std::max(n, 0));
    for (int may_wait = _read_timeout; missing > 0;) {
        int wait = ms_to_next();
        if (wait < 0) return false;
        if (wait == 0) {
            missing -= std::min(missing, bring(buffer.room()));
            continue;
        }
        if (may_wait == 0) return false;
        wait = std::min(wait, longest_wait);
        if (may_wait > 0) may_wait -= wait = std::min(wait, may_wait);
        Atime::delay(wait);
    }
    return true;
}

unsigned int Replay_data_stream::_write(unsigned char const*, unsigned int n) { return n; }

/// Find the next record of received bytes and when it is due; false when there is none, and the state says why.
bool Replay_data_stream::load_record() {
    while (_state == playing) {
        unsigned char head[record_head_size];
        const uint32_t there = source_has(record_head_size);
        if (there == 0) return end(ended, nullptr);
        if (there < record_head_size || !_source.get_data(head, record_head_size)) return end(cut, "it is cut");
        const uint32_t length = Util::from_little_endian<uint16_t>(head + 4);
        if (length == 0 || length > max_record_size || head[7] != 0) return end(damaged, "it is damaged");
        skip(record_head_size);
        if (_speed > 0) {
            const double wait =
                std::min(Util::from_little_endian<uint32_t>(head) / _speed + _fraction, double(Atime::week_ms));
            _due += static_cast<int>(wait);
            _fraction = wait - std::floor(wait);
        }
        if (head[6] == kind_received) {
            _left = length;
            return true;
        }
        if (source_has(length) < length) return end(cut, "it is cut");
        skip(length);
    }
    return false;
}

/// Move up to `room` bytes of the record into the buffer; how many.
uint32_t Replay_data_stream::bring(uint32_t room) {
    unsigned char bytes[BUFFER_SIZE];
    const uint32_t n = std::min(source_has(std::min(_left, room)), std::min(_left, room));
    if (n == 0) {
        _left = 0;
        end(cut, "it is cut");
        return 0;
    }
    _source.get_data(bytes, n);
    skip(n);
    _left -= n;
    bytes_read += n;
    trace_bytes(*this, n, 0);
    return buffer.put(bytes, n);
}

/// How many bytes the source has, after having it fetch `n`.
uint32_t Replay_data_stream::source_has(uint32_t n) {
    _source.bytes_avail(n);
    return static_cast<uint32_t>(_source.bytes_avail());
}

bool Replay_data_stream::skip(uint32_t n) {
    _position += n;
    return _source.drop(n);
}

/// False, always.
bool Replay_data_stream::end(State state, char const* why) {
    _state = state;
    if (why) Debug_print::dprint("Recording ends at byte %llu: %s\n", static_cast<unsigned long long>(_position), why);
    return false;
}
