// SPDX-License-Identifier: MIT
// A serial line that the diner polls itself: one thread for the line, the handler and a timeout that tells of silence.
// A pseudo-terminal stands in for the line.
//
// Prints:
//     device: ready
//     controller: start
//     device: moving
//     silent for 50 ms
//     the line is lost
#include "glue/data_stream/Posix_polled_serial_data_stream.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include "util/Semaphore.h"
#include <cstdio>
#include <pty.h>
#include <string>
#include <termios.h>
#include <unistd.h>

namespace {

class Listener : public Diner::Protection {
public:
    explicit Listener(const std::string& device) {
        init(Diner_info_list::get(), Descriptor("LISTENER", 3));
        _line.init(Diner_info_list::get());
        _line.attach(&waiter); // before the diner is started: from then on its own thread polls the line
        if (_line.open_from_args(device.c_str())) start();
    }
    ~Listener() override { terminate(true); }
    Semaphore silent, lost;

private:
    void diner_start() override { submit_timeout(_silence, 60000); } // [ms]; bytes wake the thread before
    void handle_event(waiter_event& event) override {
        if (event.module_id != _line.module_id()) return;
        if (event.id == Posix_polled_data_stream::event_line_lost) {
            puts("the line is lost");
            lost.release();
        }
        while (_line.bytes_avail() > 0) {
            const char c = static_cast<char>(_line[0]);
            _line.drop(1);
            if (c != '\n') {
                _text += c;
                continue;
            }
            printf("device: %s\n", _text.c_str());
            if (_text == "ready") _line.printf("start\n");
            if (_text == "moving") submit_timeout(_silence, 50); // instead of what is left of the minute
            _text.clear();
        }
    }
    void handle_timeout(Timeout&) override {
        puts("silent for 50 ms");
        silent.release();
    }
    using Diner::handle_timeout;

    Posix_polled_serial_data_stream _line;
    Timeout _silence;
    std::string _text;
};

} // namespace

int main() {
    struct termios raw = {};
    cfmakeraw(&raw);
    int device, slave;
    char path[64];
    if (openpty(&device, &slave, path, &raw, nullptr) != 0) return 1;
    Listener listener(std::string(path) + ":115200");
    close(slave);
    if (write(device, "ready\n", 6) != 6) return 1;
    char answer[7] = {};
    for (int n = 0; n < 6;) {
        const ssize_t more = read(device, answer + n, static_cast<size_t>(6 - n));
        if (more <= 0) return 1;
        n += static_cast<int>(more);
    }
    printf("controller: %s", answer);
    if (write(device, "moving\n", 7) != 7) return 1;
    listener.silent.acquire();
    close(device);
    listener.lost.acquire();
}
