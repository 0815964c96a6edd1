// SPDX-License-Identifier: MIT
// Shows the data block of a running controller: a tree of names, types and values that is kept up to date, or rows, or
// a picture over time; and writes values where the controller allows it. Status 1: the outside world failed, or the
// controller refused; 2: wrong arguments.
#include "Live_block.h"
#include "Options.h"
#include "Value_plot.h"
#include "fail.h"
#include "glue/cds/CDS_value_text.h"
#include "util/number_text.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int retry_ms = 500;

/// An item, or one element of an array: a column of the rows, a panel of the picture.
struct Column {
    size_t item, element;
    std::string path;
};

class Viewer {
public:
    explicit Viewer(const Options& o) : _o(o), _stop(block_signals()) {
        const std::string reason = _block.open(_o.source, _stop);
        if (stopped(0)) exit(0);
        if (!reason.empty()) fail(1, "cannot look at %s: %s", _o.source.c_str(), reason.c_str());
        must_look();
        choose();
    }
    void run();

private:
    static int block_signals() {
        const sigset_t set = stop_signals();
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        signal(SIGPIPE, SIG_IGN); // noticed by the failing output, or the failing answer
        return signalfd(-1, &set, SFD_CLOEXEC);
    }
    /// A signal to end came, after waiting for it up to `ms`.
    bool stopped(int64_t ms) const {
        struct pollfd p = {_stop, POLLIN, 0};
        return poll(&p, 1, static_cast<int>(std::max<int64_t>(ms, 0))) > 0;
    }

    void must_look();
    void choose();
    bool look_again();
    bool next_look(Clock::time_point& next, Clock::time_point end);
    void set_all();
    bool is_shown(size_t item) const;
    std::string tree(size_t lines, size_t columns) const;
    void show_tree() const;
    void show_heading() const;
    void show_row() const;
    std::vector<double> numbers() const;
    void watch();
    void draw(const Value_plot& plot) const;

    const Options& _o;
    const int _stop;
    Live_block _block;
    std::vector<Column> _columns; ///< what the user chose
    std::vector<size_t> _only;    ///< the items that these need; empty: all
    bool _away = false;
};

void Viewer::must_look() {
    const std::string reason = _block.look(_only);
    if (!reason.empty() && stopped(0)) exit(0);
    if (!reason.empty()) fail(1, "cannot look at %s: %s", _o.source.c_str(), reason.c_str());
}

/// The columns that belong to the user's paths, in the user's order; those of all items without any.
void Viewer::choose() {
    _columns.clear();
    _only.clear();
    const std::vector<std::string> everything = {""};
    for (const std::string& wanted : _o.paths.empty() ? everything : _o.paths) {
        const size_t before = _columns.size();
        for (size_t n = 0; n < _block.items.size(); ++n) {
            const Live_block::Item& item = _block.items[n];
            for (size_t e = 0; e < item.values.size(); ++e) {
                Column column{n, e, item.path_of(e)};
                if (!is_in(column.path, wanted) || (_o.plot && item.is_text())) continue;
                _columns.push_back(std::move(column));
                if (!_o.paths.empty() && std::find(_only.begin(), _only.end(), n) == _only.end()) _only.push_back(n);
            }
        }
        if (_columns.size() == before)
            fail(1, "%s has no %s %s", _o.source.c_str(), _o.plot ? "number" : "item", wanted.c_str());
    }
}

/// Look once more; a controller that has gone is waited for. False when the program shall end.
bool Viewer::look_again() {
    std::string reason = _away ? "away" : _block.look(_only);
    if (reason.empty()) return true;
    if (stopped(0)) return false;
    if (!_away) fprintf(stderr, "cds_view: %s: %s; waiting for it\n", _o.source.c_str(), reason.c_str());
    _away = true;
    if (!_block.open(_o.source, _stop).empty() || !_block.look({}).empty()) return !stopped(0);
    const auto before = _columns;
    choose();
    const bool same = before.size() == _columns.size() &&
                      std::equal(before.begin(), before.end(), _columns.begin(),
                                 [](const Column& a, const Column& b) { return a.path == b.path; });
    if (!same && (_o.csv || _o.plot)) fail(1, "%s came back with other items", _o.source.c_str());
    fprintf(stderr, "cds_view: %s is back\n", _o.source.c_str());
    _away = false;
    return true;
}

/// Wait for the next look and take it; false at the end.
bool Viewer::next_look(Clock::time_point& next, Clock::time_point end) {
    next = std::max(next + milliseconds(_o.every), Clock::now() - milliseconds(_o.every));
    if (_away) next = Clock::now() + milliseconds(retry_ms);
    const auto until = std::min(next, end);
    if (stopped(std::chrono::ceil<milliseconds>(until - Clock::now()).count())) return false;
    return until < end && look_again();
}

void Viewer::set_all() {
    for (const std::string& set : _o.sets) {
        const size_t at = set.find('=');
        const std::string path = set.substr(0, at);
        const std::string reason = _block.set(path, set.substr(at + 1));
        if (!reason.empty()) fail(1, "cannot set %s: %s", path.c_str(), reason.c_str());
    }
    must_look();
    for (const std::string& set : _o.sets)
        for (const Live_block::Item& item : _block.items)
            for (size_t e = 0; item.path == set.substr(0, set.find('=')) && e < item.values.size(); ++e)
                printf("%s = %s\n", item.path_of(e).c_str(), item.values[e].c_str());
}

/// An item is shown when it, or one that it contains, belongs to a column.
bool Viewer::is_shown(size_t n) const {
    const Live_block::Item& item = _block.items[n];
    return std::any_of(_columns.begin(), _columns.end(), [&](const Column& c) {
        return item.container ? item.depth == 0 || c.path.compare(0, item.path.size() + 1, item.path + ".") == 0
                              : c.item == n;
    });
}

/// Names, types and values, at most so many lines and columns; 0: without limit.
std::string Viewer::tree(size_t most_lines, size_t most_columns) const {
    std::vector<std::array<std::string, 3>> rows;
    size_t name_width = 0, type_width = 0;
    for (size_t n = 0; n < _block.items.size(); ++n) {
        if (!is_shown(n)) continue;
        const Live_block::Item& item = _block.items[n];
        std::string name(static_cast<size_t>(item.depth) * 2, ' '), values;
        name += item.name;
        if (item.array) name += "[" + std::to_string(item.elements) + "]";
        for (const std::string& value : item.values) values += (values.empty() ? "" : " ") + value;
        rows.push_back({name, item.container ? "" : CDS::Remote::type_name(item.type), values});
        name_width = std::max(name_width, name.size() + 2);
        type_width = std::max(type_width, rows.back()[1].size() + 2);
    }
    std::string all;
    for (size_t n = 0; n < rows.size(); ++n) {
        if (most_lines > 0 && n + 1 == most_lines && rows.size() > most_lines)
            return all + "... " + std::to_string(rows.size() - n) + " more lines: name the items that you want\n";
        std::string line = rows[n][0];
        line.resize(name_width, ' ');
        line += rows[n][1];
        line.resize(name_width + type_width, ' ');
        line += rows[n][2];
        line.erase(line.find_last_not_of(' ') + 1);
        if (most_columns > 0 && line.size() > most_columns) line.replace(most_columns - 1, std::string::npos, ">");
        all += line + "\n";
    }
    return all;
}

void Viewer::show_tree() const {
    struct winsize window = {};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &window);
    const size_t rows = window.ws_row > 4 ? window.ws_row - 3 : 0;
    fputs("\033[H", stdout);
    std::string text = tree(rows, window.ws_col);
    text += _away ? "\nwaiting for the controller; Ctrl-C ends\n" : "\nCtrl-C ends\n";
    // Each line overwrites the one before it in its place: nothing flickers.
    for (size_t from = 0, to; from < text.size(); from = to + 1) {
        to = text.find('\n', from);
        printf("%.*s\033[K\n", static_cast<int>(to - from), &text[from]);
    }
    fputs("\033[J", stdout);
    finish_output(1);
}

void Viewer::show_row() const {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    printf("%lld.%03ld", static_cast<long long>(now.tv_sec), now.tv_nsec / 1000000);
    for (const Column& c : _columns) {
        const Live_block::Item& item = _block.items[c.item];
        if (item.is_text()) {
            std::string text = item.values[0].substr(1, item.values[0].size() - 2);
            for (size_t at = 0; (at = text.find('"', at)) != std::string::npos; at += 2) text.insert(at, "\"");
            printf(",\"%s\"", text.c_str());
        } else {
            printf(",%s", c.element < item.values.size() ? item.values[c.element].c_str() : "");
        }
    }
    putchar('\n');
    finish_output(1);
}

void Viewer::show_heading() const {
    fputs("time", stdout);
    for (const Column& c : _columns) printf(",%s", c.path.c_str());
    putchar('\n');
}

std::vector<double> Viewer::numbers() const {
    std::vector<double> all;
    for (const Column& c : _columns) {
        const std::vector<double>& of_item = _block.items[c.item].numbers;
        all.push_back(c.element < of_item.size() ? of_item[c.element] : 0);
    }
    return all;
}

void Viewer::watch() {
    const bool in_place = !_o.once && !_o.csv && !_o.plot;
    std::vector<std::string> names;
    for (const Column& c : _columns) names.push_back(c.path);
    Value_plot plot(names);
    if (_o.csv) show_heading();
    if (in_place) fputs("\033[H\033[J", stdout);
    const auto start = Clock::now(), end = _o.seconds < 0 ? Clock::time_point::max() - std::chrono::hours(1)
                                                          : start + std::chrono::seconds(_o.seconds);
    auto next = start;
    do {
        if (in_place)
            show_tree();
        else if (_away)
            plot.interrupt();
        else if (_o.csv)
            show_row();
        else
            plot.add(std::chrono::duration<double>(Clock::now() - start).count(), numbers());
    } while (!_o.once && next_look(next, end));
    if (_o.plot) draw(plot);
}

void Viewer::draw(const Value_plot& plot) const {
    FILE* const out = _o.output.empty() ? stdout : fopen(_o.output.c_str(), "we");
    if (!out) fail(1, "cannot draw %s: %s", _o.output.c_str(), strerror(errno));
    plot.draw(out);
    if (out == stdout) return finish_output(1);
    const bool written = !ferror(out);
    if (fclose(out) != 0 || !written) fail(1, "cannot draw %s: %s", _o.output.c_str(), strerror(errno));
}

void Viewer::run() {
    if (!_o.sets.empty()) set_all();
    const bool only_set = !_o.sets.empty() && !_o.once && !_o.csv && !_o.plot && _o.paths.empty();
    if (!only_set && !_o.csv && !_o.plot && (_o.once || !isatty(STDOUT_FILENO))) {
        fputs(tree(0, 0).c_str(), stdout);
    } else if (!only_set) {
        watch();
    }
    finish_output(1);
}

} // namespace

int main(int argc, char** argv) {
    keep_standard_streams();
    const Options options(argc, argv);
    Viewer(options).run();
    return 0;
}
