// SPDX-License-Identifier: MIT
#pragma once
#include <cstddef>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

class Svg;

/// A machine's track as a picture: seen from above, coloured by the kind of solution that the receiver had, with marks
/// where something went wrong. Metres east and north of the first position, as on a flat earth: good for a field.
/// Not locked.
class Track_plot {
public:
    static constexpr int floating = 3, fixed = 4; ///< the receiver's numbers for solutions with corrections
    /// In words: "fixed", "float".
    static std::string fix_name(int fix);

    /// The machine is at this latitude and longitude [rad]; `fix` is the receiver's number for the kind of solution.
    /// Positions that lie on no globe are ignored; of a long track every second one is forgotten, as often as need be.
    void add(double lat, double lon, int fix);
    /// Something happened at the last position; before the first one it is ignored. `what` is static text without
    /// markup; each of four texts has a colour and a shape of its own.
    void mark(const char* what);

    size_t size() const { return _track.size(); } ///< positions kept
    /// Write the picture (SVG). False when there is no position, or the file cannot be written: errno says why.
    bool write(const char* path) const;

private:
    struct Position {
        double lat, lon;
        int fix;
    };
    struct Mark {
        Position at;
        const char* what;
    };
    class Map;

    void draw_mark(Svg& out, double x, double y, const std::string& what) const;
    void draw(FILE* file) const;
    void draw_track(Svg& out, const Map& map) const;
    void draw_marks(Svg& out, const Map& map) const;
    void draw_legend(Svg& out, const Map& map) const;

    std::vector<Position> _track;
    std::vector<Mark> _marks;
    size_t _every = 1; ///< of this many positions one is kept
    size_t _skipped = 0;
    std::map<int, unsigned> _fixes;            ///< kinds of solution met, and how often
    std::map<std::string, unsigned> _happened; ///< what was marked, and how often
};
