// SPDX-License-Identifier: MIT
// Records faults in the diagnostic history and replays those of one source.
//
// Prints:
//     source 0x80, error 1201, detail 17, at ...
//     source 0x80, error 1201, detail 18, at ...
//     3 faults recorded
#include "glue/diagnostics/Diagnostics.h"
#include "glue/diner/Diner_info_list.h"
#include "platform/pcf_host.h"
#include "util/Semaphore.h"
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

enum Source : unsigned char { antenna = 0x80, corrections = 0x81 };

/// Prints what it is handed. Its operations run on the manager's thread.
class Replay : public Diagnostic_history {
public:
    void output(unsigned char src, unsigned short a, unsigned short b, unsigned int seconds,
                unsigned short ms) override {
        printf("source 0x%02X, error %d, detail %d, at %u.%03d\n", unsigned{src}, int{b}, int{a}, seconds, int{ms});
    }
    bool check_ready() override { return true; } // a sink with a full queue says no, and is asked again
    void history_finished() override { finished.release(); }

    Semaphore finished;
};

} // namespace

int main() {
    // On a host a folder stands in for the flash file store of the board.
    std::string folder = (std::filesystem::temp_directory_path() / "diagnostics-XXXXXX").string();
    if (!mkdtemp(folder.data()) || !Pcf_host::mount(folder.c_str(), 1 << 20)) {
        perror("diagnostics: no store");
        return 1;
    }
    unsigned recorded;
    Replay replay; // outlives the manager, whose thread calls it
    {
        Diagnostics manager("FAULT");
        manager.init(Diner_info_list::get(), nullptr, 0);
        manager.start();

        // From any thread; nothing is waited for.
        manager.log_error(antenna, 17, 1201);
        manager.log_error(corrections, 30, 1310);
        manager.log_error(antenna, 18, 1201);

        // A replay contains what is in the files when it is asked for.
        while (manager.records_written() + manager.records_lost() < 3) Atime::delay(1);
        replay.set_filter(antenna, 0, 0, 0xFFFFFFFF);
        if (!manager.request_history(&replay)) return 1; // another replay is running
        replay.finished.acquire();
        recorded = manager.records_written();
    }
    printf("%u faults recorded\n", recorded);
    Pcf_host::unmount();
    std::filesystem::remove_all(folder);
    return recorded == 3 ? 0 : 1;
}
