// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_iterator.h"
#include "platform/crc32.h"
#include "util/bytes.h"

namespace NV_store {

// The board's applications were laid out with this size.
static_assert(sizeof(void*) != 4 || sizeof(NV_iterator::NV_checksum) == 16);

namespace {

template <class T>
bool push(NV_iterator& it, T value) {
    unsigned char bytes[sizeof(T)];
    Util::to_little_endian(value, bytes);
    return it._push_bytes(bytes, sizeof bytes);
}

template <class T>
bool pop(NV_iterator& it, T& value) {
    unsigned char bytes[sizeof(T)];
    if (!it._pop_bytes(bytes, sizeof bytes)) return false;
    value = Util::from_little_endian<T>(bytes);
    return true;
}

constexpr int header_size = 4;

void decode(const unsigned char* bytes, NV_iterator::NV_iterator_header& h) {
    h = {bytes[0], bytes[1], Util::from_little_endian<unsigned short>(bytes + 2)};
}

uint32_t checksum_seed() {
    static const uint32_t seed = static_cast<uint32_t>(Util::crc32(0, "ZEW6", 4));
    return seed;
}

} // namespace

NV_iterator::NV_checksum::NV_checksum() : crc(checksum_seed()) {}

NV_iterator::~NV_iterator() = default;

bool NV_iterator::get_free_space(unsigned int& used, unsigned int& total) const {
    used = total = 0;
    return false;
}

const unsigned char* NV_iterator::last_passed(int) const { return nullptr; }

void NV_iterator::sum(const unsigned char* data, int n, uint32_t chunks) {
    for (NV_checksum& c : _checksums) {
        c.bytes += static_cast<uint32_t>(n);
        c.chunks += chunks;
        c.crc = static_cast<uint32_t>(Util::crc32(c.crc, data, n));
    }
}

void NV_iterator::sum_unseen() {
    if (_unseen_chunks > 0) sum(last_passed(_unseen), _unseen, _unseen_chunks);
    _unseen = 0;
    _unseen_chunks = 0;
}

void NV_iterator::pass_checksum_bytes(const unsigned char* data, int n) {
    if (!keeps_bytes) return sum(data, n, 1);
    _unseen += n;
    ++_unseen_chunks;
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
    // The virtual operation does not write to the bytes.
    if (!push_bytes(const_cast<unsigned char*>(data), n)) return false;
    pass_checksum_bytes(data, n);
    return true;
}

bool NV_iterator::_pop_bytes(unsigned char* data, int n) {
    if (!pop_bytes(data, n)) return false;
    pass_checksum_bytes(data, n);
    return true;
}

bool NV_iterator::push_header(const NV_iterator_header& h) {
    unsigned char bytes[header_size] = {h.type_byte, h.marker};
    Util::to_little_endian(h.id, bytes + 2);
    return _push_bytes(bytes, header_size);
}

bool NV_iterator::pop_header(NV_iterator_header& h) {
    unsigned char bytes[header_size];
    if (!_pop_bytes(bytes, header_size)) return false;
    decode(bytes, h);
    return true;
}

bool NV_iterator::peek_header(NV_iterator_header& h) {
    unsigned char bytes[header_size];
    if (!peek_bytes(bytes, header_size)) return false;
    decode(bytes, h);
    return true;
}

bool NV_iterator::push_bool(bool v) { return push_uint8(v ? 1 : 0); }
bool NV_iterator::push_char(char v) { return push_uint8(static_cast<unsigned char>(v)); }
bool NV_iterator::push_int8(signed char v) { return push(*this, v); }
bool NV_iterator::push_uint8(unsigned char v) { return push(*this, v); }
bool NV_iterator::push_int16(short v) { return push(*this, v); }
bool NV_iterator::push_uint16(unsigned short v) { return push(*this, v); }
bool NV_iterator::push_int32(int v) { return push(*this, v); }
bool NV_iterator::push_uint32(unsigned int v) { return push(*this, v); }
bool NV_iterator::push_int64(long long v) { return push(*this, v); }
bool NV_iterator::push_uint64(unsigned long long v) { return push(*this, v); }
bool NV_iterator::push_float(float v) { return push(*this, v); }
bool NV_iterator::push_double(double v) { return push(*this, v); }

bool NV_iterator::pop_bool(bool& v) {
    unsigned char byte;
    if (!pop_uint8(byte)) return false;
    v = byte != 0;
    return true;
}

bool NV_iterator::pop_char(char& v) { return pop(*this, reinterpret_cast<unsigned char&>(v)); }
bool NV_iterator::pop_int8(signed char& v) { return pop(*this, v); }
bool NV_iterator::pop_uint8(unsigned char& v) { return pop(*this, v); }
bool NV_iterator::pop_int16(short& v) { return pop(*this, v); }
bool NV_iterator::pop_uint16(unsigned short& v) { return pop(*this, v); }
bool NV_iterator::pop_int32(int& v) { return pop(*this, v); }
bool NV_iterator::pop_uint32(unsigned int& v) { return pop(*this, v); }
bool NV_iterator::pop_int64(long long& v) { return pop(*this, v); }
bool NV_iterator::pop_uint64(unsigned long long& v) { return pop(*this, v); }
bool NV_iterator::pop_float(float& v) { return pop(*this, v); }
bool NV_iterator::pop_double(double& v) { return pop(*this, v); }

} // namespace NV_store
