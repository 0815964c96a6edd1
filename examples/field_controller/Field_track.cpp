// SPDX-License-Identifier: MIT
#include "Field_track.h"
#include <cmath>

Field_track::Pose Field_track::at(double seconds) const {
    constexpr double pi = 3.141592653589793;
    constexpr double radius = row_distance / 2;
    constexpr double row_time = row_length / row_speed;
    constexpr double turn_time = pi * radius / turn_speed;

    const int row = static_cast<int>(seconds / (row_time + turn_time));
    const double in_row = seconds - row * (row_time + turn_time);
    const bool northward = row % 2 == 0;
    const double row_east = row * row_distance;

    if (in_row < row_time) {
        const double gone = in_row * row_speed;
        return {row_east, northward ? gone : row_length - gone, northward ? 0 : pi, row_speed, row, false};
    }
    // Half a circle to the next row in the east, clockwise behind a northward row.
    const double turned = (in_row - row_time) / turn_time * pi;
    const double east = row_east + radius * (1 - std::cos(turned));
    const double outward = radius * std::sin(turned);
    return {east, northward ? row_length + outward : -outward, northward ? turned : pi - turned, turn_speed, row, true};
}
