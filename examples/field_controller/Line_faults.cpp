// SPDX-License-Identifier: MIT
#include "Line_faults.h"

uint32_t Line_faults::next() {
    _state ^= _state >> 12;
    _state ^= _state << 25;
    _state ^= _state >> 27;
    return static_cast<uint32_t>((_state * 2685821657736338717u) >> 32);
}

std::string Line_faults::noise(unsigned n) {
    std::string bytes;
    for (; n > 0; --n) bytes += static_cast<char>(next());
    return bytes;
}

std::string Line_faults::pass(const std::string& frame, bool& damaged) {
    damaged = false;
    if (_frames_per_fault == 0 || below(_frames_per_fault) != 0) return frame;
    ++_faults;
    const unsigned length = static_cast<unsigned>(frame.size());
    switch (below(4)) {
    case 0:
        return noise(1 + below(12)) + "\r\n" + frame;
    case 1:
        damaged = true;
        return frame.substr(0, 1 + below(length - 3)) + "\r\n";
    case 2: {
        damaged = true;
        std::string hit = frame;
        const unsigned at = below(length - 2);
        hit[at] = static_cast<char>(hit[at] ^ (1 << below(8)));
        return hit;
    }
    default:
        return noise(100 + below(200)) + "\r\n" + frame;
    }
}
