// SPDX-License-Identifier: MIT
// Log lines from any thread, printed by the logger's own thread, so that nobody waits for the output.
//
// Prints:
//     pump: started
//     valve: open
//     **1 CHARS DROPPED**
//     10000 characters wait
#include "glue/diner/Buffered_logger.h"
#include "glue/diner/Diner_info_list.h"
#include "util/Debug_print.h"
#include "util/atime.h"
#include <cstdio>
#include <string>
#include <thread>

int main() {
    Debug_print::debug_file = stdout; // before the first thread
    Buffered_logger logger;
    logger.init(Diner_info_list::get()); // its thread, and log() writes to it from now on

    std::thread pump([] { Buffered_logger::log("pump: started\n"); });
    pump.join();
    Buffered_logger::log("valve: open\n");
    while (logger.waiting() > 0) Atime::delay(1); // what still waits when its thread ends is not printed
    logger.terminate(true);

    // One with more room, its owner's. Without a thread it fills up; what no longer fits is dropped with a notice.
    static unsigned char room[10000];
    Buffered_logger roomy(room, sizeof room);
    roomy.append(std::string(sizeof room + 1, 'x').c_str());
    printf("\n%u characters wait\n", roomy.waiting());
}
