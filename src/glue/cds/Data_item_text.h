// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/Value_type.h"
#include "util/Debug_dumper.h"
#include "util/api.h"

/// One typed value as text. Holds a pointer to the caller's value and owns nothing.
///
/// T is one of bool, char, the signed and unsigned integers up to long long, float and double. A char is shown as its
/// code, 0..255. `long` counts as 32 bits. Floating text is that of the C locale ("%g").
template <class T>
class Data_item_stringify {
public:
    explicit Data_item_stringify(const T* value) : _value(value) {}

    /// Writes at most `size` bytes with the zero (nothing for 0 and less); returns the length the whole text has.
    int to_string(char* buffer, int size) const { return type.to_string(type.get(_value), buffer, size); }
    /// One field of the dumper: the label and the text.
    void print(const char* label, Debug::Dumper& dumper) const { type.print(type.get(_value), label, dumper); }

private:
    static constexpr Value_type type = Value_type::of<T>();
    const T* _value;
};

/// One typed value from text.
template <class T>
class Data_item_destringify {
public:
    explicit Data_item_destringify(T* value) : _value(value) {}

    /// Returns the position behind what was read, null when nothing could be read: the numeric forms then store 0, so
    /// whoever must keep the old value reads into a temporary. Integers may be decimal, "0x.." or "0..", saturate at 32
    /// bits (64 for long long) and are then cut to the type. A bool is read from its first letter alone (F N T Y,
    /// either case), else as a number; what is neither leaves the value.
    const char* from_string(const char* text) { return Value_type::of<T>().from_string(_value, text); }

private:
    T* _value;
};

/// A char array of fixed capacity as text in double quotes, up to its first zero.
template <class T>
class Data_item_array_stringify;
template <>
class KAV_API Data_item_array_stringify<char> {
public:
    Data_item_array_stringify(const char* array, int capacity) : _array(array), _capacity(capacity) {}
    void print(const char* label, Debug::Dumper& dumper) const;

private:
    const char* _array;
    int _capacity;
};

/// A char array of fixed capacity from text in brackets: "[abc]".
template <class T>
class Data_item_array_destringify;
template <>
class KAV_API Data_item_array_destringify<char> {
public:
    Data_item_array_destringify(char* array, int capacity) : _array(array), _capacity(capacity) {}
    /// The position of the text's end, or null: no bracket, more than `capacity` characters, or text behind the
    /// bracket. From the opening bracket on the array has been written all the same: the rest of it is zero, and a text
    /// that fills it leaves no terminator.
    const char* from_string(const char* text);

private:
    char* _array;
    int _capacity;
};
