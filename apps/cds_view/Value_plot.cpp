// SPDX-License-Identifier: MIT
#include "Value_plot.h"
#include "svg/Svg.h"
#include <algorithm>
#include <cmath>

namespace {

constexpr size_t most_samples = 20000; // a picture of this size shows no more
constexpr double width = 900, panel_height = 120, panel_gap = 34, margin = 30, left = 90; // [pixels]
constexpr const char* colours[] = {"#1f77b4", "#2ca02c", "#d62728", "#9467bd", "#8c564b", "#e377c2"};

/// How many digits tell two numbers apart, and some more.
int digits_to_tell(double a, double b) {
    const double ratio = std::abs(a - b) / std::max(std::abs(a), std::abs(b));
    return ratio > 0 ? std::clamp(static_cast<int>(2 - log10(ratio)), 4, 9) : 6;
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

void Value_plot::draw(FILE* file) const {
    if (empty()) return;
    const double height = margin + static_cast<double>(_names.size()) * (panel_height + panel_gap) + margin;
    Svg out(file, width, height, 13);
    double top = margin;
    for (size_t n = 0; n < _names.size(); ++n, top += panel_height + panel_gap) draw_panel(out, n, top);
    draw_axis(out, top - panel_gap);
}

void Value_plot::draw_panel(Svg& out, size_t n, double top) const {
    const Scale scale(_values[n]);
    out.text(left, top - 6, "font-weight=\"bold\"", _names[n]);
    out.put("<rect x=\"%.0f\" y=\"%.0f\" width=\"%.0f\" height=\"%.0f\" fill=\"none\" stroke=\"#bbbbbb\"/>\n", left,
            top, width - left - margin, panel_height);
    const int digits = digits_to_tell(scale.least, scale.most);
    for (const double v : {scale.least, scale.most}) {
        out.put("<text x=\"%.0f\" y=\"%.1f\" text-anchor=\"end\">%.*g</text>\n", left - 6, top + scale.y(v) + 4, digits,
                v);
        if (scale.least == scale.most) break;
    }
    const std::string look =
        std::string("stroke-width=\"1.8\" stroke=\"") + colours[n % (sizeof colours / sizeof *colours)] + "\"";
    for (size_t i = 0; i < _times.size(); ++i) {
        const double v = _values[n][i];
        if (!std::isfinite(v) || _gap[i]) out.end_line();
        if (std::isfinite(v)) out.line_to(x(_times[i]), top + scale.y(v), look);
    }
    out.end_line();
}

void Value_plot::draw_axis(Svg& out, double top) const {
    const double length = std::max(_times.back() - _times.front(), 1e-3), step = Svg::step(length / 6);
    for (int i = 0; i * step <= length * 1.0001; ++i) {
        const double at = x(_times.front() + i * step);
        out.put("<path d=\"M%.1f,%.0f v5\" stroke=\"black\"/><text x=\"%.1f\" y=\"%.0f\" text-anchor=\"middle\">", at,
                top, at, top + 20);
        out.put("%g s</text>\n", i * step);
    }
}
