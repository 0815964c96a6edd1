// SPDX-License-Identifier: MIT
// What every test has at hand: the test framework, what the standard library and the system offer, and this folder's
// helpers that depend on no subsystem.
#pragma once
#include "support/Manual_clock.h"
#include "support/Temporary_folder.h"
#include "support/allocations.h"
#include "support/capture.h"
#include "support/child.h"
#include "support/nightly.h"
#include "support/wait_until.h"
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <numeric>
#include <optional>
#include <random>
#include <set>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tuple>

/// A value as a text: a number, "true" or "false", an address or "null", a text as it is.
template <class T>
std::string text_of_value(const T& v) {
    if constexpr (std::is_same_v<T, bool> || std::is_same_v<T, std::atomic<bool>>)
        return v ? "true" : "false";
    else if constexpr (std::is_convertible_v<T, std::string>)
        return v;
    else if constexpr (std::is_pointer_v<T> || std::is_null_pointer_v<T>)
        return v ? text_of("%p", static_cast<const void*>(v)) : "null";
    else if constexpr (std::is_floating_point_v<T>)
        return text_of("%.17g", static_cast<double>(v));
    else
        return std::to_string(static_cast<long long>(v));
}

/// Values one behind the other, found out from left to right.
struct Values {
    template <class... T>
    explicit Values(const T&... values) {
        ((text += (text.empty() ? "" : " ") + text_of_value(values)), ...);
    }
    std::string text;
};
template <class... T>
std::string texts(const T&... values) {
    return Values(values...).text;
}

/// Several results at once, so that a failure shows each: EXPECT_VALUES("0 true", d.start(), d.running()).
#define EXPECT_VALUES(expected, ...) EXPECT_EQ((Values{__VA_ARGS__}.text), expected)
#define ASSERT_VALUES(expected, ...) ASSERT_EQ((Values{__VA_ARGS__}.text), expected)
