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
struct Value {
    template <class T>
    Value(const T& v) {
        if constexpr (std::is_same_v<T, bool> || std::is_same_v<T, std::atomic<bool>>)
            text = v ? "true" : "false";
        else if constexpr (std::is_null_pointer_v<T>)
            text = "null";
        else if constexpr (std::is_pointer_v<T> && std::is_convertible_v<T, const char*>)
            text = v ? v : "null";
        else if constexpr (std::is_convertible_v<T, std::string>)
            text = v;
        else if constexpr (std::is_pointer_v<T>)
            text = v ? text_of("%p", static_cast<const void*>(v)) : "null";
        else if constexpr (std::is_floating_point_v<T>)
            text = text_of("%.17g", static_cast<double>(v));
        else
            text = std::to_string(static_cast<long long>(v));
    }
    std::string text;
};

/// Values one behind the other. Each is turned into text before the next one is found out.
struct Values {
    Values(std::initializer_list<Value> values) {
        for (const Value& v : values) text += (&v == values.begin() ? "" : " ") + v.text;
    }
    std::string text;
};
template <class... T>
std::string texts(const T&... values) {
    return Values{values...}.text;
}

/// Several results at once, so that a failure shows each: EXPECT_VALUES("0 true", d.start(), d.running()).
#define EXPECT_VALUES(expected, ...) EXPECT_EQ((Values{__VA_ARGS__}.text), expected)
#define ASSERT_VALUES(expected, ...) ASSERT_EQ((Values{__VA_ARGS__}.text), expected)
