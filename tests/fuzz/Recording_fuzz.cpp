// SPDX-License-Identifier: MIT
// The reader of timed recordings. The first byte says how it is asked, the others are the file: what it brings is what
// the file's records say, at any speed, with whatever time the clock shows.
#include "fuzz/checks.h"
#include "glue/data_stream/Replay_data_stream.h"
#include "support/Manual_clock.h"
#include "support/Pty.h"
#include "vorn/parser_model.h"

namespace {

using R = Replay_data_stream;

/// What a file's records bring, read by hand, how the replay ends, and what is said then.
std::tuple<std::string, R::State, std::string> model(const std::string& file) {
    std::string all;
    const auto end = [&all](R::State state, size_t at, const char* why) {
        return std::tuple(all, state, text_of("Recording ends at byte %zu: it is %s\n", at, why));
    };
    const auto u1 = [&file](size_t at) { return static_cast<unsigned char>(file[at]); };
    if (file.size() < 16 || file.compare(0, 8, "KAVQTREC") != 0) return end(R::unreadable, 0, "none");
    if (u1(8) != 1 || u1(9) != 0) return end(R::unreadable, 0, "of another version");
    for (size_t at = 16, n; at < file.size(); at += 8 + n) {
        if (at + 8 > file.size()) return end(R::cut, at, "cut");
        n = u1(at + 4) + 256u * u1(at + 5);
        if (n == 0 || n > 4200 || u1(at + 7) != 0) return end(R::damaged, at, "damaged");
        const bool received = u1(at + 6) == 0;
        if (received) all += file.substr(at + 8, n);
        if (at + 8 + n > file.size()) return end(R::cut, received ? file.size() : at + 8, "cut");
    }
    return {all, R::ended, ""};
}

} // namespace

void fuzz(Input in) {
    constexpr double speeds[] = {0, 1, 1000, 0.001};
    const unsigned how = in.next();
    const std::string file = in.rest();
    Manual_clock clock;
    Fed_stream source(file, Fed_stream::pulled, how & 2 ? SIZE_MAX : 5000);
    const unsigned piece = how & 16 ? 4200 : 1 + (how >> 5);
    std::string brought;
    R::State state;
    const std::string said = debug_text([&] {
        R replay(source, speeds[how >> 2 & 3]);
        replay.set_read_timeout(0);
        for (int ms; (ms = replay.ms_to_next()) >= 0; brought += take(replay)) {
            clock.advance(ms);
            replay.bytes_avail(piece);
        }
        state = replay.state();
    });
    const auto [all, end, told] = model(file);
    require(brought == all, "it brings what was received");
    require(state == end && said == told, "it ends as the file does and says so");
}
