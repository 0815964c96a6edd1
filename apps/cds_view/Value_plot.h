// SPDX-License-Identifier: MIT
#pragma once
#include <cstdio>
#include <string>
#include <vector>

class Svg;

/// Values over time as a picture: a panel for each, one below the other, with one axis of time. Not locked.
class Value_plot {
public:
    explicit Value_plot(std::vector<std::string> names) : _names(std::move(names)), _values(_names.size()) {}

    /// The values at an instant [s], later than the one before. Of a long run every second sample is forgotten, as
    /// often as need be.
    void add(double seconds, const std::vector<double>& values);
    /// Nothing is known of what comes between the samples before and behind.
    void interrupt() { _interrupted = true; }
    bool empty() const { return _times.empty(); }
    void draw(FILE* file) const;

private:
    struct Scale;

    void thin_out();
    void draw_panel(Svg& out, size_t n, double top) const;
    void draw_axis(Svg& out, double top) const;
    double x(double seconds) const;

    const std::vector<std::string> _names;
    std::vector<double> _times;               ///< [s]
    std::vector<bool> _gap;                   ///< in front of the sample
    std::vector<std::vector<double>> _values; ///< for each name, one for each instant
    size_t _every = 1;                        ///< of this many samples one is kept
    size_t _skipped = 0;
    bool _interrupted = false;
};
