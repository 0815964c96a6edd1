// SPDX-License-Identifier: MIT
// The reader of timed recordings. The first byte says how it is asked, the others are the file: what it brings is what
// the file's records say, at any speed, with whatever time the clock shows.
#include "fuzz/checks.h"
#include "glue/data_stream/Replay_data_stream.h"
#include "support/Manual_clock.h"
#include "vorn/parser_model.h"

namespace {

/// What a file's records bring, read by hand, and how the replay ends.
std::pair<std::string, Replay_data_stream::State> model(const std::string& file) {
    using R = Replay_data_stream;
    std::string all;
    const auto u1 = [&file](size_t at) { return static_cast<unsigned char>(file[at]); };
    if (file.size() < 16 || file.compare(0, 10, std::string("KAVQTREC\1\0", 10)) != 0) return {all, R::unreadable};
    for (size_t at = 16, n; at < file.size(); at += 8 + n) {
        if (at + 8 > file.size()) return {all, R::cut};
        n = u1(at + 4) + 256u * u1(at + 5);
        if (n == 0 || n > 4200 || u1(at + 7) != 0) return {all, R::damaged};
        if (u1(at + 6) == 0) all += file.substr(at + 8, n);
        if (at + 8 + n > file.size()) return {all, R::cut};
    }
    return {all, R::ended};
}

} // namespace

void fuzz(Input in) {
    constexpr double speeds[] = {0, 1, 1000, 0.001};
    const unsigned how = in.next();
    const std::string file = in.rest();
    Manual_clock clock;
    Fed_stream source(file, how & 1 ? Fed_stream::pulled : Fed_stream::hesitant, how & 2 ? SIZE_MAX : 5000);
    Replay_data_stream replay(source, speeds[how >> 2 & 3]);
    replay.set_read_timeout(0);
    const unsigned piece = how & 16 ? 4200 : 1 + (how >> 5);
    std::string brought;
    for (int ms; (ms = replay.ms_to_next()) >= 0;) {
        clock.advance(ms);
        replay.bytes_avail(piece);
        std::string some(static_cast<size_t>(replay.bytes_avail()), 0);
        replay.get_data(reinterpret_cast<unsigned char*>(some.data()), static_cast<unsigned>(some.size()));
        replay.drop_all();
        brought += some;
    }
    require(brought == model(file).first, "it brings what was received");
    require(replay.state() == model(file).second, "it ends as the file does");
}
