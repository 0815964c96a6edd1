// SPDX-License-Identifier: MIT
#include "glue/vorn/Vorn_salvage.h"
#include "glue/vorn/GNSS_messages.h"
#include "glue/vorn/frame_characters.h"
#include "util/bytes.h"
#include <algorithm>
#include <cstring>

void Vorn_salvage::add(const unsigned char* bytes, int length) {
    if (length <= 0) return;
    if (length > capacity) {
        bytes += length - capacity;
        length = capacity;
    }
    // What was looked at in vain is needed no more, and the oldest goes when that is not enough.
    drop_before(std::max(_pending, _size + length - capacity));
    memcpy(_bytes + _size, bytes, static_cast<unsigned>(length));
    _size += length;
    _position = _pending = 0;
}

unsigned char* Vorn_salvage::next(int& len) {
    bool waits = _pending < _position;
    for (; _position < _size; ++_position) {
        const Verdict verdict = judge(_position, len);
        if (verdict == sound) {
            unsigned char* const frame = _bytes + _position;
            _position += len;
            _pending = _position;
            return frame;
        }
        // A feigned header may promise much. So the look goes on, and a frame found behind it ends the waiting.
        if (verdict == incomplete && !waits) {
            waits = true;
            _pending = _position;
        }
    }
    if (!waits) _pending = _position;
    len = 0;
    return nullptr;
}

/// Does a sound frame begin here? Then `len` is its length with one line end.
Vorn_salvage::Verdict Vorn_salvage::judge(int position, int& len) const {
    const unsigned char* p = _bytes + position;
    const int left = _size - position, header = static_cast<int>(Vorn_message::header_size);
    if (left < header) return incomplete;
    const auto id = Util::from_little_endian<unsigned short>(p);
    const int body = Vorn_frame::hex_number(p + 2, 3);
    len = header + body + 1;
    if (body < 0 || !lengths.possible(id, len - 1)) return no_frame;
    if (!GNSS_messages::has_checksum(id)) return no_frame;
    if (left < len) return incomplete;
    // The checksum asks for the line end, too.
    return Vorn_message(const_cast<unsigned char*>(p), static_cast<uint32_t>(len)).check_checksum() ? sound : no_frame;
}

void Vorn_salvage::drop_before(int position) {
    _size = std::max(0, _size - position);
    memmove(_bytes, _bytes + position, static_cast<unsigned>(_size));
}
