// SPDX-License-Identifier: MIT
// Shows the nodes of a CAN bus with SAE J1939 or ISO 11783 and their trouble codes, live or from a recorded log. It
// hears every frame through a raw socket; only what it asks for goes through a node of its own with an address.
// Status 1: the outside world failed, or a node did not do what was asked; 2: wrong arguments.
#include "Bus_report.h"
#include "Can_socket.h"
#include "Options.h"
#include "Questions.h"
#include "fail.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/jin/JIN_assembler.h"
#include "glue/jin/JIN_inbox.h"
#include "glue/jin/JIN_socket_stack.h"
#include "progress.h"
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <utility>

namespace {

/// From frames to the rows of the table.
class Bus_view {
public:
    void frame(const JIN_frame& f) {
        _now = Atime(false);
        _now.time = static_cast<int32_t>(f.us / 1000000);
        _now.millitm = static_cast<uint16_t>(f.us / 1000 % 1000);
        _assembler.frame(f.identifier, f.bytes, f.size, f.us / 1000);
        ++num_frames;
    }
    const Atime& now() const { return _now; } ///< of the last frame

    Trouble_code_monitor monitor;
    std::function<void(const JIN_message&)> also; ///< sees every message
    uint64_t num_frames = 0;

private:
    JIN_assembler _assembler{[this](const JIN_message& m) {
        monitor.take(m, _now);
        if (also) also(m);
    }};
    Atime _now{false};
};

void print(const std::string& text) {
    fputs(text.c_str(), stdout);
    finish_output(1);
}

void print_tables(const Options& o, const Bus_view& view, const Atime& now) {
    print(o.csv ? Bus_report::csv(view.monitor, now) : Bus_report::table(view.monitor, now));
}

int replay(const Options& o) {
    std::ifstream file;
    if (o.source != "-") {
        file.open(o.source);
        if (!file) fail(1, "cannot read %s: %s", o.source.c_str(), strerror(errno));
    }
    std::istream& in = o.source == "-" ? std::cin : file;
    Bus_view view;
    Progress progress(0);
    uint64_t others = 0, bytes = 0;
    std::string line;
    while (std::getline(in, line)) {
        JIN_frame f;
        progress.at(bytes += line.size() + 1);
        if (f.read(line))
            view.frame(f);
        else if (!line.empty())
            ++others;
    }
    if (view.num_frames == 0) fail(1, "no frames of such a bus in %s", o.source.c_str());
    print_tables(o, view, view.now());
    if (others != 0)
        fprintf(stderr, "bus_monitor: %llu lines were no frames of such a bus\n",
                static_cast<unsigned long long>(others));
    return 0;
}

using Clock = std::chrono::steady_clock;

/// The program on a bus.
class Live {
public:
    explicit Live(const Options& o) : _o(o), _socket(o.source), _stop(block_signals()) {
        if (!o.record.empty()) {
            _record = fopen(o.record.c_str(), "we");
            if (!_record) fail(1, "cannot write %s: %s", o.record.c_str(), strerror(errno));
        }
        if (o.listen) return;
        // The number differs from that of a tool on another machine, and stays: the kernel remembers who had an
        // address, and leaves it to nobody whose NAME does not win.
        JIN_name name;
        name.set_arbitrary_address(true).set_function(129).set_identity_number(static_cast<uint32_t>(gethostid()));
        _node = std::make_unique<JIN_socket_stack>(Diner_info_list::get(), o.source.c_str(), name, 249);
        _node->start();
        _inbox = std::make_unique<JIN_inbox>(*_node, nullptr, std::initializer_list<uint32_t>());
        _questions = std::make_unique<Questions>(*_node);
    }
    int run();

private:
    int block_signals() {
        const sigset_t set = stop_signals();
        pthread_sigmask(SIG_BLOCK, &set, nullptr); // before the first thread
        signal(SIGPIPE, SIG_IGN);                  // noticed by the failing output
        return signalfd(-1, &set, SFD_CLOEXEC);
    }
    /// Take in frames until then; false when the user has had enough.
    bool listen_until(Clock::time_point end, const std::function<bool()>& enough = nullptr);
    void read_frames();
    bool wait_for_address();
    void ask();
    void clear();
    void watch();

    const Options& _o;
    const Can_socket _socket;
    const int _stop;
    FILE* _record = nullptr;
    Bus_view _view;
    std::unique_ptr<JIN_socket_stack> _node;
    std::unique_ptr<JIN_inbox> _inbox; ///< nobody is sent a long message who does not want it
    std::unique_ptr<Questions> _questions;
};

void Live::read_frames() {
    // What is for us has come as frames already.
    if (_inbox)
        for (JIN_grow_message m; _inbox->receive(m);) {
        }
    JIN_frame f;
    for (;;) {
        const Can_socket::Result result = _socket.read(f);
        if (result == Can_socket::none) return;
        if (result == Can_socket::failed) fail(1, "%s: %s", _o.source.c_str(), strerror(errno));
        _view.frame(f);
        if (_record && fprintf(_record, "%s\n", f.to_line(_o.source.c_str()).c_str()) < 0)
            fail(1, "cannot write %s: %s", _o.record.c_str(), strerror(errno));
    }
}

bool Live::listen_until(Clock::time_point end, const std::function<bool()>& enough) {
    constexpr auto between = std::chrono::milliseconds(50); // two questions
    for (;;) {
        if (enough && enough()) return true;
        if (_questions) {
            if (_o.request < 0 && _o.clear < 0) _questions->ask_new_ones(_view.monitor);
            _questions->send_next();
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        if (left.count() <= 0) return true;
        pollfd fds[] = {{_socket.fd, POLLIN, 0}, {_stop, POLLIN, 0}};
        poll(fds, 2, static_cast<int>(std::min(left, between).count()));
        if (fds[1].revents) return false;
        read_frames();
    }
}

/// An address takes at most a second on a bus that works.
bool Live::wait_for_address() {
    uint8_t own;
    listen_until(Clock::now() + std::chrono::seconds(3), [&] { return _node->address(own); });
    return _node->address(own);
}

void Live::ask() {
    if (!wait_for_address()) fail(1, "%s: no address could be had", _o.source.c_str());
    const auto pgn = static_cast<uint32_t>(_o.request);
    bool answered = false;
    _view.also = [&](const JIN_message& m) {
        const Trouble_code_messages::Msg_acknowledgment a(m);
        uint8_t own = JIN::no_address;
        const bool ours = _node->address(own) && a.address() == own;
        const bool is_answer = m.pgn == pgn || (m.pgn == JIN::pgn_acknowledgement && a.pgn() == pgn && ours);
        if (!is_answer || m.source == own) return;
        answered = true;
        print(Bus_report::answer(m));
    };
    _questions->ask(pgn, static_cast<uint8_t>(_o.to));
    listen_until(Clock::now() + std::chrono::seconds(_o.seconds));
    _view.also = nullptr;
    if (!answered) fail(1, "nobody answered");
}

void Live::clear() {
    if (!wait_for_address()) fail(1, "%s: no address could be had", _o.source.c_str());
    for (const uint32_t pgn : {uint32_t{Trouble_code_messages::pgn_DM11}, uint32_t{Trouble_code_messages::pgn_DM3}}) {
        int control = -1;
        _view.also = [&](const JIN_message& m) {
            const Trouble_code_messages::Msg_acknowledgment a(m);
            uint8_t own;
            if (m.pgn == JIN::pgn_acknowledgement && m.source == _o.clear && a.valid() && a.pgn() == pgn &&
                _node->address(own) && a.address() == own)
                control = a.control();
        };
        _questions->ask(pgn, static_cast<uint8_t>(_o.clear));
        listen_until(Clock::now() + std::chrono::seconds(2), [&] { return control >= 0; });
        _view.also = nullptr;
        const char* const which = pgn == Trouble_code_messages::pgn_DM11 ? "active" : "previously active";
        if (control < 0) fail(1, "address %ld does not answer", _o.clear);
        if (control != 0) fail(1, "address %ld refuses to erase its %s codes", _o.clear, which);
        print("address " + std::to_string(_o.clear) + ": " + which + " codes erased\n");
    }
}

/// The table, every second; where it goes into a file, once at the end.
void Live::watch() {
    const bool tty = isatty(STDOUT_FILENO);
    do {
        if (_o.csv || !tty) continue;
        print("\033[H\033[J");
        print_tables(_o, _view, Atime::now());
        print("\n" + std::to_string(_view.num_frames) + " frames; Ctrl-C ends\n");
    } while (listen_until(Clock::now() + std::chrono::seconds(1)));
    if (_o.csv || !tty) print_tables(_o, _view, Atime::now());
}

int Live::run() {
    if (_o.request >= 0) {
        ask();
    } else if (_o.clear >= 0) {
        clear();
    } else if (_o.once) {
        listen_until(Clock::now() + std::chrono::seconds(_o.seconds));
        print_tables(_o, _view, Atime::now());
    } else {
        watch();
    }
    FILE* const record = std::exchange(_record, nullptr);
    if (record && fclose(record) != 0) fail(1, "cannot write %s: %s", _o.record.c_str(), strerror(errno));
    return 0;
}

/// Before signals are blocked: Ctrl-C is an answer, too.
void confirm(const Options& o) {
    if (o.clear < 0 || o.yes) return;
    fprintf(stderr, "Erase all trouble codes of the node at address %ld? [y/N] ", o.clear);
    const int answer = getchar();
    if (answer != 'y' && answer != 'Y') fail(1, "nothing was erased");
}

} // namespace

int main(int argc, char** argv) {
    keep_standard_streams();
    const Options o(argc, argv);
    if (o.is_log) return replay(o);
    confirm(o);
    return Live(o).run();
}
