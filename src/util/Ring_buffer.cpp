// SPDX-License-Identifier: MIT
#include "util/Ring_buffer.h"
#include <algorithm>
#include <cstring>

uint32_t Ring_buffer::used() const {
    if (full()) return capacity;
    return tail >= head ? tail - head : tail + (capacity - head);
}

uint32_t Ring_buffer::put(const unsigned char* bytes, uint32_t n) {
    uint32_t stored = 0;
    while (stored < n && !full()) {
        const uint32_t gap = tail < head ? head - tail : capacity - tail;
        const uint32_t piece = std::min(gap, n - stored);
        memcpy(data + tail, bytes + stored, piece);
        stored += piece;
        tail += piece;
        if (tail == capacity) tail = 0;
        if (tail == head) tail = full_mark;
    }
    return stored;
}

uint32_t Ring_buffer::peek(uint32_t offset, unsigned char* dest, uint32_t n) const {
    uint32_t copied = 0;
    while (copied < n) {
        uint32_t run;
        const unsigned char* from = span(offset + copied, run);
        if (run == 0) break;
        const uint32_t piece = std::min(run, n - copied);
        memcpy(dest + copied, from, piece);
        copied += piece;
    }
    return copied;
}

const unsigned char* Ring_buffer::at(uint32_t i) const {
    uint32_t run;
    const unsigned char* byte = span(i, run);
    return run > 0 ? byte : data;
}

const unsigned char* Ring_buffer::span(uint32_t offset, uint32_t& n) const {
    const uint32_t stored = used();
    if (offset >= stored) {
        n = 0;
        return data;
    }
    const uint32_t to_end = capacity - head;
    if (offset < to_end) {
        n = std::min(stored, to_end) - offset;
        return data + head + offset;
    }
    n = stored - offset;
    return data + (offset - to_end);
}

uint32_t Ring_buffer::drop(uint32_t n) {
    const uint32_t m = std::min(n, used());
    if (full() && n > 0) tail = head;
    const uint32_t to_end = capacity - head;
    head = m < to_end ? head + m : m - to_end;
    dropped += m;
    return m;
}

void Ring_buffer::clear() {
    dropped += used();
    tail = head;
}
