// SPDX-License-Identifier: MIT
#include "glue/cds/CDS_value_text.h"
#include "glue/cds/CDS_items.h"
#include "glue/cds/CDS_remote_values.h"
#include <charconv>
#include <type_traits>

namespace CDS::Remote {
namespace {

/// What a char counts as where it is a number.
template <class T>
using Number_of = std::conditional_t<std::is_same_v<T, char>, unsigned char, T>;

template <class T>
std::string text_of(T value) {
    if constexpr (std::is_same_v<T, bool>) {
        return value ? "true" : "false";
    } else {
        char text[32];
        const auto end = std::to_chars(text, text + sizeof text, static_cast<Number_of<T>>(value)).ptr;
        return std::string(text, end);
    }
}

template <class T>
bool parse(const std::string& text, T& value) {
    const char *from = text.data(), *const end = from + text.size();
    if constexpr (std::is_same_v<T, bool>) {
        value = text == "true" || text == "1";
        return value || text == "false" || text == "0";
    } else {
        if (from != end && *from == '+' && (end - from == 1 || from[1] != '-')) ++from;
        Number_of<T> number{};
        std::from_chars_result result{};
        if constexpr (std::is_floating_point_v<T>) {
            result = std::from_chars(from, end, number);
        } else {
            const bool hexadecimal = text.compare(static_cast<size_t>(from - text.data()), 2, "0x") == 0;
            result = std::from_chars(hexadecimal ? from + 2 : from, end, number, hexadecimal ? 16 : 10);
        }
        value = static_cast<T>(number);
        return result.ec == std::errc() && result.ptr == end;
    }
}

template <class T>
struct As {
    using type = T;
};

/// Call `operation` with the type that belongs to the code; false when there is none.
template <class Operation>
bool with_type(Data_item::item_type_t type, Operation operation) {
    switch (type) {
#define KAV_CASE(T, name, NAME)                                                                                        \
    case Data_item::item_##name:                                                                                       \
        return operation(As<T>());
        KAV_BASE_TYPES(KAV_CASE)
#undef KAV_CASE
    default:
        return false;
    }
}

} // namespace

const char* type_name(Data_item::item_type_t type) {
    const char* name = type == Data_item::item_struct || type == Data_item::item_root ? "struct" : "(unknown)";
    with_type(type, [&](auto as) {
        name = type_name_of<typename decltype(as)::type>();
        return true;
    });
    return name;
}

int value_width(Data_item::item_type_t type) {
    int width = 0;
    with_type(type, [&](auto as) {
        width = sizeof(typename decltype(as)::type);
        return true;
    });
    return width;
}

bool pop_text(Receive_buffer& in, Data_item::item_type_t type, std::string& text) {
    return with_type(type, [&](auto as) {
        typename decltype(as)::type value;
        if (!pop_value(in, value)) return false;
        text = text_of(value);
        return true;
    });
}

bool pop_number(Receive_buffer& in, Data_item::item_type_t type, double& number) {
    return with_type(type, [&](auto as) {
        typename decltype(as)::type value;
        if (!pop_value(in, value)) return false;
        number = static_cast<double>(static_cast<Number_of<decltype(value)>>(value));
        return true;
    });
}

bool append_text(Send_buffer& out, Data_item::item_type_t type, const std::string& text) {
    return with_type(type, [&](auto as) {
        typename decltype(as)::type value;
        if (!parse(text, value)) return false;
        append_value(out, value);
        return true;
    });
}

} // namespace CDS::Remote
