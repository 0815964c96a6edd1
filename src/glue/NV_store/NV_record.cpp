// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_record.h"
#include "glue/cds/Base_types.h"
#include "platform/crc32.h"
#include "util/bytes.h"

namespace NV_store {

Record_header Record_header::decode(const unsigned char* bytes) {
    return {bytes[0], bytes[1], Util::from_little_endian<unsigned short>(bytes + 2)};
}

void Record_header::encode(unsigned char* bytes) const {
    bytes[0] = type_byte;
    bytes[1] = marker;
    Util::to_little_endian(id, bytes + 2);
}

uint32_t record_crc_seed() {
    static const uint32_t seed = static_cast<uint32_t>(Util::crc32(0, "ZEW6", 4));
    return seed;
}

static Record_content value_of(Data_item::item_type_t type) {
    switch (type) {
    case Data_item::item_root:
    case Data_item::item_struct:
    case Data_item::item_container:
        return {Record_content::container, 0};
    case Data_item::item_pointer:
        return {Record_content::path, 2};
#define KAV_NUMBER(T, name, NAME)                                                                                      \
    case Data_item::item_##name:                                                                                       \
        return {Record_content::number, sizeof(T)};
        KAV_BASE_TYPES(KAV_NUMBER)
#undef KAV_NUMBER
    default:
        return {Record_content::unknown, 0};
    }
}

Record_content Record_content::of(unsigned char type_byte) {
    Data_item::class_type_t shape;
    Data_item::item_type_t type;
    Data_item::decode_type_byte(shape, type, type_byte);
    const Record_content value = value_of(type);
    if (shape == Data_item::class_value) return value;
    const bool has_arrays = value.kind == number && type != Data_item::item_uint64 && type != Data_item::item_int64;
    if (shape != Data_item::class_array || !has_arrays) return {unknown, 0};
    return {array, value.width};
}

int Record_content::value_size(const unsigned char* p, int n) const {
    if (kind == number) return width;
    if (!is_counted() || n < 1) return -1;
    if (kind == path && p[0] > max_path_ids) return -1;
    return 1 + p[0] * width;
}

} // namespace NV_store
