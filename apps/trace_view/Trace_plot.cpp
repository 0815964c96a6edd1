// SPDX-License-Identifier: MIT
#include "Trace_plot.h"
#include "svg/Svg.h"
#include <algorithm>
#include <cmath>

namespace {

constexpr double width = 1000, left = 130, right = 36, top = 34, row_height = 34, bar_height = 18; // [pixels]
constexpr size_t most_arrows = 400, most_bars = 20000;
constexpr double least_apart = 0.4; ///< [pixels]; closer bars of a row look like one

constexpr const char *event_colour = "#1f77b4", *timeout_colour = "#ff7f0e", *open_colour = "#d62728";

class Picture {
public:
    Picture(const Trace_data& trace, double from, double to)
        : _trace(trace), _from(from), _to(to), _scale((width - left - right) / (to - from)) {
        for (const Trace_data::Handler& h : trace.handlers) {
            if (!shown(h)) continue;
            // Who posts stands above whom it posts to, also a thread that is no diner's.
            if (h.post >= 0 && h.begin >= from && post_of(h).at >= from) add_row(post_of(h).thread);
            add_row(row_thread(h));
        }
    }

    double height() const { return top + row_height * static_cast<double>(_rows.size()) + 44; }

    void draw(FILE* file) const {
        Svg out(file, width, height(), 13);
        out.put(
            "<defs><marker id=\"a\" markerWidth=\"7\" markerHeight=\"6\" refX=\"6\" refY=\"3\" orient=\"auto\"><path "
            "d=\"M0,0 L7,3 L0,6 z\" fill=\"#555\"/></marker></defs>\n");
        draw_axis(out);
        draw_rows(out);
        draw_bars(out);
        draw_arrows(out);
        out.put("<g transform=\"translate(%.0f,%.0f)\"><rect width=\"14\" height=\"12\" fill=\"%s\"/><text x=\"20\" "
                "y=\"11\">event</text><rect x=\"80\" width=\"14\" height=\"12\" fill=\"%s\"/><text x=\"100\" "
                "y=\"11\">timeout</text><text x=\"180\" y=\"11\">arrows: from the post to its handler</text></g>\n",
                left, height() - 22, event_colour, timeout_colour);
    }

private:
    double x(double at) const { return left + (std::clamp(at, _from, _to) - _from) * _scale; }
    double y(uint32_t thread) const { return top + row_height * (_rows.at(thread) + 0.5); }
    bool shown(const Trace_data::Handler& h) const { return h.begin <= _to && h.ended(_to) >= _from; }
    uint32_t row_thread(const Trace_data::Handler& h) const {
        return _trace.diners[static_cast<size_t>(h.diner)].thread;
    }
    const Trace_data::Post& post_of(const Trace_data::Handler& h) const {
        return _trace.posts[static_cast<size_t>(h.post)];
    }

    void add_row(uint32_t thread) {
        constexpr size_t most_rows = 60;
        if (_rows.size() >= most_rows || !_rows.try_emplace(thread, static_cast<int>(_rows.size())).second) return;
        const auto known = _trace.threads.find(thread);
        _names.push_back(known != _trace.threads.end() ? known->second : "thread " + std::to_string(thread));
    }

    /// Six marks or some more.
    void draw_axis(Svg& out) const {
        const double step = Svg::step((_to - _from) / 6);
        constexpr int most = 20; // far from 0 a step may be less than a number can tell
        double at = ceil(_from / step) * step;
        for (int i = 0; i < most && at <= _to; ++i, at += step) {
            out.put("<path d=\"M%.1f,%.0f V%.0f\" stroke=\"#ddd\"/><text x=\"%.1f\" y=\"%.0f\" "
                    "text-anchor=\"middle\">%.10g ms</text>\n",
                    x(at), top, height() - 44, x(at), top - 12, at / 1000);
        }
    }

    void draw_rows(Svg& out) const {
        for (size_t i = 0; i < _names.size(); ++i) {
            const double middle = top + row_height * (static_cast<double>(i) + 0.5);
            out.put("<text x=\"%.0f\" y=\"%.1f\" text-anchor=\"end\">%s</text><path d=\"M%.0f,%.1f H%.0f\" "
                    "stroke=\"#bbb\"/>\n",
                    left - 10, middle + 5, Svg::escaped(_names[i]).c_str(), left, middle, width - right);
        }
    }

    void draw_bars(Svg& out) const {
        std::vector<double> drawn(_trace.diners.size(), -1); // up to where, in each row
        size_t bars = 0;
        for (const Trace_data::Handler& h : _trace.handlers) {
            if (!shown(h) || !_rows.count(row_thread(h))) continue;
            const bool open = h.end == Trace_data::not_ended;
            const double begin = x(h.begin), end = std::max(x(h.ended(_to)), begin + 1);
            double& up_to = drawn[static_cast<size_t>(h.diner)];
            if (end < up_to + least_apart || ++bars > most_bars) continue;
            up_to = end;
            out.put("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.0f\" fill=\"%s\"><title>%s, %.1f "
                    "us%s</title></rect>\n",
                    begin, y(row_thread(h)) - bar_height / 2, end - begin, bar_height,
                    open        ? open_colour
                    : h.timeout ? timeout_colour
                                : event_colour,
                    Svg::escaped(h.name).c_str(), h.ended(_trace.end) - h.begin, open ? ", still running" : "");
        }
    }

    /// Of many, evenly chosen ones.
    void draw_arrows(Svg& out) const {
        std::vector<const Trace_data::Handler*> all;
        for (const Trace_data::Handler& h : _trace.handlers) {
            if (h.post < 0 || !shown(h) || h.begin < _from || post_of(h).at < _from) continue;
            if (_rows.count(row_thread(h)) && _rows.count(post_of(h).thread)) all.push_back(&h);
        }
        const size_t each = all.size() / most_arrows + 1;
        for (size_t i = 0; i < all.size(); i += each) {
            const Trace_data::Handler& h = *all[i];
            const double from = y(post_of(h).thread), to = y(row_thread(h)), edge = bar_height / 2;
            out.put("<path d=\"M%.1f,%.1f L%.1f,%.1f\" stroke=\"#555\" fill=\"none\" marker-end=\"url(#a)\"/>\n",
                    x(post_of(h).at), from, x(h.begin),
                    to > from   ? to - edge
                    : to < from ? to + edge
                                : to);
        }
    }

    const Trace_data& _trace;
    const double _from, _to, _scale;
    std::map<uint32_t, int> _rows; ///< of each thread, from the top
    std::vector<std::string> _names;
};

} // namespace

void draw_trace(FILE* out, const Trace_data& trace, double from, double to) { Picture(trace, from, to).draw(out); }
