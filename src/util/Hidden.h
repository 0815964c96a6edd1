// SPDX-License-Identifier: MIT
#pragma once
#include <new>
#include <utility>

/// A member whose type only the sources know: the header of one of Qt's locks alone would bring all who include ours
/// more than 20,000 lines. Room for `size` [bytes], as much as its alignment; the constructor does not compile where
/// that is not enough. The owner's constructors and destructor stand in its source.
template <class T, int size = sizeof(void*)>
class Hidden {
public:
    template <class... Arguments>
    explicit Hidden(Arguments&&... arguments) {
        static_assert(sizeof(T) <= size, "more room than the header has");
        static_assert(alignof(T) <= size, "more alignment than the header has");
        new (_bytes) T(std::forward<Arguments>(arguments)...);
    }
    ~Hidden() { (*this)->~T(); }
    Hidden(const Hidden&) = delete;
    Hidden& operator=(const Hidden&) = delete;

    T* operator->() { return std::launder(reinterpret_cast<T*>(_bytes)); }
    const T* operator->() const { return std::launder(reinterpret_cast<const T*>(_bytes)); }

private:
    alignas(size) unsigned char _bytes[size];
};
