// SPDX-License-Identifier: MIT
#pragma once
#include <cstdint>

namespace Util {

/// `which ? a : b`, without the branch that compilers make of that.
template <class T>
T* pick(bool which, T* a, T* b) {
    const uintptr_t mask = uintptr_t(0) - uintptr_t(which);
    return reinterpret_cast<T*>((reinterpret_cast<uintptr_t>(a) & mask) | (reinterpret_cast<uintptr_t>(b) & ~mask));
}

} // namespace Util
