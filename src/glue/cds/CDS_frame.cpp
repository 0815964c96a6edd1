// SPDX-License-Identifier: MIT
#include "glue/cds/CDS_frame.h"
#include "platform/crc32.h"
#include "util/bytes.h"
#include <cstdint>
#include <cstring>

namespace CDS::Remote {
namespace {

uint32_t sum_of(const char* bytes, int n) { return static_cast<uint32_t>(Util::crc32(0, bytes, n)); }

const unsigned char* octets(const char* p) { return reinterpret_cast<const unsigned char*>(p); }

} // namespace

int Frame::read(const char* bytes, int n) {
    if (n < head_size) return 0;
    const int said = Util::from_little_endian<uint16_t>(octets(bytes + 2));
    if (said > max_contents) return -1;
    const int before_sum = head_size + said;
    if (n < before_sum + trailer_size) return 0;
    if (Util::from_little_endian<uint32_t>(octets(bytes + before_sum)) != sum_of(bytes, before_sum)) return -1;
    kind = bytes[0];
    tag = static_cast<unsigned char>(bytes[1]);
    contents = bytes + head_size;
    length = said;
    return before_sum + trailer_size;
}

int Frame::write_to(char* out) const {
    out[0] = kind;
    out[1] = static_cast<char>(tag);
    Util::to_little_endian(static_cast<uint16_t>(length), reinterpret_cast<unsigned char*>(out + 2));
    if (length > 0) memmove(out + head_size, contents, static_cast<size_t>(length));
    const int before_sum = head_size + length;
    Util::to_little_endian(sum_of(out, before_sum), reinterpret_cast<unsigned char*>(out + before_sum));
    return before_sum + trailer_size;
}

} // namespace CDS::Remote
