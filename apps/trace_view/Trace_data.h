// SPDX-License-Identifier: MIT
#pragma once
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

class QByteArray;
class QJsonObject;

/// What a trace file (docs/formats.md) tells of diners, their handlers and the posts to them. Times are in [us] from
/// the first record on.
class Trace_data {
public:
    struct Handler {
        int diner;                     ///< index into `diners`
        double begin, end = not_ended; ///< [us]
        /// Where it ended, if it had to by `now`. One whose end was lost tells nothing, and is taken for very short.
        double ended(double now) const { return end == not_ended ? now : std::max(begin, end); }
        double wait = not_known; ///< [us] since the post
        int post = -1;           ///< index into `posts`, -1: not known
        int late_ms = 0;         ///< [ms] of a timeout
        bool timeout;
        std::string name; ///< as the trace calls it
    };
    struct Post {
        double at; ///< [us]
        uint32_t thread;
    };
    struct Diner {
        std::string name;
        uint32_t thread = 0; ///< 0: no handler of it was seen
        unsigned events = 0, timeouts = 0, refused = 0, dropped = 0;
        int longest_queue = 0;
    };
    static constexpr double not_ended = -1, lost = -2, not_known = -1;

    /// Read a file to its end. Null, or what is wrong with it; what stood before that is kept.
    const char* read(FILE* file);
    unsigned lines() const { return _lines; } ///< read so far: the last is the one with which something is wrong

    std::vector<Diner> diners;
    std::vector<Handler> handlers;
    std::vector<Post> posts;
    std::map<uint32_t, std::string> threads; ///< by their names
    double end = 0;                          ///< [us] the last record
    int64_t recorded = 0, kept = 0, dropped = 0;
    int least_free_nodes = -1; ///< -1: not known
    int64_t bytes_lost = 0;

private:
    /// Larger than any line of ours, and more records than any ring has.
    static constexpr size_t max_line = 4096, max_records = 8u << 20;
    static constexpr int no_handler = -1;

    bool next_line(FILE* file, std::string& line);
    const char* take(const QByteArray& line);
    void take_metadata(const QJsonObject& event, const QJsonObject& arguments);
    void take_begin(const QJsonObject& event, const QJsonObject& arguments, double at, uint32_t thread);
    void take_end(const QJsonObject& arguments, double at, uint32_t thread);
    void take_post(const QJsonObject& event, const QJsonObject& arguments, double at, uint32_t thread);
    int diner(const QJsonObject& arguments);

    unsigned _lines = 0;
    bool _is_trace = false, _timed = false, _too_long = false;
    double _first = 0;
    std::unordered_map<std::string, int> _diner_of_name;
    std::unordered_map<uint32_t, std::vector<int>> _open; ///< spans of each thread; no_handler: others'
    std::unordered_map<uint64_t, int> _waiting;           ///< posts by diner and node
};
