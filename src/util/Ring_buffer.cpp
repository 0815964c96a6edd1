// SPDX-License-Identifier: MIT
#include "util/Ring_buffer.h"
#include <algorithm>
#include <cstring>

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

void Ring_buffer::clear() {
    dropped += used();
    tail = head;
}
