// SPDX-License-Identifier: MIT
#include "glue/cds/Value_type.h"
#include "glue/cds/CDS_remote.h"
#include "util/bytes.h"
#include "util/number_text.h"
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <type_traits>

using Util::from_bits;
using Util::to_bits;

namespace {

/// How an object lies in memory, in the processor's own order.
template <class Function>
void with_object(int size, Function f) {
    switch (size) {
    case 1:
        return f(uint8_t{});
    case 2:
        return f(uint16_t{});
    case 4:
        return f(uint32_t{});
    case 8:
        return f(uint64_t{});
    }
}

template <class T>
bool read_floating(std::string_view text, uint64_t& bits) {
    T value{};
    const char* const end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, value);
    bits = to_bits(value);
    return result.ec == std::errc() && result.ptr == end;
}

} // namespace

// ---- what the types are

int Value_type::width() const {
    switch (_code) {
#define KAV_WIDTH(T, name, NAME)                                                                                       \
    case Data_item::item_##name:                                                                                       \
        return sizeof(T);
        KAV_BASE_TYPES(KAV_WIDTH)
#undef KAV_WIDTH
    default:
        return 0;
    }
}

bool Value_type::is_signed() const {
    switch (_code) {
#define KAV_SIGNED(T, name, NAME)                                                                                      \
    case Data_item::item_##name:                                                                                       \
        return std::is_integral_v<T> && std::is_signed_v<T> && !std::is_same_v<T, char>;
        KAV_BASE_TYPES(KAV_SIGNED)
#undef KAV_SIGNED
    default:
        return false;
    }
}

uint64_t Value_type::extended(uint64_t bits) const {
    if (is_bool()) return bits != 0;
    const int unused = 64 - 8 * width();
    return is_signed() ? static_cast<uint64_t>(static_cast<int64_t>(bits << unused) >> unused)
                       : bits << unused >> unused;
}

uint64_t Value_type::max() const { return is_bool() ? 1 : ~uint64_t{0} >> (64 - 8 * width() + (is_signed() ? 1 : 0)); }

uint64_t Value_type::min() const { return is_signed() ? ~max() : 0; }

// ---- objects

uint64_t Value_type::get(const void* place) const {
    uint64_t bits = 0;
    with_object(_size, [&](auto object) {
        memcpy(&object, place, sizeof object);
        bits = object;
    });
    return extended(bits);
}

void Value_type::put(void* place, uint64_t bits) const {
    with_object(_size, [&](auto object) {
        object = static_cast<decltype(object)>(bits);
        memcpy(place, &object, sizeof object);
    });
}

double Value_type::number(uint64_t bits) const {
    if (_code == Data_item::item_double) return from_bits<double>(bits);
    if (_code == Data_item::item_float) return static_cast<double>(from_bits<float>(bits));
    return is_signed() ? static_cast<double>(static_cast<int64_t>(bits)) : static_cast<double>(bits);
}

// ---- text

int Value_type::to_string(uint64_t bits, char* buffer, int size) const {
    if (size <= 0) return 0;
    const size_t room = static_cast<size_t>(size);
    if (is_bool()) return Util::format(buffer, room, "%s", bits ? "true" : "false");
    if (is_floating()) return Util::format(buffer, room, "%g", number(bits));
    return Util::format(buffer, room, is_signed() ? "%lld" : "%llu", static_cast<unsigned long long>(bits));
}

void Value_type::print(uint64_t bits, const char* label, Debug::Dumper& dumper) const {
    char text[32]; // holds that of every type
    to_string(bits, text, sizeof text);
    dumper.field(label, text);
}

const char* Value_type::from_string(void* place, const char* text) const {
    const char* end;
    uint64_t bits;
    if (is_bool()) {
        // One letter decides; what follows it is the caller's.
        if (*text && strchr("FNTYfnty", *text)) {
            put(place, strchr("TYty", *text) != nullptr);
            return text + 1;
        }
        bits = Util::to_ulong32(text, 0, &end) != 0;
        if (end == text) return nullptr;
    } else if (is_floating()) {
        const double value = Util::to_double(text, &end);
        bits = _code == Data_item::item_double ? to_bits(value) : to_bits(static_cast<float>(value));
    } else if (width() == 8) {
        char* behind;
        bits = is_signed() ? to_bits(strtoll(text, &behind, 0)) : strtoull(text, &behind, 0);
        end = behind;
    } else {
        bits = is_signed() ? to_bits(Util::to_long32(text, 0, &end)) : Util::to_ulong32(text, 0, &end);
    }
    put(place, bits);
    return end == text ? nullptr : end;
}

std::string Value_type::text(uint64_t bits) const {
    if (is_bool()) return bits ? "true" : "false";
    char text[32], *const end = text + sizeof text;
    std::to_chars_result result{};
    if (_code == Data_item::item_float)
        result = std::to_chars(text, end, from_bits<float>(bits));
    else if (_code == Data_item::item_double)
        result = std::to_chars(text, end, from_bits<double>(bits));
    else if (is_signed())
        result = std::to_chars(text, end, static_cast<int64_t>(bits));
    else
        result = std::to_chars(text, end, bits);
    return std::string(text, result.ptr);
}

bool Value_type::read(std::string_view text, uint64_t& bits) const {
    if (_code == Data_item::item_float) return read_floating<float>(text, bits);
    if (_code == Data_item::item_double) return read_floating<double>(text, bits);
    if (is_bool()) {
        bits = text == "true" || text == "1";
        return bits || text == "false" || text == "0";
    }
    const bool hexadecimal = text.substr(0, 2) == "0x" || text.substr(0, 2) == "0X";
    const bool negative = is_signed() && text.substr(0, 1) == "-";
    if (hexadecimal || negative) text.remove_prefix(hexadecimal ? 2 : 1);
    const char* const end = text.data() + text.size();
    uint64_t magnitude = 0;
    const std::from_chars_result result = std::from_chars(text.data(), end, magnitude, hexadecimal ? 16 : 10);
    if (result.ec != std::errc() || result.ptr != end) return false;
    bits = negative ? 0 - magnitude : magnitude;
    return magnitude <= (negative ? 0 - min() : max());
}

// ---- remote format

void Value_type::append(CDS::Remote::Send_buffer& out, uint64_t bits) const {
    if (width() > 0) out.append_bits(bits, width());
}

bool Value_type::pop(CDS::Remote::Receive_buffer& in, uint64_t& bits) const {
    if (width() == 0 || !in.pop_bits(bits, width())) return false;
    bits = extended(bits);
    return true;
}
