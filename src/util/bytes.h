// SPDX-License-Identifier: MIT
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

/// Numbers as bytes in a stated order, whatever the processor's own: what leaves the process is the same everywhere.
/// `p` may have any alignment. T is an integer, float or double (IEEE 754; every bit pattern, NaNs included, goes
/// through unchanged). A `width` below T's own [bytes] leaves out the high bytes and extends no sign.
namespace Util {

namespace bytes_detail {

template <std::size_t size>
using Bits =
    std::conditional_t<size == 1, uint8_t,
                       std::conditional_t<size == 2, uint16_t, std::conditional_t<size == 4, uint32_t, uint64_t>>>;

// Written out for each byte: the compilers then make one load or store of them, which they do not of a loop.

template <class B, std::size_t... i>
B gather(const unsigned char* p, bool big, std::index_sequence<i...>) {
    using Wide = std::conditional_t<sizeof(B) == 8, uint64_t, uint32_t>;
    return static_cast<B>(((Wide(p[big ? sizeof...(i) - 1 - i : i]) << 8 * i) | ...));
}

template <class B, std::size_t... i>
void scatter(B bits, unsigned char* p, bool big, std::index_sequence<i...>) {
    ((p[big ? sizeof...(i) - 1 - i : i] = static_cast<unsigned char>(bits >> 8 * i)), ...);
}

template <class T, std::size_t width>
T load(const unsigned char* p, bool big) {
    static_assert(width <= sizeof(T) && sizeof(Bits<sizeof(T)>) == sizeof(T));
    const auto bits = gather<Bits<sizeof(T)>>(p, big, std::make_index_sequence<width>());
    T value;
    memcpy(&value, &bits, sizeof value);
    return value;
}

template <class T, std::size_t width>
void store(T value, unsigned char* p, bool big) {
    static_assert(width <= sizeof(T) && sizeof(Bits<sizeof(T)>) == sizeof(T));
    Bits<sizeof(T)> bits;
    memcpy(&bits, &value, sizeof bits);
    scatter(bits, p, big, std::make_index_sequence<width>());
}

} // namespace bytes_detail

template <class T, std::size_t width = sizeof(T)>
T from_little_endian(const unsigned char* p) {
    return bytes_detail::load<T, width>(p, false);
}

template <class T, std::size_t width = sizeof(T)>
T from_big_endian(const unsigned char* p) {
    return bytes_detail::load<T, width>(p, true);
}

template <class T, std::size_t width = sizeof(T)>
void to_little_endian(T value, unsigned char* p) {
    bytes_detail::store<T, width>(value, p, false);
}

template <class T, std::size_t width = sizeof(T)>
void to_big_endian(T value, unsigned char* p) {
    bytes_detail::store<T, width>(value, p, true);
}

/// A number as 64 bits, and back: an integer extended with its sign, a char as its code, 0..255; float and double by
/// their bit patterns. Back, what is above T is cut off; a bool is whether there is any bit.
template <class T>
uint64_t to_bits(T value) {
    if constexpr (std::is_floating_point_v<T>) {
        bytes_detail::Bits<sizeof(T)> bits;
        memcpy(&bits, &value, sizeof bits);
        return bits;
    } else if constexpr (std::is_same_v<T, char>) {
        return static_cast<unsigned char>(value);
    } else {
        return static_cast<uint64_t>(value);
    }
}

template <class T>
T from_bits(uint64_t bits) {
    if constexpr (std::is_floating_point_v<T>) {
        const auto own = static_cast<bytes_detail::Bits<sizeof(T)>>(bits);
        T value;
        memcpy(&value, &own, sizeof value);
        return value;
    } else {
        return static_cast<T>(bits);
    }
}

/// The same for a width that is known at run time: 1, 2, 4 or 8 [bytes]. Reading extends no sign.
inline uint64_t bits_from_little_endian(const unsigned char* p, int width) {
    switch (width) {
    case 1:
        return *p;
    case 2:
        return from_little_endian<uint16_t>(p);
    case 4:
        return from_little_endian<uint32_t>(p);
    default:
        return from_little_endian<uint64_t>(p);
    }
}

inline void bits_to_little_endian(uint64_t bits, unsigned char* p, int width) {
    switch (width) {
    case 1:
        *p = static_cast<unsigned char>(bits);
        break;
    case 2:
        to_little_endian(static_cast<uint16_t>(bits), p);
        break;
    case 4:
        to_little_endian(static_cast<uint32_t>(bits), p);
        break;
    default:
        to_little_endian(bits, p);
    }
}

} // namespace Util
