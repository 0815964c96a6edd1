// SPDX-License-Identifier: MIT
#include "glue/vorn/GNSS_messages.h"

namespace GNSS_messages {
namespace {

#define GNSS_FIELD(offset, type, name, unit) {#name, unit, offset, Type::as_##type, 1},
#define GNSS_PAIR(offset, type, name, unit) {#name, unit, offset, Type::as_##type, 2},
#define GNSS_MESSAGE(name, wire, about, field_list, ...)                                                               \
    constexpr Field fields_##name[] = {field_list{nullptr, nullptr, 0, Type::as_u1, 0}};
#define GNSS_ARRAY(name, wire, about, type, unit, ...)                                                                 \
    constexpr Field fields_##name[] = {{"element", unit, body_offset, Type::as_##type, 0},                             \
                                       {nullptr, nullptr, 0, Type::as_u1, 0}};
#include "glue/vorn/GNSS_catalogue.h"

constexpr Field no_fields[] = {{nullptr, nullptr, 0, Type::as_u1, 0}};

constexpr int width(Type t) {
    constexpr int widths[] = {1, 1, 2, 2, 4, 4, 4, 8};
    return widths[static_cast<int>(t)];
}

/// [bytes] of a whole frame whose body holds just these fields and the checksum.
constexpr uint16_t frame_length(const Field* f) {
    int end = body_offset;
    for (; f->name; ++f) end = f->offset + f->count * width(f->type);
    return static_cast<uint16_t>(end + 1);
}

/// True when the fields follow one another without a gap.
constexpr bool gapless(const Field* f) {
    int end = body_offset;
    for (; f->name; ++f) {
        if (f->offset != end) return false;
        end += f->count * width(f->type);
    }
    return true;
}

#define GNSS_MESSAGE(name, ...) static_assert(gapless(fields_##name), "wrong offset in message " #name);
#include "glue/vorn/GNSS_catalogue.h"

constexpr uint16_t longest = body_offset + max_elements;

// clang-format off
constexpr Info entries[] = {
#define GNSS_FIRST(first, ...) first
#define GNSS_MESSAGE(name, wire, about, field_list, labelled, ...)                                                     \
    {id_##name, Form::fields, frame_length(fields_##name), frame_length(fields_##name), #name, wire, about,            \
     fields_##name, labelled, GNSS_FIRST(__VA_ARGS__, )},
#define GNSS_ARRAY(name, wire, about, type, unit, spare, scale)                                                        \
    {id_##name, Form::array, body_offset + spare, longest, #name, wire, about,                                         \
     fields_##name, element_labelled, element_comma},
#define GNSS_TEXT(name, wire, about)                                                                                   \
    {id_##name, Form::text, body_offset, longest, #name, wire, about, no_fields, nullptr, nullptr},
#include "glue/vorn/GNSS_catalogue.h"
#undef GNSS_FIRST
};
// clang-format on

enum Index {
#define GNSS_EACH(name, wire) index_##name,
#include "glue/vorn/GNSS_catalogue.h"
};

} // namespace

const Info* find(uint16_t id) {
    switch (id) {
#define GNSS_EACH(name, wire)                                                                                          \
    case id_##name:                                                                                                    \
        return &entries[index_##name];
#include "glue/vorn/GNSS_catalogue.h"
    }
    return nullptr;
}

bool has_checksum(uint16_t id) {
    const Info* const info = find(id);
    return !info || info->form != Form::text;
}

const Info* catalogue(int& n) {
    n = sizeof entries / sizeof *entries;
    return entries;
}

} // namespace GNSS_messages
