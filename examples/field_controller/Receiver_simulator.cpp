// SPDX-License-Identifier: MIT
#include "Receiver_simulator.h"
#include "Machine_clock.h"
#include "glue/vorn/Vorn_message.h"
#include <cmath>
#include <initializer_list>
#include <mutex>

namespace {

constexpr double pi = 3.141592653589793;
constexpr unsigned satellites = 12;
constexpr uint32_t day_ms = 86400000;

enum Fix_type : unsigned char { fix_float = 3, fix_fixed = 4 };

/// A frame under construction: fields are set at their offsets, the checksum and the line end come last.
class Frame : public Vorn_message {
public:
    Frame(const char* id, unsigned body_length) : Vorn_message(_bytes, body_length + 5) {
        setup(static_cast<unsigned short>(id[0] | id[1] << 8), body_length + 5);
    }
    std::string finished() {
        set_checksum();
        return std::string(reinterpret_cast<const char*>(data), size) + "\r\n";
    }

private:
    unsigned char _bytes[128] = {};
};

/// What the satellites say: the host's time.
Atime satellite_time() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    Atime t = Atime::now();
    t.time = static_cast<int32_t>(now.tv_sec);
    t.millitm = static_cast<uint16_t>(now.tv_nsec / 1000000);
    return t;
}

/// One byte for each satellite.
template <class Value>
std::string satellite_array(const char* id, Value value) {
    Frame f(id, satellites + 1);
    for (unsigned sv = 0; sv < satellites; ++sv) f.set_uint8(5 + sv, static_cast<unsigned char>(value(sv)));
    return f.finished();
}

/// A reply or another text: without a checksum.
std::string text_frame(const char* id, const std::string& text) {
    char header[8];
    snprintf(header, sizeof header, "%s%03X", id, static_cast<unsigned>(text.size()));
    return header + text + "\r\n";
}

} // namespace

Receiver_simulator::Receiver_simulator(Data_stream& line, Link_watch& watch, unsigned frames_per_fault, int speed)
    : _line(line), _watch(watch), _faults(2026), _origin{49.2 * pi / 180, 8.6 * pi / 180, 112.5} {
    _faults.set_rate(frames_per_fault);
    _tick.period = period_ms / speed;
}

void Receiver_simulator::init(module_man& modules) { init(modules, Descriptor("SIM", 1)); }

Receiver_simulator::Counts Receiver_simulator::counts() const {
    lock(-1);
    Counts c = _counts;
    c.faults = _faults.faults();
    unlock();
    return c;
}

void Receiver_simulator::send(std::string frame, unsigned& counter) {
    bool damaged;
    frame = _faults.pass(frame, damaged);
    _watch.about_to_write();
    const unsigned n = static_cast<unsigned>(frame.size());
    if (_line._write(reinterpret_cast<const unsigned char*>(frame.data()), n) != n) {
        ++_counts.unsent;
        return;
    }
    ++counter;
    _counts.damaged += damaged;
    _counts.bytes += n;
}

void Receiver_simulator::handle_timeout(Timeout&) {
    if (_watch.behind(_counts.bytes)) {
        ++_counts.held_back;
    } else {
        send_epoch();
    }
}

void Receiver_simulator::send_epoch() {
    Frame time("~~", 5);
    time.set_uint32_le(5, satellite_time().ms_into_day());
    send(time.finished(), _counts.frames);

    send_position(_track.at(_epoch * period_ms / 1000.0));
    if (_epoch % 10 == 0) {
        send_clocks();
        send_satellites();
        send_almanac(_epoch / 10);
    }
    if (_epoch % 20 == 5) send_reply();
    if (_epoch % 20 == 15) send_text();

    Frame end("||", 1);
    send(end.finished(), _counts.frames);
    ++_epoch;
}

void Receiver_simulator::send_position(const Field_track::Pose& pose) {
    const unsigned char type = pose.turning ? fix_float : fix_fixed;
    const float sigma = pose.turning ? 0.15f : 0.02f;
    const Geodesy::Ecef place = Geodesy::displace(_origin, {pose.east, pose.north, 0});
    const Geodesy::Geodetic geodetic = Geodesy::to_geodetic(place);
    const Geodesy::Ecef velocity =
        Geodesy::rotate(_origin, {pose.speed * std::sin(pose.heading), pose.speed * std::cos(pose.heading), 0});

    Frame pg("PG", 30);
    pg.set_double(5, geodetic.lat);
    pg.set_double(13, geodetic.lon);
    pg.set_double(21, geodetic.hgt);
    pg.set_float(29, sigma);
    pg.set_uint8(33, type);
    send(pg.finished(), _counts.frames);

    Frame pv("PV", 46);
    pv.set_double(5, place.x);
    pv.set_double(13, place.y);
    pv.set_double(21, place.z);
    pv.set_float(29, sigma);
    pv.set_float(33, static_cast<float>(velocity.x));
    pv.set_float(37, static_cast<float>(velocity.y));
    pv.set_float(41, static_cast<float>(velocity.z));
    pv.set_float(45, 0.03f);
    pv.set_uint8(49, type);
    send(pv.finished(), _counts.frames);

    if (_epoch % 10 != 0) return;
    Frame sg("SG", 18);
    const float sigmas[] = {sigma, 1.6f * sigma, 0.03f, 0.05f};
    for (unsigned i = 0; i < 4; ++i) sg.set_float(5 + 4 * i, sigmas[i]);
    sg.set_uint8(21, type);
    send(sg.finished(), _counts.frames);

    Frame dp("DP", 14);
    const float dops[] = {0.8f, 1.2f, 0.9f};
    for (unsigned i = 0; i < 3; ++i) dp.set_float(5 + 4 * i, dops[i]);
    dp.set_uint8(17, type);
    send(dp.finished(), _counts.frames);
}

void Receiver_simulator::send_clocks() {
    const Atime now = satellite_time();
    const time_t seconds = now.time;
    struct tm date;
    gmtime_r(&seconds, &date);

    Frame rd("RD", 6);
    rd.set_uint16_le(5, static_cast<uint16_t>(date.tm_year + 1900));
    rd.set_uint8(7, static_cast<unsigned char>(date.tm_mon + 1));
    rd.set_uint8(8, static_cast<unsigned char>(date.tm_mday));
    rd.set_uint8(9, 1);
    send(rd.finished(), _counts.frames);

    const int32_t gps = now.time - Machine_clock::gps_to_utc;
    Frame gt("GT", 7);
    gt.set_uint32_le(5, static_cast<uint32_t>(gps % 604800) * 1000 + now.millitm);
    gt.set_uint16_le(9, static_cast<uint16_t>(gps / 604800));
    send(gt.finished(), _counts.frames);

    Frame nt("NT", 7);
    nt.set_uint32_le(5, (now.ms_into_day() + 3 * 3600000) % day_ms); // GLONASS keeps Moscow time
    nt.set_uint16_le(9, static_cast<uint16_t>(date.tm_yday + 1));
    send(nt.finished(), _counts.frames);

    Frame st("ST", 6);
    st.set_uint32_le(5, now.ms_into_day());
    st.set_uint8(9, 0);
    send(st.finished(), _counts.frames);
}

void Receiver_simulator::send_satellites() {
    const double minutes = _epoch * period_ms / 60000.0;
    const auto elevation = [minutes](unsigned sv) { return 40 + 38 * std::sin(sv * 1.7 + minutes / 90); };

    Frame ps("PS", 9);
    // Now and then trees stand close, and once the antenna's cable works loose.
    const unsigned second = _epoch / 10 % 9;
    const unsigned char all[] = {0, 8, 4, 9, 5, 8, 4}, few[] = {0, 3, 1, 9, 5, 3, 1}, none[] = {0, 0, 0, 0, 0, 0, 0};
    const unsigned char* const counts = second == 3 ? few : second == 7 ? none : all;
    for (unsigned i = 0; i < 7; ++i) ps.set_uint8(5 + i, counts[i]);
    ps.set_uint8(12, fix_fixed);
    send(ps.finished(), _counts.frames);

    send(satellite_array("SI", [](unsigned sv) { return sv + 1; }), _counts.frames);
    send(satellite_array("NN", [](unsigned sv) { return sv % 24 + 1; }), _counts.frames);
    send(satellite_array("EL", [&](unsigned sv) { return elevation(sv); }), _counts.frames);
    send(satellite_array("AZ", [&](unsigned sv) { return std::fmod(sv * 30 + minutes / 2, 360) / 2; }), _counts.frames);
    for (const char* id : {"EC", "E1", "E2"})
        send(satellite_array(id, [&](unsigned sv) { return 30 + elevation(sv) / 4; }), _counts.frames);

    Frame ss("SS", satellites + 2);
    for (unsigned sv = 0; sv < satellites; ++sv) ss.set_uint8(5 + sv, 0);
    send(ss.finished(), _counts.frames);

    Frame tc("TC", 2 * satellites + 1);
    for (unsigned sv = 0; sv < satellites; ++sv) tc.set_uint16_le(5 + 2 * sv, static_cast<uint16_t>(_epoch / 10));
    send(tc.finished(), _counts.frames);
}

void Receiver_simulator::send_almanac(unsigned turn) {
    const unsigned sv = turn / 2 % 24 + 1;
    if (turn % 2 == 0) {
        Frame ga("GA", 47);
        ga.set_uint8(5, static_cast<unsigned char>(sv));
        ga.set_int16_le(6, 2300);
        ga.set_int32_le(8, 319488);
        const float orbit[] = {0, 1e-5f, 5153.6f, 0.01f, 0.5f, 1.2f, -0.8f, 0.96f, -8e-9f};
        for (unsigned i = 0; i < 9; ++i) ga.set_float(15 + 4 * i, orbit[i]);
        send(ga.finished(), _counts.frames);
    } else {
        Frame na("NA", 46);
        na.set_uint8(5, static_cast<unsigned char>(sv));
        na.set_int8(6, static_cast<signed char>(sv % 13) - 6);
        na.set_int16_le(7, 1200);
        na.set_float(9, 34567.5f);
        na.set_float(14, 1e-5f);
        na.set_double(18, -2e-9);
        const float orbit[] = {0.001f, 1.1f, 0.4f, -2655.8f, 3e-4f, 0.02f};
        for (unsigned i = 0; i < 6; ++i) na.set_float(26 + 4 * i, orbit[i]);
        send(na.finished(), _counts.frames);
    }
}

void Receiver_simulator::send_reply() {
    const bool good = _epoch % 40 == 5;
    send(good ? text_frame("RE", "%ver%{field simulator,1.0}") : text_frame("ER", "%set%{4,value out of range}"),
         _counts.replies);
}

void Receiver_simulator::send_text() { send(text_frame("NP", "field simulator, all is well"), _counts.frames); }
