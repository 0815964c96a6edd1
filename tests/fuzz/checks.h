// SPDX-License-Identifier: MIT
#pragma once
#include "util/Debug_print.h"
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

/// The bytes of an input, one after the other.
class Input {
public:
    Input(const uint8_t* data, size_t size) : _at(data), _end(data + size) {}
    bool is_empty() const { return _at == _end; }
    /// 0 when there is none.
    uint8_t next() { return is_empty() ? 0 : *_at++; }
    uint32_t little_endian(int bytes) {
        uint32_t v = 0;
        for (int i = 0; i < bytes; ++i) v |= uint32_t{next()} << 8 * i;
        return v;
    }
    /// The next ones, as many as there are.
    std::string next(size_t n) {
        const char* const from = reinterpret_cast<const char*>(_at);
        _at += n = std::min(n, static_cast<size_t>(_end - _at));
        return {from, n};
    }
    std::string rest() { return next(SIZE_MAX); }

private:
    const uint8_t *_at, *const _end;
};

/// What a fuzzer does with an input.
void fuzz(Input in);

/// The debug output, which refusals would flood, is thrown away.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FILE* const nowhere = Debug_print::debug_file = fopen("/dev/null", "w");
    if (!nowhere) abort();
    fuzz({data, size});
    return 0;
}

/// Ends the run when something does not hold.
inline void require(bool holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
}
