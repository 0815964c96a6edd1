// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_record.h"
#include "glue/cds/Base_types.h"
#include "platform/crc32.h"

namespace NV_store {

uint32_t record_crc_seed() {
    static const uint32_t seed = static_cast<uint32_t>(Util::crc32(0, "ZEW6", 4));
    return seed;
}

namespace {

constexpr Record_content value_of(Data_item::item_type_t type) {
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

constexpr Record_content content_of(unsigned char type_byte) {
    Data_item::class_type_t shape{};
    Data_item::item_type_t type{};
    Data_item::decode_type_byte(shape, type, type_byte);
    const Record_content value = value_of(type);
    if (shape == Data_item::class_value) return value;
    const bool has_arrays =
        value.kind == Record_content::number && type != Data_item::item_uint64 && type != Data_item::item_int64;
    if (shape != Data_item::class_array || !has_arrays) return {Record_content::unknown, 0};
    return {Record_content::array, value.width};
}

/// Made once: a scan looks at every record.
struct Contents {
    constexpr Contents() : of() {
        for (unsigned type_byte = 0; type_byte < 256; ++type_byte)
            of[type_byte] = content_of(static_cast<unsigned char>(type_byte));
    }
    Record_content of[256];
};
constexpr Contents contents;

} // namespace

Record_content Record_content::of(unsigned char type_byte) { return contents.of[type_byte]; }

} // namespace NV_store
