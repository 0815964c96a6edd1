// SPDX-License-Identifier: MIT
#include "util/atime.h"
#include "util/assertion.h"
#include "util/clock.h"
#include <cerrno>

namespace {

constexpr uint32_t week_s = 604800;
constexpr uint32_t day_ms = 86400000;

void check_millitm(const _Atime& t) {
    if (t.millitm < 1000) return;
    Util::assertion_failed("tm.millitm < 1000", "util/atime", 1, "const Atime& Atime::operator+=(int)");
}

/// Seconds wrap as they do on the board: sums are made unsigned, where wrapping is defined.
int32_t add_seconds(int32_t time, uint32_t seconds) {
    return static_cast<int32_t>(static_cast<uint32_t>(time) + seconds);
}

} // namespace

struct ::timeb _Atime::real_offset = {};

_Atime::_Atime(bool now) {
    if (now) {
        set_now();
    } else {
        time = 0;
        millitm = 0;
    }
}

void _Atime::set_now() {
    struct ::timespec now;
    Util::wall_clock(now);
    time = static_cast<int32_t>(now.tv_sec);
    millitm = static_cast<uint16_t>(now.tv_nsec / 1000000);
    timezone = 0;
    dstflag = 0;
}

unsigned _Atime::week() const { return static_cast<uint32_t>(time) / week_s; }
unsigned _Atime::ms_into_week() const { return static_cast<uint32_t>(time) % week_s * 1000 + millitm; }
unsigned _Atime::ms_into_day() const { return ms_into_week() % day_ms; }

Atime Atime::from_now(int ms) {
    Atime t(true);
    t += ms;
    return t;
}

Atime& Atime::set_from_now(int ms) {
    set_now();
    *this += ms;
    return *this;
}

unsigned Atime::now_ms_into_day() { return now().ms_into_day(); }

int Atime::get_ms_from_now() const { return *this - now(); }
int Atime::get_elapsed_ms_since() const { return now() - *this; }

const Atime& Atime::operator+=(int ms) {
    check_millitm(*this);
    const auto sum = static_cast<int32_t>(millitm + static_cast<uint32_t>(ms));
    if (sum >= 0) {
        millitm = static_cast<uint16_t>(sum % 1000);
        time = add_seconds(time, static_cast<uint32_t>(sum / 1000));
    } else {
        const auto back = static_cast<uint32_t>((sum + 1) / -1000 + 1);
        time = add_seconds(time, 0 - back);
        millitm = static_cast<uint16_t>(static_cast<uint32_t>(sum) + 1000 * back);
    }
    check_millitm(*this);
    return *this;
}

const Atime& Atime::operator-=(int ms) { return *this += static_cast<int>(0 - static_cast<unsigned>(ms)); }

Atime Atime::operator+(int ms) const {
    Atime t(*this);
    t += ms;
    return t;
}

Atime Atime::operator-(int ms) const {
    Atime t(*this);
    t -= ms;
    return t;
}

int Atime::operator-(const _Atime& b) const {
    const bool later = time > b.time;
    const uint32_t seconds = later ? static_cast<uint32_t>(time) - static_cast<uint32_t>(b.time)
                                   : static_cast<uint32_t>(b.time) - static_cast<uint32_t>(time);
    if (seconds > week_s) return later ? week_ms : -week_ms;
    const int whole = static_cast<int>(seconds * 1000);
    return (later ? whole : -whole) + millitm - b.millitm;
}

bool Atime::operator<(const _Atime& b) const { return time < b.time || (time == b.time && millitm < b.millitm); }
bool Atime::operator>(const _Atime& b) const { return time > b.time || (time == b.time && millitm > b.millitm); }
bool Atime::operator==(const _Atime& b) const { return time == b.time && millitm == b.millitm; }

Atime& Atime::operator=(const struct ::timeb& t) {
    time = static_cast<int32_t>(t.time);
    millitm = t.millitm;
    timezone = t.timezone;
    dstflag = t.dstflag;
    return *this;
}

struct ::timeb Atime::timeb() const {
    struct ::timeb t = {};
    t.time = time;
    t.millitm = millitm;
    t.timezone = timezone;
    t.dstflag = dstflag;
    return t;
}

struct ::timespec Atime::timespec() const {
    struct ::timespec t = {};
    t.tv_sec = time;
    t.tv_nsec = millitm * 1000000L;
    return t;
}

struct ::timeb Atime::real_timeb() const {
    auto seconds = static_cast<uint32_t>(real_offset.time);
    unsigned ms = static_cast<unsigned>(millitm) + real_offset.millitm;
    if (ms >= 1000) {
        ms -= 1000;
        ++seconds;
    }
    struct ::timeb t = {};
    t.time = add_seconds(time, seconds);
    t.millitm = static_cast<uint16_t>(ms);
    return t;
}

void Atime::set_real_offset(const struct ::timeb& offset) { real_offset = offset; }

int32_t Atime::get_current_time() { return now().time; }

void Atime::delay(int ms) {
    if (ms <= 0) return;
    struct ::timespec left = {};
    left.tv_sec = ms / 1000;
    left.tv_nsec = ms % 1000 * 1000000L;
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}
