// SPDX-License-Identifier: MIT
#pragma once

/// The few conversions of the WGS 84 ellipsoid that the simulated machine needs.
namespace Geodesy {

/// Latitude and longitude [rad], height above the ellipsoid [m].
struct Geodetic {
    double lat, lon, hgt;
};

/// Earth-centred, earth-fixed coordinates [m].
struct Ecef {
    double x, y, z;
};

/// Local coordinates [m] at some origin: to the east, to the north, upwards.
struct Enu {
    double east, north, up;
};

Ecef to_ecef(const Geodetic& p);
/// Exact to well below a millimetre for heights of a few kilometres.
Geodetic to_geodetic(const Ecef& p);
/// A local displacement at `origin`, turned into earth-fixed axes (a direction, not a place).
Ecef rotate(const Geodetic& origin, const Enu& d);
/// The place that lies `d` away from `origin`.
Ecef displace(const Geodetic& origin, const Enu& d);

} // namespace Geodesy
