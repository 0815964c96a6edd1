// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_iterator.h"
#include "glue/NV_store/NV_number.h"
#include <charconv>
#include <string>
#include <type_traits>

/// What belongs to each base type of a setting, for code that learns the type from a type code at run time.
namespace NV_store {

template <class T, Data_item::item_type_t code>
struct Base_type {
    using Value = T;
    using Number = NV_number<T, code>;
};

/// What `f` makes of the Base_type that a code stands for; `otherwise` for a code that stands for none.
template <class Result, class Function>
Result with_base_type(Data_item::item_type_t code, Result otherwise, Function f) {
    switch (code) {
    case Data_item::item_bool:
        return f(Base_type<bool, Data_item::item_bool>());
    case Data_item::item_char:
        return f(Base_type<char, Data_item::item_char>());
    case Data_item::item_uint8:
        return f(Base_type<unsigned char, Data_item::item_uint8>());
    case Data_item::item_uint16:
        return f(Base_type<unsigned short, Data_item::item_uint16>());
    case Data_item::item_uint32:
        return f(Base_type<unsigned int, Data_item::item_uint32>());
    case Data_item::item_int8:
        return f(Base_type<signed char, Data_item::item_int8>());
    case Data_item::item_int16:
        return f(Base_type<short, Data_item::item_int16>());
    case Data_item::item_int32:
        return f(Base_type<int, Data_item::item_int32>());
    case Data_item::item_float:
        return f(Base_type<float, Data_item::item_float>());
    case Data_item::item_double:
        return f(Base_type<double, Data_item::item_double>());
    case Data_item::item_uint64:
        return f(Base_type<unsigned long long, Data_item::item_uint64>());
    case Data_item::item_int64:
        return f(Base_type<long long, Data_item::item_int64>());
    default:
        return otherwise;
    }
}

// The iterator operations that belong to a type.
inline bool push_value(NV_iterator& it, bool v) { return it.push_bool(v); }
inline bool push_value(NV_iterator& it, char v) { return it.push_char(v); }
inline bool push_value(NV_iterator& it, unsigned char v) { return it.push_uint8(v); }
inline bool push_value(NV_iterator& it, unsigned short v) { return it.push_uint16(v); }
inline bool push_value(NV_iterator& it, unsigned int v) { return it.push_uint32(v); }
inline bool push_value(NV_iterator& it, signed char v) { return it.push_int8(v); }
inline bool push_value(NV_iterator& it, short v) { return it.push_int16(v); }
inline bool push_value(NV_iterator& it, int v) { return it.push_int32(v); }
inline bool push_value(NV_iterator& it, float v) { return it.push_float(v); }
inline bool push_value(NV_iterator& it, double v) { return it.push_double(v); }
inline bool push_value(NV_iterator& it, unsigned long long v) { return it.push_uint64(v); }
inline bool push_value(NV_iterator& it, long long v) { return it.push_int64(v); }
inline bool pop_value(NV_iterator& it, bool& v) { return it.pop_bool(v); }
inline bool pop_value(NV_iterator& it, char& v) { return it.pop_char(v); }
inline bool pop_value(NV_iterator& it, unsigned char& v) { return it.pop_uint8(v); }
inline bool pop_value(NV_iterator& it, unsigned short& v) { return it.pop_uint16(v); }
inline bool pop_value(NV_iterator& it, unsigned int& v) { return it.pop_uint32(v); }
inline bool pop_value(NV_iterator& it, signed char& v) { return it.pop_int8(v); }
inline bool pop_value(NV_iterator& it, short& v) { return it.pop_int16(v); }
inline bool pop_value(NV_iterator& it, int& v) { return it.pop_int32(v); }
inline bool pop_value(NV_iterator& it, float& v) { return it.pop_float(v); }
inline bool pop_value(NV_iterator& it, double& v) { return it.pop_double(v); }
inline bool pop_value(NV_iterator& it, unsigned long long& v) { return it.pop_uint64(v); }
inline bool pop_value(NV_iterator& it, long long& v) { return it.pop_int64(v); }

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
