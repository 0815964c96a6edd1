// SPDX-License-Identifier: MIT
#include "support/Temporary_folder.h"
#include "util/number_text.h"
#include <clocale>
#include <cmath>
#include <gtest/gtest.h>

namespace {

/// Puts the process into a locale with a decimal comma, which few machines have installed: it is made here, as the
/// C library reads it from a file (magic number, six offsets, point, separators, grouping, wide forms, character set).
bool set_comma_locale() {
    static const char numeric[] = "\x14\x11\3\x20\6\0\0\0\x20\0\0\0\x22\0\0\0\x23\0\0\0\x24\0\0\0\x28\0\0\0\x2C\0\0\0"
                                  ",\0\0\0,\0\0\0\0\0\0\0ASCII";
    const Temporary_folder root;
    std::filesystem::create_directory(root.file("comma"));
    write_file(root.file("comma/LC_NUMERIC"), std::string(numeric, sizeof numeric));
    setenv("LOCPATH", root.path.c_str(), 1);
    return setlocale(LC_NUMERIC, "comma");
}

TEST(number_text, floating_text_does_not_follow_the_processs_locale) {
    ASSERT_TRUE(set_comma_locale());
    char text[64];
    EXPECT_EQ(Util::format(text, sizeof text, "%g %.2f %e|%s|%d", 1.5, -0.25, 12345.0, "x", 7), 26);
    EXPECT_STREQ(text, "1.5 -0.25 1.234500e+04|x|7");
    EXPECT_EQ(Util::format(text, 4, "%f", 2.5), 8) << "the length of the whole text";
    EXPECT_STREQ(text, "2.5");
    const std::tuple<const char*, double, const char*> rows[] = {
        {" -1e3x", -1000, "x"}, {"2,5", 2, ",5"}, {"0x1p-2", 0.25, ""}, {"1e999", HUGE_VAL, ""}, {"x1", 0, "x1"}};
    for (const auto& [number, value, rest] : rows) {
        const char* end = nullptr;
        EXPECT_TRUE(Util::to_double(number, &end) == value && end == std::string(rest)) << number;
    }
    snprintf(text, sizeof text, "%g", 1.5);
    EXPECT_STREQ(text, "1,5") << "the process's own locale is as it was";
}

TEST(number_text, integers_have_the_limits_of_a_32_bit_long) {
    const std::tuple<const char*, int32_t, uint32_t, const char*> rows[] = {
        {"4294967296", INT32_MAX, UINT32_MAX, ""},
        {" \t-2147483648", INT32_MIN, 2147483648u, ""},
        {"-4294967295", INT32_MIN, 1, ""},
        {"-4294967296", INT32_MIN, UINT32_MAX, ""},
        {"0x1Fg", 31, 31, "g"},
        {"  -x", 0, 0, "  -x"}};
    for (const auto& [text, as_long, as_ulong, rest] : rows) {
        const char *end = nullptr, *end_u = nullptr;
        EXPECT_TRUE(Util::to_long32(text, 0, &end) == as_long && end == std::string(rest)) << text;
        EXPECT_TRUE(Util::to_ulong32(text, 0, &end_u) == as_ulong && end_u == end) << text;
    }
}

} // namespace
