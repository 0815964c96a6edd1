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
    for (const auto& [t, week, in_week, in_day] : {std::tuple(at(604799, 999), 0, 604799999, 86399999),
                                                   {at(604800, 1), 1, 1, 1},
                                                   {at(-1), 7101, 282495000, 23295000}}) {
        EXPECT_EQ(std::tuple(t.week(), t.ms_into_week(), t.ms_into_day()), std::tuple(week, in_week, in_day));
    }
}

TEST(Atime, moves_by_milliseconds_and_wraps_at_the_limits) {
    EXPECT_EQ(at(INT_MAX, 999) + 1, at(INT_MIN));
    EXPECT_EQ(at(0) + INT_MIN, at(-2147484, 352));
    EXPECT_EQ(at(0, 999) + INT_MAX, at(-2147483, 350));
    EXPECT_EQ(at(7) - INT_MIN, at(7 - 2147484, 352)) << "the negated amount does not fit and stays negative";

    std::mt19937 random(20240817);
    for (int i = 0; i < 20000; ++i) {
        const int64_t start = random() % 2000000000000u;
        const int add = static_cast<int>(random()) >> random() % 30;
        const auto instant = [](int64_t ms) {
            return at(static_cast<int32_t>(ms / 1000), static_cast<int>(ms % 1000));
        };
        const Atime a = instant(start + INT_MAX), b = instant(start + INT_MAX + add);
        ASSERT_VALUES("true true", a + add == b, a - -add == b) << start << " " << add;
        ASSERT_VALUES(texts(add > 0, add <= 0, add < 0, add >= 0), a<b, a >= b, a> b, a <= b) << start << " " << add;
        ASSERT_EQ(b - a, std::max(-604800000, std::min(add, 604800000))) << start;
    }
}

TEST(Atime, difference_is_clamped_beyond_a_week_of_whole_seconds) {
    EXPECT_EQ(at(604800, 999) - at(0), 604800999);
    EXPECT_EQ(at(604801) - at(0, 999), 604800000);
    EXPECT_EQ(at(0) - at(604800, 999), -604800999);
    EXPECT_EQ(at(0, 999) - at(604801), -604800000);
    EXPECT_EQ(at(INT_MIN) - at(INT_MAX), -604800000);
}

TEST(Atime, adds_the_offset_of_real_time_with_one_carry_at_most) {
    struct ::timeb offset = {};
    offset.time = 3600;
    // ms, ms of the offset, seconds and ms of the sum
    const int rows[][4] = {{1, 998, 3700, 999}, {1, 999, 3701, 0}, {999, 1999, 3701, 1998}};
    for (const auto& [ms, offset_ms, s, sum] : rows) {
        offset.millitm = static_cast<uint16_t>(offset_ms);
        Atime::set_real_offset(offset);
        const struct ::timeb real = at(100, ms).real_timeb();
        EXPECT_VALUES(texts(s, sum), real.time, real.millitm);
    }
}

TEST(Atime, the_current_time_comes_from_the_one_clock) {
    Manual_clock clock(1000, 250);
    const Atime then = Atime::from_now(-251);
    EXPECT_EQ(then, at(999, 999));
    clock.advance(130);
    EXPECT_VALUES("-381 381", then.get_ms_from_now(), then.get_elapsed_ms_since());
}

TEST(Atime, spoilt_milliseconds_end_the_process) {
    const Child_result r = run_child([] { at(1, 1000) += 1; });
    const char* const where =
        "util/atime:1: const Atime& Atime::operator+=(int): Assertion `tm.millitm < 1000' failed.";
    EXPECT_NE(r.err.find(where), std::string::npos) << r.err;
}

} // namespace
