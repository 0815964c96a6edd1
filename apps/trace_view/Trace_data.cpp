// SPDX-License-Identifier: MIT
#include "Trace_data.h"
#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <cmath>

namespace {

std::string text(const QJsonValue& v) { return v.toString().toStdString(); }

uint64_t key_of(int diner, const QJsonObject& arguments) {
    return static_cast<uint64_t>(diner) << 32 | static_cast<uint32_t>(arguments["node"].toInt());
}

} // namespace

const char* Trace_data::read(FILE* file) {
    std::string line;
    if (!next_line(file, line) || line != "[") return "it is no trace";
    for (bool last = false; next_line(file, line);) {
        if (line == "]") return _is_trace ? nullptr : "it is no trace";
        if (last) return "a line behind the last one";
        last = line.back() != ',';
        if (!last) line.pop_back();
        if (const char* wrong = take(QByteArray::fromRawData(line.data(), static_cast<int>(line.size())))) return wrong;
        if (!_is_trace) return "it is no trace";
        if (handlers.size() + posts.size() > max_records) return "more records than a trace has";
    }
    return _too_long ? "a line that is too long" : ferror(file) ? "it cannot be read" : "it is cut";
}

/// False at the end, also when it lacks its line end, and for a line that is longer than any of ours.
bool Trace_data::next_line(FILE* file, std::string& line) {
    line.clear();
    for (int c; (c = getc_unlocked(file)) != EOF;) {
        if (c == '\n' && !line.empty()) {
            ++_lines;
            return true;
        }
        if (c != '\n') line += static_cast<char>(c);
        if (line.size() <= max_line) continue;
        _too_long = true;
        break;
    }
    ++_lines;
    return false;
}

/// One event: null, or what is wrong with it.
const char* Trace_data::take(const QByteArray& line) {
    const QJsonObject event = QJsonDocument::fromJson(line).object();
    const QJsonObject arguments = event["args"].toObject();
    const std::string phase = text(event["ph"]);
    if (phase.size() != 1) return "no event";
    if (phase == "M") {
        take_metadata(event, arguments);
        return nullptr;
    }
    const double instant = event["ts"].toDouble(NAN);
    const auto thread = static_cast<uint32_t>(event["tid"].toDouble());
    if (!(std::abs(instant) < 1e15)) return "an event without a time";
    if (!_timed) _first = instant;
    _timed = true;
    const double at = std::max(0.0, instant - _first);
    end = std::max(end, at);
    switch (phase[0]) {
    case 'B':
        take_begin(event, arguments, at, thread);
        break;
    case 'E':
        take_end(arguments, at, thread);
        break;
    case 'X':
    case 'i':
        take_post(event, arguments, at, thread);
        break;
    case 'C':
        if (arguments.contains("nodes")) {
            const int free = arguments["nodes"].toInt();
            least_free_nodes = least_free_nodes < 0 ? free : std::min(least_free_nodes, free);
        }
        break;
    default:
        break; // arrows: posts and handlers tell the same
    }
    return nullptr;
}

void Trace_data::take_metadata(const QJsonObject& event, const QJsonObject& arguments) {
    const std::string name = text(event["name"]);
    if (name == "kavqtglue_trace" && arguments["format"].toInt() == 1) {
        _is_trace = true;
        recorded = static_cast<int64_t>(arguments["recorded"].toDouble());
        kept = static_cast<int64_t>(arguments["kept"].toDouble());
        dropped = static_cast<int64_t>(arguments["dropped"].toDouble());
    } else if (name == "thread_name") {
        threads[static_cast<uint32_t>(event["tid"].toDouble())] = text(arguments["name"]);
    }
}

void Trace_data::take_begin(const QJsonObject& event, const QJsonObject& arguments, double at, uint32_t thread) {
    const std::string category = text(event["cat"]);
    const bool timeout = category == "timeout";
    if (!timeout && category != "event") {
        _open[thread].push_back(no_handler);
        return;
    }
    Handler h;
    h.diner = diner(arguments);
    h.begin = at;
    h.timeout = timeout;
    h.name = text(event["name"]);
    Diner& d = diners[static_cast<size_t>(h.diner)];
    d.thread = thread;
    if (timeout) {
        ++d.timeouts;
        h.late_ms = arguments["late_ms"].toInt();
    } else {
        ++d.events;
        const auto post = _waiting.find(key_of(h.diner, arguments));
        if (post != _waiting.end()) {
            h.post = post->second;
            h.wait = std::max(0.0, at - posts[static_cast<size_t>(h.post)].at);
            _waiting.erase(post); // of a merged event the first delivery counts
        }
    }
    _open[thread].push_back(static_cast<int>(handlers.size()));
    handlers.push_back(std::move(h));
}

void Trace_data::take_end(const QJsonObject& arguments, double at, uint32_t thread) {
    const auto open = _open.find(thread);
    if (open == _open.end() || open->second.empty()) return;
    const int h = open->second.back();
    open->second.pop_back();
    if (h == no_handler) return;
    Handler& handler = handlers[static_cast<size_t>(h)];
    handler.end = arguments.contains("lost") ? lost : std::max(at, handler.begin);
}

void Trace_data::take_post(const QJsonObject& event, const QJsonObject& arguments, double at, uint32_t thread) {
    const std::string category = text(event["cat"]), name = text(event["name"]);
    if (category == "stream" && name.compare(0, 10, "bytes lost") == 0)
        bytes_lost += static_cast<int64_t>(arguments["bytes"].toDouble());
    if (category != "post") return;
    const int to = diner(arguments);
    Diner& d = diners[static_cast<size_t>(to)];
    d.refused += name.compare(0, 7, "refused") == 0;
    d.dropped += name.compare(0, 7, "dropped") == 0;
    if (text(event["ph"]) != "X") return;
    d.longest_queue = std::max(d.longest_queue, arguments["queue"].toInt());
    _waiting[key_of(to, arguments)] = static_cast<int>(posts.size());
    posts.push_back({at, thread});
}

int Trace_data::diner(const QJsonObject& arguments) {
    const std::string name = text(arguments["diner"]);
    const auto [at, added] = _diner_of_name.try_emplace(name, static_cast<int>(diners.size()));
    if (added) diners.push_back({name});
    return at->second;
}
