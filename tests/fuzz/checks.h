// SPDX-License-Identifier: MIT
#pragma once
#include "util/Debug_print.h"
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

/// Ends the run when something does not hold.
inline void require(bool holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
}

/// Ends the run with a text that is not empty.
inline void require(const char* difference) { require(*difference == 0, difference); }

/// A block of exactly these bytes, so that a read behind them is seen.
inline std::unique_ptr<char[]> exact(const std::string& bytes) {
    auto copy = std::make_unique<char[]>(bytes.size());
    memcpy(copy.get(), bytes.data(), bytes.size());
    return copy;
}

/// Nothing on the debug output.
inline void be_quiet() {
    static FILE* const nowhere = Debug_print::debug_file = fopen("/dev/null", "w");
    if (!nowhere) abort();
}

inline std::string text_of(const uint8_t* data, size_t size) { return {reinterpret_cast<const char*>(data), size}; }
