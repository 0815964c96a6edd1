// SPDX-License-Identifier: MIT
// The library's main job on real bytes: a receiver on a serial line is read by a threaded serial stream, its diner is
// woken, the parser cuts frames, replies and text, the printer prints them. Position and quality go into a block of
// data that the machine's components share, and a second diner is woken when the position in it changes. Without a
// receiver at hand a simulated one drives a machine over a field and writes into a pseudo-terminal.
#include "Receiver_diner.h"
#include "Receiver_simulator.h"
#include "Status_diner.h"
#include "glue/data_stream/Posix_data_stream.h"
#include "glue/diner/Diner_info_list.h"
#include "util/Debug_text_dumper.h"
#include "util/Mspace.h"
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <pty.h>
#include <string>
#include <unistd.h>

namespace {

struct Arguments {
    std::string comm;     ///< device argument; empty: the simulator
    int seconds = -1;     ///< how long to run; -1: 10 with the simulator, without end with a receiver
    unsigned faults = 40; ///< one frame in so many is hit; 0: none
    bool quiet = false;
};

const char usage[] =
    "usage: field_controller [--comm device[:baud[:rs485|rs232]]] [--seconds N] [--faults N] [--quiet]\n"
    "  --comm     listen to a receiver on that serial line instead of the simulator\n"
    "  --seconds  run so long (default: 10 with the simulator, until Ctrl-C with a receiver)\n"
    "  --faults   the simulated line spoils one frame in N (default 40, 0: none)\n"
    "  --quiet    print no messages, only the tables at the end\n";

[[noreturn]] void wrong(const std::string& what) {
    fprintf(stderr, "field_controller: %s (try --help)\n", what.c_str());
    exit(2);
}

int number(const char* option, const char* text) {
    char* end = nullptr;
    const long n = text ? strtol(text, &end, 10) : -1;
    if (!text || end == text || *end || n < 0 || n > 1000000)
        wrong(std::string(option) + " needs a number of 0 or more");
    return static_cast<int>(n);
}

Arguments parse(int argc, char** argv) {
    Arguments a;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (option == "--help" || option == "-h") {
            fputs(usage, stdout);
            exit(0);
        } else if (option == "--quiet") {
            a.quiet = true;
        } else if (option == "--comm" || option == "-c") {
            if (!value) wrong(option + " needs a device");
            a.comm = value;
            ++i;
        } else if (option == "--seconds") {
            a.seconds = number("--seconds", value);
            ++i;
        } else if (option == "--faults") {
            a.faults = static_cast<unsigned>(number("--faults", value));
            ++i;
        } else {
            wrong("unknown argument " + option);
        }
    }
    return a;
}

/// Sleep until the time is over or Ctrl-C; the signals are blocked in all threads.
void run_for(int seconds) {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    if (seconds < 0) {
        int signal;
        sigwait(&stop, &signal);
    } else {
        const struct timespec limit = {seconds, 0};
        sigtimedwait(&stop, nullptr, &limit);
    }
}

void block_stop_signals() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
}

void print_summary(const Receiver_simulator* simulator, const Receiver_diner& receiver, const Data_stream& stream) {
    const Receiver_diner::Counts in = receiver.counts();
    if (simulator) {
        const Receiver_simulator::Counts out = simulator->counts();
        printf("frames sent        %7u   (%u line faults, %u frames or replies spoilt)\n", out.frames, out.faults,
               out.damaged);
        printf("replies sent       %7u\n", out.replies);
        if (out.unsent) printf("frames not sent    %7u   (the line was full)\n", out.unsent);
    }
    printf("frames delivered   %7u\n", in.delivered);
    printf("frames rejected    %7u   (%u wrong checksum, %u impossible header)\n", in.rejected + in.refused,
           in.rejected, in.refused);
    printf("text lines         %7u   (noise, cut frames)\n", in.text_lines);
    printf("replies            %7u\n", in.replies);
    printf("bytes lost         %7u   (stream buffer full)\n", stream.bytes_lost);
    if (simulator) printf("longest time from byte to handler %.2f ms\n", static_cast<double>(in.longest_us) / 1000);
}

} // namespace

int main(int argc, char** argv) {
    Arguments arguments = parse(argc, argv);
    block_stop_signals();
    module_man& modules = Diner_info_list::get();

    // The simulator's end of the line; the other end is a serial device like any other.
    int master = -1, slave = -1;
    std::string device = arguments.comm;
    if (device.empty()) {
        char path[64];
        if (openpty(&master, &slave, path, nullptr, nullptr) != 0) {
            perror("field_controller: no pseudo-terminal");
            return 1;
        }
        fcntl(master, F_SETFL, O_NONBLOCK); // a line that nobody reads must not stop the simulator
        device = std::string(path) + ":115200";
        if (arguments.seconds < 0) arguments.seconds = 10;
    } else if (!Posix_threaded_data_stream::can_open(device.substr(0, device.find(':')).c_str())) {
        fprintf(stderr, "field_controller: cannot open %s: %s\n", device.c_str(), strerror(errno));
        return 1;
    }

    Posix_threaded_serial_data_stream stream(device.c_str());
    stream.init(modules);
    Posix_data_stream line(master, master);
    Link_watch watch;
    Machine_store store(modules);
    {
        std::unique_ptr<Receiver_simulator> simulator;
        Status_diner status(store, arguments.quiet);
        status.init(modules);
        status.start();
        Receiver_diner receiver(stream, store, master >= 0 ? &watch : nullptr, arguments.quiet);
        receiver.init(modules);
        receiver.start();
        if (master >= 0) {
            simulator = std::make_unique<Receiver_simulator>(line, watch, arguments.faults);
            simulator->init(modules);
            simulator->start();
        }
        run_for(arguments.seconds);
        if (simulator) simulator->stop();
        status.stop(); // no line of its own among the tables

        puts("\nDiners");
        Diner_info_list::get().print(false, false);
        puts("\nReceiver link");
        print_summary(simulator.get(), receiver, stream);
        printf("position changes   %7u   (the status diner was woken)\n", status.wake_ups());
        puts("\nMemory spaces (hexadecimal)");
        Debug::Text_dumper dumper(stdout);
        Mspace_manager::print_global_usage(dumper);
    }
    stream.close();
    line.close();
    if (slave >= 0) ::close(slave);
    puts("\nAll diners terminated.");
    return 0;
}
