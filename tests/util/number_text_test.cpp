// SPDX-License-Identifier: MIT
#include "support/test.h"
#include "util/number_text.h"
#include <clocale>
#include <cmath>

namespace {

TEST(number_text, floating_text_does_not_follow_the_processs_locale) {
    // A locale with a decimal comma, which few machines have installed: it is made here, as the C library reads it from
    // a file (magic number, six offsets, point, separators, grouping, wide forms, character set).
    static const char numeric[] = "\x14\x11\3\x20\6\0\0\0\x20\0\0\0\x22\0\0\0\x23\0\0\0\x24\0\0\0\x28\0\0\0\x2C\0\0\0"
                                  ",\0\0\0,\0\0\0\0\0\0\0ASCII";
    const Temporary_folder root;
    std::filesystem::create_directory(root.file("comma"));
    write_file(root.file("comma/LC_NUMERIC"), std::string(numeric, sizeof numeric));
    setenv("LOCPATH", root.path.c_str(), 1);
    ASSERT_TRUE(setlocale(LC_NUMERIC, "comma"));
    char text[64];
    EXPECT_VALUES("26 1.5 -0.25 1.234500e+04|x|7",
                  Util::format(text, sizeof text, "%g %.2f %e|%s|%d", 1.5, -0.25, 12345.0, "x", 7), text);
    EXPECT_VALUES("8 2.5", Util::format(text, 4, "%f", 2.5), text) << "the length of the whole text";
    const std::tuple<const char*, double, const char*> rows[] = {
        {" -1e3x", -1000, "x"}, {"2,5", 2, ",5"}, {"0x1p-2", 0.25, ""}, {"1e999", HUGE_VAL, ""}, {"x1", 0, "x1"}};
    for (const auto& [number, value, rest] : rows) {
        const char* end = nullptr;
        EXPECT_VALUES(texts(value, std::string(rest)), Util::to_double(number, &end), end) << number;
    }
    EXPECT_EQ(text_of("%g", 1.5), "1,5") << "the process's own locale is as it was";
}

TEST(number_text, integers_have_the_limits_of_a_32_bit_long) {
    EXPECT_VALUES(texts(INT32_MIN, INT32_MAX, UINT32_MAX), Util::to_long32("-4294967295"),
                  Util::to_long32("4294967296"), Util::to_ulong32("4294967296"));
    EXPECT_VALUES(texts(1, UINT32_MAX), Util::to_ulong32("-4294967295"), Util::to_ulong32("-4294967296")) << "modulo";
    const char* const none = "  -x";
    const char* end = nullptr;
    EXPECT_VALUES("31 0 true", Util::to_long32("0x1Fg", 0), Util::to_long32(none, 0, &end), end == none);
}

} // namespace
