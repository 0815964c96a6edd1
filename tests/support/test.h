// SPDX-License-Identifier: MIT
// What every test has at hand: the test framework, what the standard library and the system offer, and this folder's
// helpers that depend on no subsystem.
#pragma once
#include "support/Manual_clock.h"
#include "support/capture.h"
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <deque>
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
#include <tuple>

/// Heap blocks that all threads of the program have asked for so far. Take the difference over what must not allocate,
/// after one round that warms up whatever is built on first use.
long allocations();
long allocations_of_thread(); ///< those of the caller, where other threads may just begin

/// Whether the program was started with --nightly: many rounds instead of a few.
inline bool nightly() { return read_file("/proc/self/cmdline").find("--nightly") != std::string::npos; }

/// A value as a text: a number, "true" or "false", an address or "null", a text as it is.
struct Value {
    Value(const std::string& v) : text(v) {}
    Value(const char* v) : text(v ? v : "null") {}
    Value(const void* v) : text(v ? text_of("%p", v) : "null") {}
    Value(std::nullptr_t) : text("null") {}
    Value(bool v) : text(v ? "true" : "false") {}
    Value(double v) : text(text_of("%.17g", v)) {}
    template <class T, class = std::enable_if_t<std::is_integral_v<T> || std::is_enum_v<T>>>
    Value(T v) : text(std::to_string(static_cast<long long>(v))) {}
    template <class T>
    Value(const std::atomic<T>& v) : Value(v.load()) {}
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
