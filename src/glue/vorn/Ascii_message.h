// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <cstdint>

class Binary_message;

/// A view of a caller's text as fields between commas. It owns nothing; copying it copies pointer and size. No lock.
///
/// Field k, counted from 0, is what follows the k-th comma (field 0 the start of the text) and any "{" there; it ends
/// at the next "," or "}", whichever comes first, else at the end of the text. So "{a,{{b},,c" has the fields "a", "b",
/// an empty one and "c". The text ends after `size` characters or at a zero byte before that; nothing behind is read.
/// Numbers are read from the first 63 characters of a field, in the C locale. No cost but the walk to the field.
class KAV_API Ascii_message {
public:
    Ascii_message(char* characters, uint32_t n) : text(characters), size(n) {}
    /// The text of a message: all its bytes, or, to `skip` a header, those from the seventh on (none when there are
    /// fewer).
    Ascii_message(const Binary_message& m, bool skip);
    Ascii_message(const Ascii_message&) = default;
    Ascii_message& operator=(const Ascii_message&) = default;
    virtual ~Ascii_message();

    /// True when the text is empty: its first character is a zero or not there.
    bool isnull() const;
    /// Fill with zeros.
    void zap();
    /// The first `c` from `from` on; null when there is none before `size` or `from` does not point into the text.
    char* strchr(const char* from, char c) const;

    /// Where field `k` begins; null when there are not so many. The field of a text that ends in a comma begins behind
    /// the last character: ask get_char() or get_string() for what is there.
    char* get_field(int k) const;
    bool field_exists(int k) const { return get_field(k) != nullptr; }
    /// The first character of the field, which is that of its end for an empty one; 0 when there is none.
    char get_char(int k) const;
    /// The field and its length [bytes]; null and 0 when it does not exist. Not ended by a zero.
    char* get_string(int k, int& len) const;
    /// True when the field exists and does not begin with a comma.
    bool is_field_valid(int k) const;
    /// How many fields from field 0 on are valid in a row.
    int get_num_valid_fields() const;

    /// The number at the start of the field, behind white space; 0 when there is none. Integers beyond 32 bits become
    /// the nearest limit.
    double get_double(int k) const;
    uint32_t get_uint32(int k) const;
    int32_t get_int32(int k) const;
    /// The field as a duration [s], see parse_timeval.
    int32_t get_timeval(int k) const;
    /// A duration [s] such as "1d2h3m4s": days, hours and minutes, each of which may be missing, and seconds. 0 for
    /// anything else. What follows the "s" does not matter. `len` [bytes], at most 63 are looked at.
    static int32_t parse_timeval(const char* characters, int len);

    /// True when the text begins as `name` does, over `n` characters, over all of `name` when `n` is negative. What
    /// would lie beyond `size` is not compared: the text "AB" matches the name "ABC".
    bool name_match(const char* name, int n = -1) const;

    /// Move field `k` and everything behind it to the start. Neither is a zero put behind nor `size` changed: from
    /// "a,b,cd" field 1 gives "b,cdcd". False, and nothing moved, when the field does not exist.
    bool shift_fields(int k);
    /// Copy the text into `dst`, which the view then shows. A text that is shorter than `dst_size` - 1 keeps its size;
    /// else the size becomes `dst_size` (missing characters are zeros). The zero behind the text then lands at
    /// `dst[dst_size]`: `dst` must have that one byte more.
    void setup(char* dst, uint32_t dst_size);
    /// Fill with zeros, then copy the message's text, taken as by the constructor, up to a zero byte and as far as the
    /// room goes.
    void set(const Binary_message& m, bool skip);

    char* text;    ///< not owned
    uint32_t size; ///< [bytes]

private:
    char* end() const;
    char* field_end(char* field) const;
};
