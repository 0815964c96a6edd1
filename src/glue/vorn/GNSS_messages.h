// SPDX-License-Identifier: MIT
#pragma once
#include "glue/vorn/Vorn_message.h"
#include "util/api.h"
#include <cstdint>

/// The messages of the receiver: for each an identifier (`id_PG`), and for those with binary fields a view class
/// (`Msg_PG`) with one accessor per field. GNSS_catalogue.h lists them with offsets, types and units.
///
///     GNSS_messages::Msg_PG position(frame);
///     use(position.lat(), position.lon()); // [rad]
///
/// A view is built from a frame by copying pointer and size; it owns nothing and checks neither identifier nor
/// checksum. A field beyond the frame reads as 0. No lock, no allocation.
namespace GNSS_messages {

using u1 = uint8_t;
using i1 = int8_t;
using u2 = uint16_t;
using i2 = int16_t;
using u4 = uint32_t;
using i4 = int32_t;
using f4 = float;
using f8 = double;

enum class Type : uint8_t { as_u1, as_i1, as_u2, as_i2, as_u4, as_i4, as_f4, as_f8 };
enum class Form : uint8_t { fields, array, text };

/// Two identifier characters as the 16-bit number that frames are told apart by.
constexpr uint16_t identifier(const char (&wire)[3]) {
    return static_cast<uint16_t>(static_cast<unsigned char>(wire[0]) | static_cast<unsigned char>(wire[1]) << 8);
}

enum Identifier : uint16_t {
#define GNSS_EACH(name, wire) id_##name = identifier(wire),
#include "glue/vorn/GNSS_catalogue.h"
};

/// One field of a message, or the element of an array.
struct Field {
    const char* name; ///< null behind the last field
    const char* unit; ///< empty for counts, ratios and codes
    uint16_t offset;  ///< [bytes] from the start of the frame
    Type type;
    uint8_t count; ///< 1, or 2 for a pair; 0 for the element of an array: as many as the frame holds
};

/// What the catalogue knows about a message.
struct Info {
    uint16_t id;
    Form form;
    uint16_t min_length; ///< [bytes] of the whole frame with its checksum, without line ends
    uint16_t max_length; ///< [bytes] equal to min_length for messages of fixed layout
    const char* name;    ///< of the class, without "Msg_"
    const char* wire;    ///< the two characters sent
    const char* about;
    const Field* fields;  ///< in the order of their offsets; the last one has no name
    const char* labelled; ///< printed line for people; of an array one element; null for texts
    const char* comma;    ///< the same for logs
};

/// The catalogue's entry of an identifier, null when it has none. Constant time.
KAV_API const Info* find(uint16_t id);
/// False for the texts of the catalogue: whether one is damaged cannot be told, and check_checksum() means nothing.
KAV_API bool has_checksum(uint16_t id);
/// All entries; their number goes to `n`.
KAV_API const Info* catalogue(int& n);

template <class T>
T read(const Binary_message& m, uint32_t offset);
// clang-format off
template <> inline u1 read<u1>(const Binary_message& m, uint32_t offset) { return m.get_uint8(offset); }
template <> inline i1 read<i1>(const Binary_message& m, uint32_t offset) { return m.get_int8(offset); }
template <> inline u2 read<u2>(const Binary_message& m, uint32_t offset) { return m.get_uint16_le(offset); }
template <> inline i2 read<i2>(const Binary_message& m, uint32_t offset) { return m.get_int16_le(offset); }
template <> inline u4 read<u4>(const Binary_message& m, uint32_t offset) { return m.get_uint32_le(offset); }
template <> inline i4 read<i4>(const Binary_message& m, uint32_t offset) { return m.get_int32_le(offset); }
template <> inline f4 read<f4>(const Binary_message& m, uint32_t offset) { return m.get_float(offset); }
template <> inline f8 read<f8>(const Binary_message& m, uint32_t offset) { return m.get_double(offset); }
// clang-format on

/// The i-th of at most `n` values side by side; 0 for any other index.
template <class T>
T read_indexed(const Binary_message& m, uint32_t first, int i, int n) {
    if (i < 0 || i >= n) return 0;
    return read<T>(m, first + static_cast<uint32_t>(i) * static_cast<uint32_t>(sizeof(T)));
}

constexpr char element_labelled[] = " %d"; ///< how both forms print an element of an array
constexpr char element_comma[] = ",%d";
constexpr int body_offset = Vorn_message::header_size; ///< [bytes]
constexpr int max_elements = Vorn_message::max_body;   ///< more than any body holds

#define GNSS_FIELD(offset, type, name, unit)                                                                           \
    type name() const { return read<type>(*this, offset); }
#define GNSS_PAIR(offset, type, name, unit)                                                                            \
    type name(int i) const { return read_indexed<type>(*this, offset, i, 2); }
#define GNSS_MESSAGE(name, wire, about, field_list, ...)                                                               \
    class KAV_API Msg_##name : public Vorn_message {                                                                   \
    public:                                                                                                            \
        explicit Msg_##name(const Vorn_message& m) : Vorn_message(m.data, m.size) {}                                   \
        field_list                                                                                                     \
    };
// get(): the i-th element as sent. count(): how many the body length promises.
#define GNSS_ARRAY(name, wire, about, type, unit, spare, scale)                                                        \
    class KAV_API Msg_##name : public Vorn_message {                                                                   \
    public:                                                                                                            \
        explicit Msg_##name(const Vorn_message& m) : Vorn_message(m.data, m.size) {}                                   \
        type get(int i) const { return read_indexed<type>(*this, body_offset, i, max_elements); }                      \
        int count() const {                                                                                            \
            const int n = static_cast<int>(get_msg_len()) - spare;                                                     \
            return n > 0 ? n : 0;                                                                                      \
        }                                                                                                              \
        bool too_short() const { return static_cast<int>(get_msg_len()) < spare; }                                     \
    };
#include "glue/vorn/GNSS_catalogue.h"

} // namespace GNSS_messages
