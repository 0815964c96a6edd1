// SPDX-License-Identifier: MIT
#include "Track_plot.h"
#include "svg/Svg.h"
#include <algorithm>
#include <cerrno>
#include <cmath>

namespace {

constexpr size_t most_positions = 40000; // an hour at 10 Hz; beyond that a picture of this size shows no more
constexpr size_t most_marks = 1000;
constexpr double width = 900, least_height = 240, most_height = 640, margin = 40; // [pixels]
constexpr int line_height = 20;
constexpr double pi = 3.141592653589793;
constexpr double earth_radius = 6371000; // [m]

const char* fix_colour(int fix) {
    constexpr const char* colours[] = {"#7f7f7f", "#8c564b", "#9467bd", "#ff7f0e",
                                       "#2ca02c", "#1f77b4", "#17becf", "#bcbd22"};
    return colours[static_cast<unsigned>(fix) % 8];
}

/// The solution on which a machine can be steered is a solid line, whatever else came a broken one.
const char* fix_dashes(int fix) { return fix == Track_plot::fixed ? "" : " stroke-dasharray=\"7,4\""; }

/// Marks differ by shape as well as by colour: from their middle on.
constexpr struct {
    const char *colour, *path;
} marks[] = {{"#d62728", "m0,-6 l5,10 h-10 z"},
             {"#000000", "m-4,-4 h8 v8 h-8 z"},
             {"#e377c2", "m0,-6 l6,6 l-6,6 l-6,-6 z"},
             {"#1a55ff", "m0,6 l5,-10 h-10 z"}};

} // namespace

std::string Track_plot::fix_name(int fix) {
    switch (fix) {
    case 0:
        return "no solution";
    case floating:
        return "float";
    case fixed:
        return "fixed";
    default:
        return "solution " + std::to_string(fix);
    }
}

/// From latitude and longitude to the picture's pixels, the whole track within the margins.
class Track_plot::Map {
public:
    explicit Map(const std::vector<Position>& track) : _origin(track.front()) {
        for (const Position& p : track) {
            _west = std::min(_west, east(p)), _east = std::max(_east, east(p));
            _south = std::min(_south, north(p)), _north = std::max(_north, north(p));
        }
        const double room = width - 2 * margin;
        const double wide = std::max(_east - _west, 1.0), high = std::max(_north - _south, 1.0);
        scale = std::min(room / wide, (most_height - 2 * margin) / high);
        height = std::max(least_height, high * scale + 2 * margin);
    }
    double x(const Position& p) const { return margin + (east(p) - _west) * scale; }
    double y(const Position& p) const { return margin + (_north - north(p)) * scale; }

    double scale;  ///< [pixels/m]
    double height; ///< [pixels]

private:
    double east(const Position& p) const {
        return std::remainder(p.lon - _origin.lon, 2 * pi) * cos(_origin.lat) * earth_radius;
    }
    double north(const Position& p) const { return (p.lat - _origin.lat) * earth_radius; }

    const Position _origin;
    double _west = 0, _east = 0, _south = 0, _north = 0; // [m]
};

void Track_plot::add(double lat, double lon, int fix) {
    // What is on no globe would stretch the picture beyond what a number can hold; so does one that is not finite.
    if (!(std::abs(lat) <= pi / 2 && std::abs(lon) <= 2 * pi)) return;
    ++_fixes[fix];
    if (++_skipped < _every && !_track.empty() && _track.back().fix == fix) return;
    _skipped = 0;
    _track.push_back({lat, lon, fix});
    if (_track.size() < most_positions) return;
    for (size_t i = 0; i < most_positions / 2; ++i) _track[i] = _track[2 * i];
    _track.resize(most_positions / 2);
    _every *= 2;
}

void Track_plot::mark(const char* what) {
    if (_track.empty()) return;
    ++_happened[what];
    if (_marks.size() < most_marks) _marks.push_back({_track.back(), what});
}

bool Track_plot::write(const char* path) const {
    if (_track.empty()) {
        errno = ENODATA;
        return false;
    }
    FILE* out = fopen(path, "we");
    if (!out) return false;
    draw(out);
    const bool written = !ferror(out);
    return fclose(out) == 0 && written;
}

void Track_plot::draw(FILE* file) const {
    const Map map(_track);
    const auto lines = static_cast<double>(_fixes.size() + _happened.size());
    const double height = map.height + line_height * (lines + 1);
    Svg out(file, width, height, 15);
    draw_track(out, map);
    draw_marks(out, map);
    draw_legend(out, map);
}

/// One line for each stretch of one kind of solution; it goes on to where the next one begins.
void Track_plot::draw_track(Svg& out, const Map& map) const {
    for (size_t i = 0; i < _track.size(); ++i) {
        const int fix = _track[i].fix;
        const std::string look = std::string("stroke-width=\"2.5\" stroke-linejoin=\"round\" stroke=\"") +
                                 fix_colour(fix) + "\"" + fix_dashes(fix);
        out.line_to(map.x(_track[i]), map.y(_track[i]), look);
        if (i + 1 < _track.size() && _track[i + 1].fix == fix) continue;
        if (i + 1 < _track.size()) out.line_to(map.x(_track[i + 1]), map.y(_track[i + 1]), look);
        out.end_line();
    }
    out.put("<circle cx=\"%.1f\" cy=\"%.1f\" r=\"4\" fill=\"black\"><title>start</title></circle>\n",
            map.x(_track.front()), map.y(_track.front()));
}

void Track_plot::draw_mark(Svg& out, double x, double y, const std::string& what) const {
    const auto& mark = marks[std::distance(_happened.begin(), _happened.find(what)) % 4];
    out.put("<path d=\"M%.1f,%.1f %s\" fill=\"%s\" stroke=\"white\"><title>%s</title></path>\n", x, y, mark.path,
            mark.colour, what.c_str());
}

void Track_plot::draw_marks(Svg& out, const Map& map) const {
    for (const Mark& m : _marks) draw_mark(out, map.x(m.at), map.y(m.at), m.what);
}

void Track_plot::draw_legend(Svg& out, const Map& map) const {
    const double bar = Svg::step(width / 8 / map.scale); // about an eighth of the picture
    double y = map.height;
    out.put(
        "<path d=\"M%.0f,%.0f h%.1f\" stroke=\"black\" stroke-width=\"2\"/><text x=\"%.1f\" y=\"%.0f\">%g m, north is "
        "up; the dot is the start</text>\n",
        margin, y - 4, bar * map.scale, margin + bar * map.scale + 8, y, bar);
    for (const auto& [fix, count] : _fixes) {
        y += line_height;
        out.put("<path d=\"M%.0f,%.0f h24\" stroke=\"%s\"%s stroke-width=\"4\"/>", margin, y - 4, fix_colour(fix),
                fix_dashes(fix));
        out.put("<text x=\"%.0f\" y=\"%.0f\">%s: %u positions</text>\n", margin + 34, y, fix_name(fix).c_str(), count);
    }
    for (const auto& [what, count] : _happened) {
        y += line_height;
        draw_mark(out, margin + 12, y - 4, what);
        out.put("<text x=\"%.0f\" y=\"%.0f\">%s: %u</text>\n", margin + 34, y, what.c_str(), count);
    }
}
