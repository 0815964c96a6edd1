// SPDX-License-Identifier: MIT
// A serial line with a reader thread, which wakes a diner when bytes arrive and when the other side hangs up. A
// pseudo-terminal stands in for the line.
//
// Prints:
//     device: ready
//     controller: start
//     the line is lost
#include "glue/data_stream/Posix_threaded_serial_data_stream.h"
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
    explicit Listener(Posix_threaded_serial_data_stream& line) : _line(line) {
        init(Diner_info_list::get(), Descriptor("LISTENER", 3));
        _line.register_waiter(&waiter);
        _line.register_line_waiter(&waiter);
        start();
    }
    ~Listener() override {
        _line.deregister_line_waiter(&waiter);
        _line.deregister_waiter(&waiter);
        terminate(true);
    }
    Semaphore lost;

private:
    void handle_event(waiter_event& event) override {
        if (event.module_id != _line.module_id()) return;
        if (event.id == Posix_threaded_data_stream::event_data) take_bytes();
        if (event.id == Posix_threaded_data_stream::event_line_lost) {
            puts("the line is lost");
            lost.release();
        }
    }
    void handle_timeout(Timeout&) override {}
    using Diner::handle_timeout;

    /// Takes what is buffered and never waits for more.
    void take_bytes() {
        while (_line.bytes_avail() > 0) {
            const char c = static_cast<char>(_line[0]);
            _line.drop(1);
            if (c != '\n') {
                _text += c;
                continue;
            }
            printf("device: %s\n", _text.c_str());
            if (_text == "ready") _line.printf("start\n");
            _text.clear();
        }
    }

    Posix_threaded_serial_data_stream& _line;
    std::string _text;
};

} // namespace

int main() {
    struct termios raw = {};
    cfmakeraw(&raw);
    int device, slave;
    char path[64];
    if (openpty(&device, &slave, path, &raw, nullptr) != 0) return 1;

    if (!Posix_threaded_data_stream::can_open(path)) return 1;
    Posix_threaded_serial_data_stream line;
    line.init(Diner_info_list::get()); // the module id of its events, before anybody registers
    Listener listener(line);
    if (!line.open_from_args((std::string(path) + ":115200").c_str())) return 1;
    close(slave);

    if (write(device, "ready\n", 6) != 6) return 1;
    char answer[7] = {};
    for (int n = 0; n < 6;) {
        const ssize_t more = read(device, answer + n, static_cast<size_t>(6 - n));
        if (more <= 0) return 1;
        n += static_cast<int>(more);
    }
    printf("controller: %s", answer);
    close(device);
    listener.lost.acquire();
}
