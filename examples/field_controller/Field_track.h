// SPDX-License-Identifier: MIT
#pragma once

/// A machine that works a trial plot in parallel rows, up and down, with a half circle on the headland between two
/// rows.
///
///        ___         ___
///       /   \       /   \      headland
///      |     |     |     |
///      |     |     |     |     rows, to the north and back
///      |      \___/      |
///    start
///
/// The plot has no last row: the machine works on eastwards as long as it runs.
class Field_track {
public:
    struct Pose {
        double east, north; ///< [m] from the start of the first row
        double heading;     ///< [rad] clockwise from north
        double speed;       ///< [m/s]
        int row;            ///< from 0; during a turn the row that was left
        bool turning;
    };

    Pose at(double seconds) const;

    static constexpr double row_length = 24;  ///< [m]
    static constexpr double row_distance = 6; ///< [m]
    static constexpr double row_speed = 4;    ///< [m/s]
    static constexpr double turn_speed = 2.5; ///< [m/s]
};
