// SPDX-License-Identifier: MIT
// A fault in the field becomes a test case: what a receiver sends is recorded with the times when it came, and brought
// to the same handler again, here at twice the speed.
//
// Prints:
//     live: NP00Ball is well
//     live: $damage
//     live: NP003bye
//     replayed: NP00Ball is well
//     replayed: $damage
//     replayed: NP003bye
//     that was the whole recording
#include "glue/data_stream/Posix_data_stream.h"
#include "glue/data_stream/Recorder_data_stream.h"
#include "glue/data_stream/Replay_data_stream.h"
#include "glue/data_stream/Virtual_pair_data_stream.h"
#include "glue/vorn/Vorn_parser.h"
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

/// What is to be tested: it does not know where its stream comes from.
void handle_packets(Vorn_parser& parser, const char* when) {
    unsigned char packet[4200];
    for (int length; parser.get_packet(packet, sizeof packet, length) != Vorn_parser::kind_none;) {
        const std::string text(packet, packet + length);
        printf("%s: %s\n", when, text.substr(0, text.find('\r')).c_str());
    }
}

bool record(const char* path) {
    Virtual_pair_data_stream pair(nullptr); // one end plays the receiver, the other is the line
    pair.b.set_read_timeout(0);
    Posix_data_stream file;
    if (!file.open_write(path, true, true, false)) return false;
    Recorder_data_stream line(pair.b, file, Recorder_data_stream::timed, path);
    Vorn_parser parser(&line, false);
    for (const char* message : {"NP00Ball is well\r\n", "$damage\r\n", "NP003bye\r\n"}) {
        pair.a.printf("%s", message);
        handle_packets(parser, "live");
        Atime::delay(20); // [ms]
    }
    return line.is_recording(); // a full disk would have ended it
}

bool replay(const char* path) {
    Posix_data_stream file;
    if (!file.open_read(path, true)) return false;
    Replay_data_stream line(file, 2); // each read waits until its bytes are due
    Vorn_parser parser(&line, false);
    handle_packets(parser, "replayed");
    return line.state() == Replay_data_stream::ended;
}

} // namespace

int main() {
    std::string folder = (std::filesystem::temp_directory_path() / "recording-XXXXXX").string();
    if (!mkdtemp(folder.data())) return 1;
    const std::string path = folder + "/field";
    const bool good = record(path.c_str()) && replay(path.c_str());
    if (good) puts("that was the whole recording");
    std::filesystem::remove_all(folder);
    return good ? 0 : 1;
}
