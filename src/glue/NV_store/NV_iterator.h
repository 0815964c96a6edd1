// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_record.h"
#include "util/api.h"
#include "util/bytes.h"
#include "util/sl_list.h"
#include <cstdint>

/// The settings store: a tree of named, typed settings that survive power loss.
namespace NV_store {

/// Carries the bytes of a save or a load, and lets checksums watch them pass. Integers are little-endian on every
/// processor. One thread at a time.
class KAV_API NV_iterator {
public:
    /// What a save writes: everything that was loaded or set (mode_write), or what changed since the last save.
    enum modes_t { mode_closed = 0, mode_read = 1, mode_write = 2, mode_journal_1 = 3, mode_journal_2 = 4 };
    using NV_iterator_header = Record_header;

    /// A running CRC-32 over the bytes that pass while it is in an iterator's list.
    struct KAV_API NV_checksum : public sll_node {
        NV_checksum();
        uint32_t bytes = 0;  ///< [bytes] passed
        uint32_t chunks = 0; ///< calls
        uint32_t crc;        ///< starts as the CRC of "ZEW6"
    };

    NV_iterator() = default;
    NV_iterator(const NV_iterator&) = delete;
    NV_iterator& operator=(const NV_iterator&) = delete;

    // Slot order is part of the interface.

    virtual ~NV_iterator();
    virtual bool push_bytes(unsigned char* data, int n) = 0; ///< true when all were taken
    virtual bool pop_bytes(unsigned char* data, int n) = 0;  ///< true when all were had
    virtual bool peek_bytes(unsigned char* data, int n) = 0; ///< as pop_bytes(), consuming nothing
    /// [bytes] used and in all; false, and both 0, where it cannot be told.
    virtual bool get_free_space(unsigned int& used, unsigned int& total) const;

    /// Move bytes past every active checksum.
    bool _push_bytes(const unsigned char* data, int n);
    bool _pop_bytes(unsigned char* data, int n);
    void pass_checksum_bytes(const unsigned char* data, int n);
    void add_checksum_getter(NV_checksum* c);
    void remove_checksum_getter(NV_checksum* c);

    bool push_header(const NV_iterator_header& h);
    bool pop_header(NV_iterator_header& h);
    bool peek_header(NV_iterator_header& h); ///< passes no checksum

    /// Read past the record that comes next, which no item wants; false when the grammar knows no such record, or none
    /// that can be skipped.
    bool skip_record();
    /// The same for a container. Its CRC is left unread.
    bool skip_container();
    /// The same for a value, whatever its type byte says: `width` [bytes], or `counted`, so many of them.
    bool skip_value(int width, bool counted);

    /// True when all bytes were moved; a failed pop leaves the target as it was.
    bool push_bool(bool v) { return push_bits(Util::to_bits(v), sizeof v); }
    bool push_char(char v) { return push_bits(Util::to_bits(v), sizeof v); }
    bool push_int8(signed char v) { return push_bits(Util::to_bits(v), sizeof v); }
    bool push_uint8(unsigned char v) { return push_bits(Util::to_bits(v), sizeof v); }
    bool push_int16(short v) { return push_bits(Util::to_bits(v), sizeof v); }
    bool push_uint16(unsigned short v) { return push_bits(Util::to_bits(v), sizeof v); }
    bool push_int32(int v) { return push_bits(Util::to_bits(v), sizeof v); }
    bool push_uint32(unsigned int v) { return push_bits(Util::to_bits(v), sizeof v); }
    bool push_int64(long long v) { return push_bits(Util::to_bits(v), sizeof v); }
    bool push_uint64(unsigned long long v) { return push_bits(Util::to_bits(v), sizeof v); }
    bool push_float(float v) { return push_bits(Util::to_bits(v), sizeof v); }
    bool push_double(double v) { return push_bits(Util::to_bits(v), sizeof v); }
    bool pop_bool(bool& v) { return pop(v); }
    bool pop_char(char& v) { return pop(v); }
    bool pop_int8(signed char& v) { return pop(v); }
    bool pop_uint8(unsigned char& v) { return pop(v); }
    bool pop_int16(short& v) { return pop(v); }
    bool pop_uint16(unsigned short& v) { return pop(v); }
    bool pop_int32(int& v) { return pop(v); }
    bool pop_uint32(unsigned int& v) { return pop(v); }
    bool pop_int64(long long& v) { return pop(v); }
    bool pop_uint64(unsigned long long& v) { return pop(v); }
    bool pop_float(float& v) { return pop(v); }
    bool pop_double(double& v) { return pop(v); }
    /// The low `width` bytes: 1, 2, 4 or 8. pop_bits() extends them by zeros.
    bool push_bits(uint64_t bits, int width);
    bool pop_bits(uint64_t& bits, int width);

private:
    template <class T>
    bool pop(T& v) {
        uint64_t bits;
        if (!pop_bits(bits, sizeof v)) return false;
        v = Util::from_bits<T>(bits);
        return true;
    }

    c_sl_list<NV_checksum> _checksums;

public:
    modes_t mode = mode_closed;

protected:
    /// Memory in one piece that bytes are read from or written to without a virtual call for each value, for an
    /// iterator that has such: from `_next` on up to `_window_end`. What does not fit in goes to the virtual
    /// operations. Checksums see what passed here as one chunk, which takes a fraction of the time; they are up to date
    /// only when they have been taken out.
    unsigned char *_next = nullptr, *_window_end = nullptr;
    /// Let the checksums see what passed: before the memory moves, or `_next` does without bytes passing.
    void sum_unseen();

private:
    unsigned char* pass(int n, bool reading);
    void sum(const unsigned char* data, int n, uint32_t chunks);

    int _unseen = 0; ///< [bytes] before `_next` that no checksum has seen
    uint32_t _unseen_chunks = 0;
};

} // namespace NV_store
