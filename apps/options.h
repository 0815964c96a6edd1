// SPDX-License-Identifier: MIT
#pragma once
#include "fail.h"
#include <charconv>
#include <functional>
#include <getopt.h>
#include <string>
#include <vector>

/// Read a whole text as a number, an integer also as 0xFF.
template <class Number>
bool read_number(const char* text, Number& number) {
    const char* const end = text + strlen(text);
    std::from_chars_result read{};
    if constexpr (std::is_integral_v<Number>) {
        const bool hex = text[0] == '0' && (text[1] | 0x20) == 'x';
        read = std::from_chars(text + 2 * hex, end, number, hex ? 16 : 10);
    } else {
        read = std::from_chars(text, end, number);
    }
    return read.ec == std::errc() && read.ptr == end;
}

/// An option of a program, --name or a letter, and what becomes of it.
struct Option {
    /// A switch.
    Option(const char* n, bool& on) : name(n), take([&on](const char*) { return on = true; }) {}
    /// With a text.
    Option(const char* n, std::string& text, char l = 0)
        : name(n), letter(l), has_value(true), take([&text](const char* value) { return text = value, true; }) {}
    /// With a number.
    template <class Number>
    Option(const char* n, Number& number, Number least, Number most)
        : name(n)
        , has_value(true)
        , limits(text_of(least) + " to " + text_of(most))
        , take([=, &number](const char* value) {
            return read_number(value, number) && number >= least && number <= most;
        }) {}
    /// With a value that `t` understands, or answers with false.
    Option(const char* n, std::function<bool(const char* value)> t, char l = 0)
        : name(n), letter(l), has_value(true), take(std::move(t)) {}

    const char* name;
    char letter = 0; ///< 0: none
    bool has_value = false;
    std::string limits = "try --help"; ///< told of a wrong value
    std::function<bool(const char* value)> take;

private:
    static std::string text_of(double v) {
        char text[32];
        snprintf(text, sizeof text, "%.10g", v);
        return text;
    }
};

/// Take the options out of a program's arguments and return the others. --help is answered with `usage`, --version too;
/// where that cannot be written, the program ends with `status_of_failure`. What is wrong ends it with status 2.
inline std::vector<std::string> read_options(int argc, char** argv, const char* usage,
                                             const std::vector<Option>& options, int status_of_failure = 1) {
    std::vector<option> known = {{"help", no_argument, nullptr, 'h'}, {"version", no_argument, nullptr, 'v'}};
    std::string letters = ":h";
    constexpr int first = 256; // behind the letters
    for (const Option& o : options) {
        known.push_back({o.name, o.has_value ? required_argument : no_argument, nullptr,
                         o.letter ? o.letter : first + static_cast<int>(&o - options.data())});
        if (o.letter) letters += std::string(1, o.letter) + (o.has_value ? ":" : "");
    }
    known.push_back({});
    opterr = 0;
    for (int c; (c = getopt_long(argc, argv, letters.c_str(), known.data(), nullptr)) != -1;) {
        if (c == 'h') show_usage(usage, status_of_failure);
        if (c == 'v') show_version(status_of_failure);
        if (c == ':') fail(2, "%s needs a value (try --help)", argv[optind - 1]);
        if (c == '?') fail(2, "unknown option %s (try --help)", argv[optind - 1]);
        for (const Option& o : options) {
            if (c != (o.letter ? o.letter : first + static_cast<int>(&o - options.data()))) continue;
            if (!o.take(optarg)) fail(2, "wrong value %s for --%s (%s)", optarg, o.name, o.limits.c_str());
        }
    }
    return {argv + optind, argv + argc};
}
