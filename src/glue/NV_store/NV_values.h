// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_iterator.h"
#include "glue/cds/Base_types.h"
#include <charconv>
#include <string>
#include <type_traits>

/// What belongs to each base type of a setting, for code that learns the type from a type code at run time.
namespace NV_store {

template <class T, Data_item::item_type_t code>
struct Base_type {
    using Value = T;
    static constexpr Data_item::item_type_t type = code;
};

/// What `f` makes of the Base_type that a code stands for; `otherwise` for a code that stands for none.
template <class Result, class Function>
Result with_base_type(Data_item::item_type_t code, Result otherwise, Function f) {
    switch (code) {
#define KAV_CASE(T, name, NAME)                                                                                        \
    case Data_item::item_##name:                                                                                       \
        return f(Base_type<T, Data_item::item_##name>());
        KAV_BASE_TYPES(KAV_CASE)
#undef KAV_CASE
    default:
        return otherwise;
    }
}

// The iterator operations that belong to a type.
#define KAV_OPERATIONS(T, name, NAME)                                                                                  \
    inline bool push_value(NV_iterator& it, T v) { return it.push_##name(v); }                                         \
    inline bool pop_value(NV_iterator& it, T& v) { return it.pop_##name(v); }
KAV_BASE_TYPES(KAV_OPERATIONS)
#undef KAV_OPERATIONS

/// The shortest text from which the same value can be read. A char is its code, 0..255.
template <class T>
std::string value_text(T value) {
    if constexpr (std::is_same_v<T, bool>) {
        return value ? "true" : "false";
    } else if constexpr (std::is_same_v<T, char>) {
        return value_text(static_cast<unsigned char>(value));
    } else {
        char text[32];
        return std::string(text, std::to_chars(text, text + sizeof text, value).ptr);
    }
}

} // namespace NV_store
