// SPDX-License-Identifier: MIT
#include "support/test.h"
#include "util/atime.h"

namespace {

Atime at(int32_t seconds, int ms = 0) {
    Atime t(false);
    t.time = seconds;
    t.millitm = static_cast<uint16_t>(ms);
    return t;
}

TEST(Atime, parts_of_the_week_take_seconds_as_unsigned) {
    for (const auto& [t, parts] : {std::pair(at(604799, 999), "0 604799999 86399999"),
                                   {at(604800, 1), "1 1 1"},
                                   {at(-1), "7101 282495000 23295000"}})
        EXPECT_VALUES(parts, t.week(), t.ms_into_week(), t.ms_into_day());
}

TEST(Atime, moves_by_milliseconds_wraps_at_the_limits_and_differs_by_a_week_of_whole_seconds_at_most) {
    EXPECT_EQ(at(INT_MAX, 999) + 1, at(INT_MIN));
    EXPECT_EQ(at(0) + INT_MIN, at(-2147484, 352));
    EXPECT_EQ(at(0, 999) + INT_MAX, at(-2147483, 350));
    EXPECT_EQ(at(7) - INT_MIN, at(7 - 2147484, 352)) << "the negated amount does not fit and stays negative";
    EXPECT_EQ(at(INT_MIN) - at(INT_MAX), -604800000);
    const Manual_clock clock(1000, 250);
    EXPECT_VALUES("-251 251", at(999, 999).get_ms_from_now(), at(999, 999).get_elapsed_ms_since());

    std::mt19937 random(20240817);
    for (int i = 0; i < 20000; ++i) {
        const int near_a_week = (i % 2 ? 1 : -1) * (604800000 + static_cast<int>(random() % 4000) - 2000);
        const int add = i % 4 < 2 ? near_a_week : static_cast<int>(random()) >> random() % 30;
        const Atime a = at(2147484 + static_cast<int>(random() % 2000000000), static_cast<int>(random() % 1000));
        const int64_t sum = a.time * int64_t{1000} + a.millitm + add;
        const Atime b = at(static_cast<int32_t>(sum / 1000), static_cast<int>(sum % 1000));
        const int limited = abs(b.time - a.time) <= 604800 ? add : add > 0 ? 604800000 : -604800000;
        ASSERT_VALUES(texts(true, true, limited), a + add == b, a - -add == b, b - a) << texts(a.time, a.millitm, add);
        ASSERT_VALUES(texts(add > 0, add <= 0, add < 0, add >= 0), a<b, a >= b, a> b, a <= b) << sum << " " << add;
    }
}

TEST(Atime, adds_the_offset_of_real_time_with_one_carry_at_most) {
    for (const auto& [ms, offset, sum] :
         {std::tuple(1, 998, at(3700, 999)), {1, 999, at(3701)}, {999, 1999, at(3701, 1998)}}) {
        Atime::set_real_offset(at(3600, offset).timeb());
        Atime real(false);
        EXPECT_EQ(real = at(100, ms).real_timeb(), sum);
    }
}

} // namespace
