// SPDX-License-Identifier: MIT
#include "util/number_text.h"
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

namespace {

/// Puts the process into a locale with a decimal comma, which few machines have installed: it is made here, as the
/// C library reads it from a file (magic number, six offsets, point, separators, grouping, wide forms, character set).
bool set_comma_locale() {
    static const unsigned char numeric[] = {0x14, 0x11, 3,   0x20, 6, 0, 0, 0,  32, 0, 0,   0,   34,  0,   0,   0,   35,
                                            0,    0,    0,   36,   0, 0, 0, 40, 0,  0, 0,   44,  0,   0,   0,   ',', 0,
                                            0,    0,    ',', 0,    0, 0, 0, 0,  0,  0, 'A', 'S', 'C', 'I', 'I', 0};
    char folder[] = "/tmp/kav_locale_XXXXXX";
    const std::string root = mkdtemp(folder), locale = root + "/comma", file = locale + "/LC_NUMERIC";
    mkdir(locale.c_str(), 0700);
    FILE* f = fopen(file.c_str(), "w");
    fwrite(numeric, 1, sizeof numeric, f);
    fclose(f);
    setenv("LOCPATH", root.c_str(), 1);
    const bool done = setlocale(LC_NUMERIC, "comma");
    unsetenv("LOCPATH");
    for (const std::string& path : {file, locale, root}) remove(path.c_str());
    return done;
}

TEST(number_text, floating_text_does_not_follow_the_processs_locale) {
    ASSERT_TRUE(set_comma_locale());
    char text[64];
    snprintf(text, sizeof text, "%g", 1.5);
    ASSERT_STREQ(text, "1,5") << "the process itself prints commas";

    EXPECT_EQ(Util::format(text, sizeof text, "%g %.2f %e|%s|%d", 1.5, -0.25, 12345.0, "x", 7), 26);
    EXPECT_STREQ(text, "1.5 -0.25 1.234500e+04|x|7");
    EXPECT_EQ(Util::format(text, 4, "%f", 2.5), 8) << "the length of the whole text";
    EXPECT_STREQ(text, "2.5");

    static const struct {
        const char* text;
        double value;
        size_t used;
    } rows[] = {{" -1e3x", -1000, 5}, {"2,5", 2, 1}, {"0x1p-2", 0.25, 6}, {"1e999", HUGE_VAL, 5}, {"x1", 0, 0}};
    for (const auto& r : rows) {
        const char* end = nullptr;
        EXPECT_EQ(Util::to_double(r.text, &end), r.value) << r.text;
        EXPECT_EQ(end, r.text + r.used) << r.text;
    }
    snprintf(text, sizeof text, "%g", 1.5);
    EXPECT_STREQ(text, "1,5") << "the process's locale is as it was";
    setlocale(LC_NUMERIC, "C");
}

TEST(number_text, integers_have_the_limits_of_a_32_bit_long) {
    static const struct {
        const char* text;
        int32_t as_long;
        uint32_t as_ulong;
        size_t used;
    } rows[] = {{"4294967296", INT32_MAX, UINT32_MAX, 10},
                {" \t-2147483648", INT32_MIN, 2147483648u, 13},
                {"-4294967295", INT32_MIN, 1, 11},
                {"-4294967296", INT32_MIN, UINT32_MAX, 11},
                {"0x1Fg", 31, 31, 4},
                {"  -x", 0, 0, 0}};
    for (const auto& r : rows) {
        const char* end = nullptr;
        EXPECT_EQ(Util::to_long32(r.text, 0, &end), r.as_long) << r.text;
        EXPECT_EQ(Util::to_ulong32(r.text, 0, &end), r.as_ulong) << r.text;
        EXPECT_EQ(end, r.text + r.used) << r.text;
    }
}

} // namespace
