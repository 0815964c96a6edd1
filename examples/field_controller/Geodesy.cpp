// SPDX-License-Identifier: MIT
#include "Geodesy.h"
#include <cmath>

namespace Geodesy {
namespace {

constexpr double semi_major = 6378137.0;         // [m], WGS 84
constexpr double flattening = 1 / 298.257223563; // WGS 84
constexpr double ecc2 = flattening * (2 - flattening);

/// Radius of curvature in the prime vertical [m].
double prime_vertical(double lat) {
    const double s = std::sin(lat);
    return semi_major / std::sqrt(1 - ecc2 * s * s);
}

} // namespace

Ecef to_ecef(const Geodetic& p) {
    const double n = prime_vertical(p.lat);
    const double in_plane = (n + p.hgt) * std::cos(p.lat);
    return {in_plane * std::cos(p.lon), in_plane * std::sin(p.lon), (n * (1 - ecc2) + p.hgt) * std::sin(p.lat)};
}

Geodetic to_geodetic(const Ecef& p) {
    const double in_plane = std::hypot(p.x, p.y);
    double lat = std::atan2(p.z, in_plane * (1 - ecc2));
    // The fixed-point step gains about two decimals a turn near the surface.
    for (int i = 0; i < 6; ++i) lat = std::atan2(p.z + ecc2 * prime_vertical(lat) * std::sin(lat), in_plane);
    const double hgt = in_plane * std::cos(lat) + p.z * std::sin(lat) - semi_major * semi_major / prime_vertical(lat);
    return {lat, std::atan2(p.y, p.x), hgt};
}

Ecef rotate(const Geodetic& origin, const Enu& d) {
    const double sin_lat = std::sin(origin.lat), cos_lat = std::cos(origin.lat);
    const double sin_lon = std::sin(origin.lon), cos_lon = std::cos(origin.lon);
    const double outward = d.up * cos_lat - d.north * sin_lat;
    return {outward * cos_lon - d.east * sin_lon, outward * sin_lon + d.east * cos_lon,
            d.north * cos_lat + d.up * sin_lat};
}

Ecef displace(const Geodetic& origin, const Enu& d) {
    const Ecef base = to_ecef(origin), way = rotate(origin, d);
    return {base.x + way.x, base.y + way.y, base.z + way.z};
}

} // namespace Geodesy
