// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_iterator.h"
#include "platform/crc32.h"
#include <cstring>
#include <utility>
#include <vector>

namespace NV_store {

// The board's applications were laid out with this size.
static_assert(sizeof(void*) != 4 || sizeof(NV_iterator::NV_checksum) == 16);

NV_iterator::NV_checksum::NV_checksum() : crc(record_crc_seed()) {}

NV_iterator::~NV_iterator() = default;

bool NV_iterator::get_free_space(unsigned int& used, unsigned int& total) const {
    used = total = 0;
    return false;
}

void NV_iterator::sum(const unsigned char* data, int n, uint32_t chunks) {
    for (NV_checksum& c : _checksums) {
        c.bytes += static_cast<uint32_t>(n);
        c.chunks += chunks;
        c.crc = static_cast<uint32_t>(Util::crc32(c.crc, data, n));
    }
}

void NV_iterator::sum_unseen() {
    if (_unseen_chunks > 0) sum(_next - _unseen, _unseen, _unseen_chunks);
    _unseen = 0;
    _unseen_chunks = 0;
}

/// The next `n` bytes of the window, which pass now; null when it does not hold so many.
inline unsigned char* NV_iterator::pass(int n, bool reading) {
    if (n <= 0 || n > _window_end - _next || (mode == mode_read) != reading) return nullptr;
    _unseen += n;
    ++_unseen_chunks;
    return std::exchange(_next, _next + n);
}

void NV_iterator::pass_checksum_bytes(const unsigned char* data, int n) {
    sum_unseen();
    sum(data, n, 1);
}

void NV_iterator::add_checksum_getter(NV_checksum* c) {
    sum_unseen();
    _checksums.push(c);
}

void NV_iterator::remove_checksum_getter(NV_checksum* c) {
    sum_unseen();
    _checksums.remove(c);
}

bool NV_iterator::_push_bytes(const unsigned char* data, int n) {
    if (unsigned char* const to = pass(n, false)) {
        memcpy(to, data, static_cast<size_t>(n));
        return true;
    }
    // The virtual operation does not write to the bytes.
    if (!push_bytes(const_cast<unsigned char*>(data), n)) return false;
    pass_checksum_bytes(data, n);
    return true;
}

bool NV_iterator::_pop_bytes(unsigned char* data, int n) {
    if (const unsigned char* const from = pass(n, true)) {
        memcpy(data, from, static_cast<size_t>(n));
        return true;
    }
    if (!pop_bytes(data, n)) return false;
    pass_checksum_bytes(data, n);
    return true;
}

bool NV_iterator::push_header(const NV_iterator_header& h) {
    unsigned char bytes[Record_header::size];
    unsigned char* const to = pass(Record_header::size, false);
    h.encode(to ? to : bytes);
    return to || _push_bytes(bytes, Record_header::size);
}

bool NV_iterator::pop_header(NV_iterator_header& h) {
    unsigned char bytes[Record_header::size];
    const unsigned char* const from = pass(Record_header::size, true);
    if (!from && !_pop_bytes(bytes, Record_header::size)) return false;
    h = Record_header::decode(from ? from : bytes);
    return true;
}

bool NV_iterator::peek_header(NV_iterator_header& h) {
    unsigned char bytes[Record_header::size];
    const bool in_window = mode == mode_read && _window_end - _next >= Record_header::size;
    if (!in_window && !peek_bytes(bytes, Record_header::size)) return false;
    h = Record_header::decode(in_window ? _next : bytes);
    return true;
}

bool NV_iterator::skip_record() {
    Record_header next;
    if (!peek_header(next)) return false;
    const Record_content content = Record_content::of(next.type_byte);
    if (!content.can_be_skipped()) return false;
    if (content.kind == Record_content::container) return skip_container();
    return skip_value(content.width, content.is_counted());
}

bool NV_iterator::skip_container() {
    // No recursion: damaged bytes nest as deeply as they like.
    std::vector<Record_header> open;
    Record_header record;
    do {
        if (!peek_header(record)) return false;
        if (!open.empty() && record.marker == marker_end) {
            // The checksum behind stays and is met as the next header: files of old rely on it.
            const Record_header start = open.back();
            if (record.id != start.id || record.type_byte != start.type_byte || !pop_header(record)) return false;
            open.pop_back();
        } else if (open.empty() || Record_content::of(record.type_byte).kind == Record_content::container) {
            if (!pop_header(record) || record.marker != marker_start) return false;
            open.push_back(record);
        } else if (!skip_record()) {
            return false;
        }
    } while (!open.empty());
    return true;
}

bool NV_iterator::skip_value(int width, bool counted) {
    Record_header header;
    unsigned char count = 1, dropped[8];
    if (!pop_header(header) || header.marker != marker_value || (counted && !pop_uint8(count))) return false;
    for (; count > 0; --count)
        if (!_pop_bytes(dropped, width)) return false;
    return true;
}

bool NV_iterator::push_bits(uint64_t bits, int width) {
    unsigned char bytes[8];
    unsigned char* const to = pass(width, false);
    Util::bits_to_little_endian(bits, to ? to : bytes, width);
    return to || _push_bytes(bytes, width);
}

bool NV_iterator::pop_bits(uint64_t& bits, int width) {
    unsigned char bytes[8];
    const unsigned char* const from = pass(width, true);
    if (!from && !_pop_bytes(bytes, width)) return false;
    bits = Util::bits_from_little_endian(from ? from : bytes, width);
    return true;
}

} // namespace NV_store
