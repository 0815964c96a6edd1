// SPDX-License-Identifier: MIT
#include "glue/cds/Data_item_text.h"
#include "util/number_text.h"
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>

namespace {

constexpr int text_size = 32; ///< [bytes] holds the text of every type

template <class T>
int format_value(char* out, size_t size, T value) {
    if constexpr (std::is_same_v<T, bool>)
        return Util::format(out, size, "%s", value ? "true" : "false");
    else if constexpr (std::is_floating_point_v<T>)
        return Util::format(out, size, "%g", static_cast<double>(value));
    else if constexpr (std::is_same_v<T, unsigned long long>)
        return Util::format(out, size, "%llu", value);
    else if constexpr (std::is_same_v<T, long long>)
        return Util::format(out, size, "%lld", value);
    else if constexpr (std::is_same_v<T, char>)
        return Util::format(out, size, "%u", static_cast<unsigned>(static_cast<unsigned char>(value)));
    else if constexpr (std::is_unsigned_v<T>)
        return Util::format(out, size, "%u", static_cast<unsigned>(value));
    else
        return Util::format(out, size, "%d", static_cast<int>(value));
}

/// Converts into `value` whatever comes of it; `end` tells whether something was consumed.
template <class T>
void parse_value(const char* text, const char** end, T& value) {
    if constexpr (std::is_floating_point_v<T>) {
        value = static_cast<T>(Util::to_double(text, end));
    } else if constexpr (sizeof(T) == 8 && !std::is_same_v<T, long> && !std::is_same_v<T, unsigned long>) {
        char* behind;
        if constexpr (std::is_signed_v<T>)
            value = strtoll(text, &behind, 0);
        else
            value = strtoull(text, &behind, 0);
        *end = behind;
    } else if constexpr (std::is_unsigned_v<T> || std::is_same_v<T, char>) {
        value = static_cast<T>(Util::to_ulong32(text, 0, end));
    } else {
        value = static_cast<T>(Util::to_long32(text, 0, end));
    }
}

} // namespace

template <class T>
int Data_item_stringify<T>::to_string(char* buffer, int size) const {
    if (size <= 0) return 0;
    return format_value(buffer, static_cast<size_t>(size), *_value);
}

template <class T>
void Data_item_stringify<T>::print(const char* label, Debug::Dumper& dumper) const {
    char text[text_size];
    to_string(text, text_size);
    dumper.field(label, text);
}

template <class T>
const char* Data_item_destringify<T>::from_string(const char* text) {
    const char* end;
    if constexpr (std::is_same_v<T, bool>) {
        // One letter decides; what follows it is the caller's.
        if (*text && strchr("FNTYfnty", *text)) {
            *_value = strchr("TYty", *text) != nullptr;
            return text + 1;
        }
        const uint32_t number = Util::to_ulong32(text, 0, &end);
        if (end != text) *_value = number != 0;
    } else {
        parse_value(text, &end, *_value);
    }
    return end == text ? nullptr : end;
}

#define KAV_INSTANTIATE(T, ...)                                                                                        \
    template class Data_item_stringify<T>;                                                                             \
    template class Data_item_destringify<T>;
KAV_DATA_ITEM_TYPES(KAV_INSTANTIATE)
#undef KAV_INSTANTIATE

void Data_item_array_stringify<char>::print(const char* label, Debug::Dumper& dumper) const {
    const size_t room = _capacity > 0 ? static_cast<size_t>(_capacity) : 0;
    const std::string text = '"' + std::string(_array, strnlen(_array, room)) + '"';
    dumper.field(label, text.c_str());
}

const char* Data_item_array_destringify<char>::from_string(const char* text) {
    if (*text != '[') return nullptr;
    ++text;
    int n = 0;
    for (; n < _capacity && *text && *text != ']'; ++n) _array[n] = *text++;
    for (; n < _capacity; ++n) _array[n] = 0;
    return text[0] == ']' && text[1] == 0 ? text + 1 : nullptr;
}
