// SPDX-License-Identifier: MIT
// The catalogue of receiver messages. What the library knows about a message stands here and nowhere else: the view
// classes, their accessors, the printer, the checkers and GNSS_messages::find follow from it. Included several times
// (there is no include guard), each time with other meanings of the macros; those left undefined expand to nothing.
//
//   GNSS_MESSAGE(name, wire, about, fields, labelled, comma, values...)
//       A message of fixed layout: Msg_<name>, the identifier as sent, what it is, its fields in the order of their
//       offsets, the printed line for people and for logs, and the values of both lines, read from the message `m`.
//   GNSS_FIELD(offset, type, name, unit) and GNSS_PAIR(offset, type, name, unit)
//       One field, or two neighbours that are told apart by an index. The offset counts from the start of the frame, so
//       that the body begins at 5. Types: u unsigned, i signed, f IEEE 754; with the width in bytes; little-endian.
//       The unit is empty for counts, ratios and codes, and where it is the receiver's own.
//   GNSS_ARRAY(name, wire, about, type, unit, spare, scale)
//       One element per satellite from offset 5 on: as many as the body is long, less `spare`. Printed times `scale`.
//   GNSS_TEXT(name, wire, about)
//       A line of text in a frame; it has no view class.
//
//   GNSS_EACH(name, wire)
//       Stands in for those of the three above that are not defined.
//
// The last byte of the body is the checksum, which is not listed.

#ifndef GNSS_EACH
#define GNSS_EACH(name, wire)
#endif
#ifndef GNSS_MESSAGE
#define GNSS_MESSAGE(name, wire, ...) GNSS_EACH(name, wire)
#endif
#ifndef GNSS_ARRAY
#define GNSS_ARRAY(name, wire, ...) GNSS_EACH(name, wire)
#endif
#ifndef GNSS_TEXT
#define GNSS_TEXT(name, wire, about) GNSS_EACH(name, wire)
#endif

// clang-format off

GNSS_MESSAGE(PG, "PG", "geodetic position",
    GNSS_FIELD( 5, f8, lat,   "rad")
    GNSS_FIELD(13, f8, lon,   "rad")
    GNSS_FIELD(21, f8, hgt,   "m")
    GNSS_FIELD(29, f4, sigma, "m")
    GNSS_FIELD(33, u1, type,  ""),
    "PG lat=%.10f lon=%.10f hgt=%.3fm sigma=%.2f type=%d",
    "PG,%.10f,%.10f,%.3f,%.2f,%d",
    degrees(m.lat()), degrees(m.lon()), m.hgt(), m.sigma(), m.type())

GNSS_MESSAGE(PV, "PV", "position and velocity",
    GNSS_FIELD( 5, f8, x,      "m")
    GNSS_FIELD(13, f8, y,      "m")
    GNSS_FIELD(21, f8, z,      "m")
    GNSS_FIELD(29, f4, psigma, "m")
    GNSS_FIELD(33, f4, vx,     "m/s")
    GNSS_FIELD(37, f4, vy,     "m/s")
    GNSS_FIELD(41, f4, vz,     "m/s")
    GNSS_FIELD(45, f4, vsigma, "m/s")
    GNSS_FIELD(49, u1, type,   ""),
    "PV pos={%.3f,%.3f,%.3f} psigma=%.3f vel={%.3f,%.3f,%.3f} vsigma=%.3f type=%d",
    "PV,{%.3f,%.3f,%.3f},%.3f,{%.3f,%.3f,%.3f},%.3f,%d",
    m.x(), m.y(), m.z(), m.psigma(), m.vx(), m.vy(), m.vz(), m.vsigma(), m.type())

GNSS_MESSAGE(SG, "SG", "position and velocity sigmas",
    GNSS_FIELD( 5, f4, hpos, "m")
    GNSS_FIELD( 9, f4, vpos, "m")
    GNSS_FIELD(13, f4, hvel, "m/s")
    GNSS_FIELD(17, f4, vvel, "m/s")
    GNSS_FIELD(21, u1, type, ""),
    "SG hpos=%.2f vpos=%.2f hvel=%.2f vvel=%.2f type=%d",
    "SG,%.2f,%.2f,%.2f,%.2f,%d",
    m.hpos(), m.vpos(), m.hvel(), m.vvel(), m.type())

// The two dilutions that are not sent are estimated from the horizontal one alone.
GNSS_MESSAGE(DP, "DP", "dilutions of precision",
    GNSS_FIELD( 5, f4, hdop, "")
    GNSS_FIELD( 9, f4, vdop, "")
    GNSS_FIELD(13, f4, tdop, "")
    GNSS_FIELD(17, u1, type, ""),
    "DP hdop=%.2f vdop=%.2f tdop=%.2f gdop=%.2f pdop=%.2f type=%d",
    "DP,%.2f,%.2f,%.2f,%.2f,%.2f,%d",
    m.hdop(), m.vdop(), m.tdop(), times_root(m.hdop(), 3), times_root(m.hdop(), 2), m.type())

GNSS_MESSAGE(PS, "PS", "satellite counts",
    GNSS_FIELD( 5, u1, type,   "")
    GNSS_PAIR ( 6, u1, locked, "")
    GNSS_PAIR ( 8, u1, avail,  "")
    GNSS_PAIR (10, u1, used,   "")
    GNSS_FIELD(12, u1, fix,    ""),
    "PS type=%d locked={%d,%d} avail={%d,%d} used={%d,%d} fix=%d",
    "PS,%d,{%d,%d},{%d,%d},{%d,%d},%d",
    m.type(), m.locked(0), m.locked(1), m.avail(0), m.avail(1), m.used(0), m.used(1), m.fix())

GNSS_MESSAGE(RD, "RD", "receiver date",
    GNSS_FIELD(5, u2, year,  "year")
    GNSS_FIELD(7, u1, month, "month")
    GNSS_FIELD(8, u1, day,   "day")
    GNSS_FIELD(9, u1, base,  ""),
    "RD date=%02d/%02d/%02d base=%d",
    "RD,%02d/%02d/%02d,%d",
    m.day(), m.month(), m.year(), m.base())

// The first three times are printed as signed numbers, the last one is not: the programs that read the logs know it so.
GNSS_MESSAGE(ST, "ST", "time tag",
    GNSS_FIELD(5, u4, ms,   "ms")
    GNSS_FIELD(9, u1, type, ""),
    "ST ms=%d type=%d",
    "ST,%d,%d",
    static_cast<int>(m.ms()), m.type())

GNSS_MESSAGE(NT, "NT", "time and day",
    GNSS_FIELD(5, u4, ms,  "ms")
    GNSS_FIELD(9, u2, day, "day"),
    "NT ms=%d day=%d",
    "NT,%d,%d",
    static_cast<int>(m.ms()), m.day())

GNSS_MESSAGE(GT, "GT", "time and week",
    GNSS_FIELD(5, u4, ms,   "ms")
    GNSS_FIELD(9, u2, week, "week"),
    "GT ms=%d week=%d",
    "GT,%d,%d",
    static_cast<int>(m.ms()), m.week())

GNSS_MESSAGE(RT, "~~", "time",
    GNSS_FIELD(5, u4, ms, "ms"),
    "RT ms=%u",
    "RT,%u",
    m.ms())

GNSS_MESSAGE(EE, "||", "mark without fields", , "EE", "EE")

GNSS_MESSAGE(GA, "GA", "GPS almanac",
    GNSS_FIELD( 5, u1, sv,       "")
    GNSS_FIELD( 6, i2, week,     "week")
    GNSS_FIELD( 8, i4, ms,       "ms")
    GNSS_FIELD(12, u1, healthA,  "")
    GNSS_FIELD(13, u1, healthS,  "")
    GNSS_FIELD(14, u1, config,   "")
    GNSS_FIELD(15, f4, af1,      "")
    GNSS_FIELD(19, f4, af0,      "")
    GNSS_FIELD(23, f4, rootA,    "")
    GNSS_FIELD(27, f4, ecc,      "")
    GNSS_FIELD(31, f4, m0,       "")
    GNSS_FIELD(35, f4, omega0,   "")
    GNSS_FIELD(39, f4, argPer,   "")
    GNSS_FIELD(43, f4, deli,     "")
    GNSS_FIELD(47, f4, omegaDot, ""),
    "GA sv=%d week=%d ms=%d healthA=%x healthS=%x config=%x af1=%.3e af0=%.3e rootA=%.3e ecc=%.3e m0=%.3e"
    " omega0=%.3e argPer=%.3e deli=%.3e omegaDot=%.3e",
    "GA,%d,%d,%d,%x,%x,%x,%.3e,%.3e,%.3e,%.3e,%.3e,%.3e,%.3e,%.3e,%.3e",
    m.sv(), m.week(), m.ms(), bits(m.healthA()), bits(m.healthS()), bits(m.config()), m.af1(), m.af0(), m.rootA(),
    m.ecc(), m.m0(), m.omega0(), m.argPer(), m.deli(), m.omegaDot())

// "ecc" has no "=": the programs that read the logs know it so.
GNSS_MESSAGE(NA, "NA", "GLONASS almanac",
    GNSS_FIELD( 5, u1, sv,     "")
    GNSS_FIELD( 6, i1, freq,   "")
    GNSS_FIELD( 7, i2, day,    "day")
    GNSS_FIELD( 9, f4, time,   "")
    GNSS_FIELD(13, u1, health, "")
    GNSS_FIELD(14, f4, tauN,   "")
    GNSS_FIELD(18, f8, tauSys, "")
    GNSS_FIELD(26, f4, ecc,    "")
    GNSS_FIELD(30, f4, lambda, "")
    GNSS_FIELD(34, f4, argPer, "")
    GNSS_FIELD(38, f4, delT,   "")
    GNSS_FIELD(42, f4, delTdt, "")
    GNSS_FIELD(46, f4, deli,   ""),
    "NA sv=%d freq=%d day=%d time=%.3f health=%x tauN=%.3e tauSys=%.3e ecc%.3e lambda=%.3e argPer=%.3e delT=%.3e"
    " delTdt=%.3e deli=%.3e",
    "NA,%d,%d,%d,%.3f,%x,%.3e,%.3e,%.3e,%.3e,%.3e,%.3e,%.3e,%.3e",
    m.sv(), m.freq(), m.day(), m.time(), bits(m.health()), m.tauN(), m.tauSys(), m.ecc(), m.lambda(), m.argPer(),
    m.delT(), m.delTdt(), m.deli())

GNSS_ARRAY(E1, "E1", "per-satellite values", u1, "",      1, 1)
GNSS_ARRAY(E2, "E2", "per-satellite values", u1, "",      1, 1)
GNSS_ARRAY(EC, "EC", "per-satellite values", u1, "",      1, 1)
GNSS_ARRAY(NN, "NN", "per-satellite values", u1, "",      1, 1)
GNSS_ARRAY(SI, "SI", "per-satellite values", u1, "",      1, 1)
GNSS_ARRAY(SS, "SS", "per-satellite values", u1, "",      2, 1)
GNSS_ARRAY(EL, "EL", "elevations",           i1, "deg",   1, 1)
GNSS_ARRAY(AZ, "AZ", "azimuths",             u1, "2 deg", 1, 2)
// Only half of these elements fit into the body; the others read the checksum and what lies behind it.
GNSS_ARRAY(TC, "TC", "per-satellite values", u2, "",      1, 1)

GNSS_TEXT(RE, "RE", "reply")
GNSS_TEXT(ER, "ER", "error reply")
GNSS_TEXT(DL, "DL", "text")
GNSS_TEXT(NP, "NP", "text")

// clang-format on

#undef GNSS_EACH
#undef GNSS_MESSAGE
#undef GNSS_ARRAY
#undef GNSS_TEXT
#undef GNSS_FIELD
#undef GNSS_PAIR
