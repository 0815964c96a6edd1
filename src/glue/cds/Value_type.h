// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/Base_types.h"
#include "util/Debug_dumper.h"
#include "util/api.h"
#include <cstdint>
#include <string>
#include <string_view>

namespace CDS::Remote {
class Send_buffer;
class Receive_buffer;
} // namespace CDS::Remote

/// A base type as its code tells it at run time: what values of all types have in common stands here once, and in the
/// templates only what needs the type itself. A plain value, two bytes.
///
/// `place` is the address of an object of the type; `bits` are its value as Util::to_bits() makes them.
class KAV_API Value_type {
public:
    template <class T>
    static constexpr Value_type of() {
        return {Base_type_of<T>::code, sizeof(T)};
    }
    /// The type of a code; one without values, whose width is 0, for a code that has none.
    explicit Value_type(Data_item::item_type_t type) : Value_type(type, 0) {
        _size = static_cast<unsigned char>(width());
    }

    Data_item::item_type_t code() const { return _code; }
    unsigned size() const { return _size; } ///< [bytes] of an object
    int width() const;                      ///< [bytes] of a value in an image and in the remote format
    bool is_bool() const { return _code == Data_item::item_bool; }
    bool is_floating() const { return _code == Data_item::item_float || _code == Data_item::item_double; }
    bool is_signed() const; ///< a whole number that may be negative

    uint64_t get(const void* place) const;
    void put(void* place, uint64_t bits) const;
    double number(uint64_t bits) const; ///< a large integer is rounded

    /// The text of Data_item_stringify: at most `size` bytes with the zero; the length of the whole text.
    int to_string(uint64_t bits, char* buffer, int size) const;
    void print(uint64_t bits, const char* label, Debug::Dumper& dumper) const;
    /// What Data_item_destringify reads, and its result.
    const char* from_string(void* place, const char* text) const;

    /// The shortest text from which the same value can be read. A char is its code, 0..255.
    std::string text(uint64_t bits) const;
    /// The value that takes the whole text: a number of the type's range, in decimal or, an integer, behind "0x". False
    /// when it is none.
    bool read(std::string_view text, uint64_t& bits) const;
    uint64_t min() const; ///< of an integer type
    uint64_t max() const;

    /// The remote format. pop() is false when too few bytes remain, and nothing changed then.
    void append(CDS::Remote::Send_buffer& out, uint64_t bits) const;
    bool pop(CDS::Remote::Receive_buffer& in, uint64_t& bits) const;
    /// The bits of a value that was read as `width()` bytes.
    uint64_t extended(uint64_t bits) const;

private:
    constexpr Value_type(Data_item::item_type_t code, unsigned size)
        : _code(code), _size(static_cast<unsigned char>(size)) {}

    Data_item::item_type_t _code;
    unsigned char _size; ///< [bytes] of an object: 8 where a `long`, whose values have 32 bits, has 64
};
