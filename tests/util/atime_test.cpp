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

    std::mt19937 random(20240817);
    for (int i = 0; i < 20000; ++i) {
        const int64_t start = INT_MAX + static_cast<int64_t>(random() % 2000000000000u);
        const int near_a_week = (i % 2 ? 1 : -1) * (604800000 + static_cast<int>(random() % 4000) - 2000);
        const int add = i % 4 < 2 ? near_a_week : static_cast<int>(random()) >> random() % 30;
        const auto instant = [](int64_t ms) {
            return at(static_cast<int32_t>(ms / 1000), static_cast<int>(ms % 1000));
        };
        const Atime a = instant(start), b = instant(start + add);
        ASSERT_VALUES("true true", a + add == b, a - -add == b) << start << " " << add;
        ASSERT_VALUES(texts(add > 0, add <= 0, add < 0, add >= 0), a<b, a >= b, a> b, a <= b) << start << " " << add;
        const int seconds = b.time - a.time;
        ASSERT_EQ(b - a, abs(seconds) > 604800 ? (add > 0 ? 604800000 : -604800000) : add) << start << " " << add;
    }
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
