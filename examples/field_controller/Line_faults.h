// SPDX-License-Identifier: MIT
#pragma once
#include <cstdint>
#include <string>

/// What a serial line does to good bytes now and then: noise before a frame, a frame cut short, a flipped bit, a burst
/// of garbage. The same seed gives the same faults.
class Line_faults {
public:
    explicit Line_faults(uint64_t seed) : _state(seed * 0x9E3779B97F4A7C15u + 1) {}

    /// How often frames are hit: one in `frames_per_fault`, 0 for never.
    void set_rate(unsigned frames_per_fault) { _frames_per_fault = frames_per_fault; }

    /// What arrives in place of `frame` (with its line end). `damaged` tells whether the frame itself was hit; noise
    /// before it leaves it whole.
    std::string pass(const std::string& frame, bool& damaged);

    unsigned faults() const { return _faults; } ///< so far

private:
    uint32_t next();
    uint32_t below(uint32_t n) { return next() % n; }
    std::string noise(unsigned n);

    uint64_t _state;
    unsigned _frames_per_fault = 40;
    unsigned _faults = 0;
};
