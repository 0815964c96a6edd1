// SPDX-License-Identifier: MIT
#pragma once
#include <chrono>
#include <thread>

/// Wait for a condition with a limit; the result says whether it came true. For what another thread brings about.
template <class Condition>
bool wait_until(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    bool met = condition();
    for (; !met && std::chrono::steady_clock::now() < end; met = condition())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return met;
}
