// SPDX-License-Identifier: MIT
#pragma once
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <unistd.h>

/// How far a program has come, on standard error: only where that is a terminal, and the results go elsewhere, since on
/// the terminal they would show it themselves.
class Progress {
public:
    /// Of `total`, bytes or other pieces; 0 where the bytes to come are not known.
    explicit Progress(uint64_t total) : _total(total), _shown(isatty(STDERR_FILENO) && !isatty(STDOUT_FILENO)) {}
    ~Progress() {
        if (_shown) fputs("\033[K", stderr);
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// As often as one likes. A message that follows overwrites the line.
    void at(uint64_t done) {
        const auto now = std::chrono::steady_clock::now();
        if (!_shown || now < _next) return;
        _next = now + std::chrono::milliseconds(200);
        if (_total != 0) {
            fprintf(stderr, "%3d %%\r", static_cast<int>(done * 100 / _total));
        } else {
            fprintf(stderr, "%.1f MB\r", static_cast<double>(done) / 1e6);
        }
    }

private:
    const uint64_t _total;
    const bool _shown;
    std::chrono::steady_clock::time_point _next{};
};
