// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <cstdint>

/// First-in first-out bytes over storage that somebody else owns. A small value type; no lock.
///
///     0        head          tail      capacity
///     |.........|=============|...........|        used() = tail - head, or behind the wrap
///
/// Empty: head = tail. Full: tail = all ones.
class KAV_API Ring_buffer {
public:
    static constexpr uint32_t full_mark = 0xFFFFFFFFu;

    /// `storage` of `n` [bytes], at least 1, outlives the ring.
    Ring_buffer(unsigned char* storage, uint32_t n) : data(storage), capacity(n), head(0), tail(0) {}

    /// [bytes] stored
    uint32_t used() const {
        if (full()) return capacity;
        return tail >= head ? tail - head : tail + (capacity - head);
    }
    uint32_t room() const { return capacity - used(); } ///< [bytes] that put() would still take
    bool full() const { return tail == full_mark; }
    bool empty() const { return head == tail; }

    /// Store up to `n` bytes; returns how many fitted. At most two copies.
    uint32_t put(const unsigned char* bytes, uint32_t n);
    /// Copy up to `n` bytes from `offset` behind the head without consuming them; returns how many. 0 when `offset` is
    /// used() or more.
    uint32_t peek(uint32_t offset, unsigned char* dest, uint32_t n) const;
    /// The i-th stored byte. For i >= used() the start of the storage: ask used() first.
    const unsigned char* at(uint32_t i) const {
        uint32_t run;
        return span(i, run);
    }
    /// The contiguous run of stored bytes that begins `offset` behind the head; `n` receives its length, 0 when there
    /// is none. A second call at `offset + n` gives what lies behind the wrap. Valid until the next put, drop or clear.
    const unsigned char* span(uint32_t offset, uint32_t& n) const {
        const uint32_t stored = used();
        if (offset >= stored) {
            n = 0;
            return data;
        }
        const uint32_t to_end = capacity - head;
        if (offset < to_end) {
            n = (stored < to_end ? stored : to_end) - offset;
            return data + head + offset;
        }
        n = stored - offset;
        return data + (offset - to_end);
    }
    /// Consume up to `n` bytes; returns how many.
    uint32_t drop(uint32_t n) {
        const uint32_t stored = used();
        const uint32_t m = n < stored ? n : stored;
        if (full() && n > 0) tail = head;
        const uint32_t to_end = capacity - head;
        head = m < to_end ? head + m : m - to_end;
        dropped += m;
        return m;
    }
    void clear(); ///< forget what is stored

    unsigned char* data;
    uint32_t capacity;
    uint32_t head;        ///< index of the oldest byte
    uint32_t tail;        ///< index of the next byte to store, or full_mark
    uint64_t dropped = 0; ///< [bytes] consumed or forgotten since construction
};
