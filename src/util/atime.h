// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <cstdint>
#include <ctime>
#include <sys/timeb.h>

/// A wall-clock instant, plain data: the 12 bytes of the board's `struct timeb`, the same on every host.
/// Seconds are signed 32 bits, so the last instant is in January 2038.
class KAV_API _Atime {
public:
    int32_t time;     ///< seconds since 1970-01-01 00:00:00 UTC
    uint16_t millitm; ///< [ms] within the second, 0..999
    int16_t timezone; ///< carried along, never read
    int16_t dstflag;  ///< carried along, never read

    /// true: the current time. false: instant 0; `timezone` and `dstflag` are left as they are.
    explicit _Atime(bool now);
    static _Atime now() { return _Atime(true); }
    /// Fill in the current time; `timezone` and `dstflag` become 0.
    void set_now();

    /// Whole weeks since the epoch (not a GNSS week); `time` is taken as unsigned.
    unsigned week() const;
    unsigned ms_into_week() const; ///< [ms], 0..604799999; `time` is taken as unsigned
    unsigned ms_into_day() const;  ///< [ms], 0..86399999

    /// What Atime::real_timeb() adds. Zero at start; set once at start-up, without a lock.
    static struct ::timeb real_offset;
};

/// An instant with comparison and millisecond arithmetic. Plain data, no lock, any thread.
/// Differences are clamped to one week either way: that keeps every timeout in 32 bits; a full week counts as far away.
class KAV_API Atime : public _Atime {
public:
    static constexpr int week_ms = 604800000; ///< [ms] the clamp of a difference

    explicit Atime(bool now) : _Atime(now) {}
    explicit Atime(const _Atime& t) : _Atime(t) {}

    static Atime now() { return Atime(true); }
    static Atime from_now(int ms); ///< the current time plus `ms` [ms]
    Atime& set_from_now(int ms);   ///< become the current time plus `ms` [ms]
    static unsigned now_ms_into_day();

    int get_ms_from_now() const;      ///< [ms] until this instant, negative when it has passed; clamped to a week
    int get_elapsed_ms_since() const; ///< [ms] since this instant; clamped to a week

    /// Move by `ms` [ms], either sign. Aborts when `millitm` is 1000 or more.
    const Atime& operator+=(int ms);
    const Atime& operator-=(int ms);
    Atime operator+(int ms) const;
    Atime operator-(int ms) const;
    /// Difference [ms], the real value up to 604800 s of whole seconds apart, else +-604800000.
    int operator-(const _Atime& b) const;

    /// Compare seconds, then milliseconds; `timezone` and `dstflag` never count.
    bool operator<(const _Atime& b) const;
    bool operator>(const _Atime& b) const;
    bool operator<=(const _Atime& b) const { return !(*this > b); }
    bool operator>=(const _Atime& b) const { return !(*this < b); }
    bool operator==(const _Atime& b) const;
    bool operator!=(const _Atime& b) const { return !(*this == b); }

    /// To and from the system's records, field by field.
    Atime& operator=(const struct ::timeb& t);
    struct ::timeb timeb() const;
    operator struct ::timeb() const { return timeb(); }
    struct ::timespec timespec() const;
    operator struct ::timespec() const { return timespec(); }

    /// This instant plus `real_offset`. One carry of a second at most; `timezone` and `dstflag` are 0.
    struct ::timeb real_timeb() const;
    static void set_real_offset(const struct ::timeb& offset);

    static int32_t get_current_time(); ///< [s] since the epoch
    /// Sleep for `ms` [ms]; returns at once for 0 and less.
    static void delay(int ms);
};

static_assert(sizeof(_Atime) == 12 && sizeof(Atime) == 12, "an instant has the layout of the board's timeb");
