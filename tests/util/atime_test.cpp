// SPDX-License-Identifier: MIT
#include "support/Manual_clock.h"
#include "support/child.h"
#include "util/atime.h"
#include <climits>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <new>
#include <random>

namespace {

Atime at(int32_t seconds, uint16_t ms = 0) {
    Atime t(false);
    t.time = seconds;
    t.millitm = ms;
    return t;
}

TEST(Atime, parts_of_the_week_take_seconds_as_unsigned) {
    static const struct {
        int32_t time;
        uint16_t ms;
        unsigned week, ms_into_week, ms_into_day;
    } rows[] = {{0, 0, 0, 0, 0},
                {604799, 999, 0, 604799999, 86399999},
                {604800, 1, 1, 1, 1},
                {86400 + 5, 7, 0, 86405007, 5007},
                {INT32_MAX, 0, 3550, 443647000, 11647000},
                {-1, 0, 7101, 282495000, 23295000}};
    for (const auto& r : rows) {
        const Atime t = at(r.time, r.ms);
        EXPECT_EQ(t.week(), r.week) << r.time;
        EXPECT_EQ(t.ms_into_week(), r.ms_into_week) << r.time;
        EXPECT_EQ(t.ms_into_day(), r.ms_into_day) << r.time;
    }
}

TEST(Atime, moves_by_milliseconds_either_way) {
    static const struct {
        uint16_t ms;
        int add;
        int32_t seconds;
        uint16_t result;
    } rows[] = {{0, -1, -1, 999},           {0, -1000, -1, 0},           {0, -1001, -2, 999},
                {999, -999, 0, 0},          {999, -1000, -1, 999},       {999, 1, 1, 0},
                {0, INT_MAX, 2147483, 647}, {0, INT_MIN, -2147484, 352}, {999, INT_MIN, -2147483, 351}};
    for (const auto& r : rows) EXPECT_EQ(at(5000000, r.ms) + r.add, at(5000000 + r.seconds, r.result)) << r.add;

    const unsigned seed = 20240817;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int i = 0; i < 20000; ++i) {
        const auto seconds = static_cast<int32_t>(random() % 2000000000);
        const auto ms = static_cast<uint16_t>(random() % 1000);
        const int add = static_cast<int>(random()) / 2;
        const int64_t sum = int64_t(seconds) * 1000 + ms + add;
        const int64_t whole = sum >= 0 ? sum / 1000 : (sum - 999) / 1000;
        const Atime expected = at(static_cast<int32_t>(whole), static_cast<uint16_t>(sum - whole * 1000));
        ASSERT_EQ(at(seconds, ms) + add, expected) << seconds << " " << ms << " " << add;
        ASSERT_EQ(at(seconds, ms) - -add, expected);
        ASSERT_EQ(expected - at(seconds, ms), std::max(-604800000, std::min(add, 604800000))) << add;
    }
}

TEST(Atime, seconds_wrap_without_undefined_behaviour) {
    EXPECT_EQ(at(INT32_MAX, 999) + 1, at(INT32_MIN, 0));
    EXPECT_EQ(at(INT32_MIN, 0) - 1, at(INT32_MAX, 999));
    EXPECT_EQ(at(7, 0) - INT_MIN, at(7 - 2147484, 352)) << "the negated amount does not fit and stays negative";
    EXPECT_EQ(at(3000000, 999) + INT_MAX, at(3000000 - 2147483, 350)) << "the sum wraps as it does on the board";
}

TEST(Atime, difference_is_clamped_beyond_a_week_of_whole_seconds) {
    static const struct {
        int32_t a;
        uint16_t a_ms;
        int32_t b;
        uint16_t b_ms;
        int difference;
    } rows[] = {{604799, 0, 0, 0, 604799000},
                {604800, 0, 0, 999, 604799001},
                {604800, 999, 0, 0, 604800999},
                {604801, 0, 0, 999, 604800000},
                {0, 0, 604800, 999, -604800999},
                {0, 999, 604800, 0, -604799001},
                {0, 999, 604801, 0, -604800000},
                {864000, 0, 0, 0, 604800000},
                {0, 0, 864000, 0, -604800000},
                {2000000000, 0, -1000000000, 0, 604800000},
                {INT32_MIN, 0, INT32_MAX, 0, -604800000},
                {8, 1, 8, 999, -998}};
    for (const auto& r : rows) EXPECT_EQ(at(r.a, r.a_ms) - at(r.b, r.b_ms), r.difference) << r.a << " " << r.b;
}

TEST(Atime, comparison_is_by_seconds_then_milliseconds_only) {
    const Atime ordered[] = {at(INT32_MIN, 999), at(-1, 0), at(0, 0), at(0, 1), at(1, 0), at(INT32_MAX, 0)};
    for (const Atime& a : ordered) {
        for (const Atime& b : ordered) {
            EXPECT_EQ(a < b, &a < &b);
            EXPECT_EQ(a > b, &a > &b);
            EXPECT_EQ(a <= b, &a <= &b);
            EXPECT_EQ(a >= b, &a >= &b);
            EXPECT_EQ(a == b, &a == &b);
            EXPECT_EQ(a != b, &a != &b);
        }
    }
    Atime a = at(3, 4), b = at(3, 4);
    a.timezone = 1;
    b.timezone = 2;
    a.dstflag = 1;
    b.dstflag = 0;
    EXPECT_TRUE(a == b && a <= b && a >= b);
}

TEST(Atime, instant_zero_leaves_the_unread_fields_alone) {
    alignas(_Atime) unsigned char raw[sizeof(_Atime)];
    memset(raw, 0xAA, sizeof raw);
    const _Atime* t = new (raw) _Atime(false);
    EXPECT_EQ(t->time, 0);
    EXPECT_EQ(t->millitm, 0);
    EXPECT_EQ(static_cast<uint16_t>(t->timezone), 0xAAAA);
    EXPECT_EQ(static_cast<uint16_t>(t->dstflag), 0xAAAA);
}

TEST(Atime, converts_to_and_from_the_systems_records) {
    struct ::timeb record = {};
    record.time = 1500000000;
    record.millitm = 250;
    record.timezone = -60;
    record.dstflag = 1;
    Atime t(false);
    t = record;
    const struct ::timeb back = t;
    EXPECT_EQ(back.time, record.time);
    EXPECT_EQ(back.millitm, record.millitm);
    EXPECT_EQ(back.timezone, record.timezone);
    EXPECT_EQ(back.dstflag, record.dstflag);
    const struct ::timespec spec = t;
    EXPECT_EQ(spec.tv_sec, 1500000000);
    EXPECT_EQ(spec.tv_nsec, 250000000);
}

TEST(Atime, real_time_adds_the_offset_with_one_carry) {
    static const struct {
        uint16_t ms, offset_ms;
        int seconds;
        uint16_t result;
    } rows[] = {{1, 998, 0, 999}, {1, 999, 1, 0}, {999, 999, 1, 998}, {999, 1999, 1, 1998}};
    for (const auto& r : rows) {
        struct ::timeb offset = {};
        offset.time = 3600;
        offset.millitm = r.offset_ms;
        offset.timezone = 5;
        Atime::set_real_offset(offset);
        const struct ::timeb real = at(100, r.ms).real_timeb();
        EXPECT_EQ(real.time, 3700 + r.seconds) << r.ms << "+" << r.offset_ms;
        EXPECT_EQ(real.millitm, r.result);
        EXPECT_EQ(real.timezone, 0);
    }
    Atime::set_real_offset({});
    EXPECT_EQ(at(100, 7).real_timeb().time, 100);
}

TEST(Atime, the_current_time_comes_from_the_one_clock) {
    Manual_clock clock(1000, 250);
    EXPECT_EQ(Atime::now(), at(1000, 250));
    EXPECT_EQ(Atime::from_now(750), at(1001, 0));
    EXPECT_EQ(Atime(false).set_from_now(-251), at(999, 999));
    EXPECT_EQ(Atime::now_ms_into_day(), 1000250u);
    EXPECT_EQ(Atime::get_current_time(), 1000);
    const Atime then = Atime::from_now(100);
    EXPECT_EQ(then.get_ms_from_now(), 100);
    clock.advance(130);
    EXPECT_EQ(then.get_ms_from_now(), -30);
    EXPECT_EQ(then.get_elapsed_ms_since(), 30);
    clock.set(1000 + 30 * 86400);
    EXPECT_EQ(then.get_elapsed_ms_since(), Atime::week_ms);
}

TEST(Atime, delay_of_nothing_returns_at_once) {
    const Atime start = Atime::now();
    for (int ms : {0, -1, INT_MIN}) Atime::delay(ms);
    Atime::delay(20);
    EXPECT_GE(start.get_elapsed_ms_since(), 19);
}

TEST(Atime, spoilt_milliseconds_end_the_process) {
    const Child_result r = run_child([] {
        Atime t = at(1, 1000);
        t += 1;
    });
    EXPECT_EQ(r.signal, SIGABRT);
    EXPECT_NE(r.err.find("util/atime:1: const Atime& Atime::operator+=(int): Assertion `tm.millitm < 1000' failed."),
              std::string::npos)
        << r.err;
}

} // namespace
