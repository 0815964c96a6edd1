// SPDX-License-Identifier: MIT
#include "Value_plot.h"
#include "util/api.h"
#include "util/number_text.h"
#include <algorithm>
#include <cmath>
#include <cstdarg>

namespace {

constexpr size_t most_samples = 20000; // a picture of this size shows no more
constexpr double width = 900, panel_height = 120, panel_gap = 34, margin = 30, left = 90; // [pixels]
constexpr const char* colours[] = {"#1f77b4", "#2ca02c", "#d62728", "#9467bd", "#8c564b", "#e377c2"};

/// Numbers in the C locale, whatever the process's.
KAV_PRINTF(2, 3) void put(FILE* out, const char* fmt, ...) {
    char text[512];
    va_list args;
    va_start(args, fmt);
    Util::vformat(text, sizeof text, fmt, args);
    va_end(args);
    fputs(text, out);
}

std::string escaped(const std::string& text) {
    std::string all;
    for (const char c : text) all += c == '<' ? "&lt;" : c == '&' ? "&amp;" : c == '>' ? "&gt;" : std::string(1, c);
    return all;
}

/// How many digits tell two numbers apart, and some more.
int digits_to_tell(double a, double b) {
    const double ratio = std::abs(a - b) / std::max(std::abs(a), std::abs(b));
    return ratio > 0 ? std::clamp(static_cast<int>(2 - log10(ratio)), 4, 9) : 6;
}

/// A step of 1, 2 or 5 times a power of ten, of which a few go into the range.
double step_for(double range, double wanted) {
    const double power = pow(10, floor(log10(range / wanted)));
    const double rest = range / wanted / power;
    return (rest < 1.5 ? 1 : rest < 3.5 ? 2 : rest < 7.5 ? 5 : 10) * power;
}

} // namespace

/// From a value to its height in a panel.
struct Value_plot::Scale {
    explicit Scale(const std::vector<double>& values) {
        for (const double v : values) {
            if (!std::isfinite(v)) continue;
            least = std::min(least, v);
            most = std::max(most, v);
        }
        const bool none = least > most;
        if (none) least = most = 0;
        // One value alone is a line in the middle. Divided before it is subtracted: a range may be no number.
        const double around = most / 2 - least / 2 > std::abs(most) * 1e-12 ? 0 : std::max(std::abs(most) * 0.05, 0.5);
        bottom = least - around;
        range_half = (most + around) / 2 - bottom / 2;
    }
    double y(double v) const { return panel_height * (1 - (v / 2 - bottom / 2) / range_half); }

    double least = HUGE_VAL, most = -HUGE_VAL;
    double bottom, range_half;
};

void Value_plot::add(double seconds, const std::vector<double>& values) {
    if (++_skipped < _every) return;
    _skipped = 0;
    _times.push_back(seconds);
    _gap.push_back(_interrupted);
    _interrupted = false;
    for (size_t n = 0; n < _values.size(); ++n) _values[n].push_back(n < values.size() ? values[n] : NAN);
    if (_times.size() >= most_samples) thin_out();
}

void Value_plot::thin_out() {
    const size_t half = _times.size() / 2;
    for (size_t i = 0; i < half; ++i) {
        _times[i] = _times[2 * i];
        _gap[i] = _gap[2 * i] || (i > 0 && _gap[2 * i - 1]);
        for (auto& values : _values) values[i] = values[2 * i];
    }
    _times.resize(half);
    _gap.resize(half);
    for (auto& values : _values) values.resize(half);
    _every *= 2;
}

double Value_plot::x(double seconds) const {
    const double length = std::max(_times.back() - _times.front(), 1e-3);
    return left + (seconds - _times.front()) / length * (width - left - margin);
}

void Value_plot::draw(FILE* out) const {
    if (empty()) return;
    const double height = margin + static_cast<double>(_names.size()) * (panel_height + panel_gap) + margin;
    put(out, "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" viewBox=\"0 0 %.0f %.0f\" ",
        width, height, width, height);
    put(out, "font-family=\"sans-serif\" font-size=\"13\">\n<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n");
    double top = margin;
    for (size_t n = 0; n < _names.size(); ++n, top += panel_height + panel_gap) draw_panel(out, n, top);
    draw_axis(out, top - panel_gap);
    put(out, "</svg>\n");
}

void Value_plot::draw_panel(FILE* out, size_t n, double top) const {
    const Scale scale(_values[n]);
    put(out, "<text x=\"%.0f\" y=\"%.0f\" font-weight=\"bold\">%.200s</text>\n", left, top - 6,
        escaped(_names[n]).c_str());
    put(out, "<rect x=\"%.0f\" y=\"%.0f\" width=\"%.0f\" height=\"%.0f\" fill=\"none\" stroke=\"#bbbbbb\"/>\n", left,
        top, width - left - margin, panel_height);
    const int digits = digits_to_tell(scale.least, scale.most);
    for (const double v : {scale.least, scale.most}) {
        put(out, "<text x=\"%.0f\" y=\"%.1f\" text-anchor=\"end\">%.*g</text>\n", left - 6, top + scale.y(v) + 4,
            digits, v);
        if (scale.least == scale.most) break;
    }
    const char* const colour = colours[n % (sizeof colours / sizeof *colours)];
    bool open = false;
    for (size_t i = 0; i < _times.size(); ++i) {
        const double v = _values[n][i];
        const bool there = std::isfinite(v);
        if (open && (!there || _gap[i])) fputs("\"/>\n", out);
        open = open && there && !_gap[i];
        if (!there) continue;
        if (!open) put(out, "<polyline fill=\"none\" stroke-width=\"1.8\" stroke=\"%s\" points=\"", colour);
        put(out, "%.1f,%.1f ", x(_times[i]), top + scale.y(v));
        open = true;
    }
    if (open) fputs("\"/>\n", out);
}

void Value_plot::draw_axis(FILE* out, double top) const {
    const double length = std::max(_times.back() - _times.front(), 1e-3), step = step_for(length, 8);
    for (int i = 0; i * step <= length * 1.0001; ++i) {
        const double at = x(_times.front() + i * step);
        put(out, "<path d=\"M%.1f,%.0f v5\" stroke=\"black\"/><text x=\"%.1f\" y=\"%.0f\" text-anchor=\"middle\">", at,
            top, at, top + 20);
        put(out, "%g s</text>\n", i * step);
    }
}
