// SPDX-License-Identifier: MIT
// The library's main job on real bytes: a receiver on a serial line is read by a threaded serial stream, its diner is
// woken, the parser cuts frames, replies and text, the printer prints them. Position and quality go into a block of
// data that the machine's components share, and a second diner is woken when the position in it changes; what it finds
// wrong goes into the history of faults. Without a receiver at hand a simulated one drives a machine over a field and
// writes into a pseudo-terminal; its time sets the machine's clock, which begins in 1970, and timeouts move along.
#include "Arguments.h"
#include "Fault_history.h"
#include "Machine_bus.h"
#include "Machine_clock.h"
#include "Machine_guard.h"
#include "Machine_settings.h"
#include "Receiver_diner.h"
#include "Receiver_simulator.h"
#include "Scratch_folder.h"
#include "Status_diner.h"
#include "fail.h"
#include "glue/cds/CDS_server.h"
#include "glue/data_stream/Posix_data_stream.h"
#include "glue/diner/Buffered_logger.h"
#include "glue/diner/Clock_watch.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Trace.h"
#include "util/Debug_print.h"
#include "util/Debug_text_dumper.h"
#include "util/Mspace.h"
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <pty.h>
#include <string>
#include <unistd.h>

namespace {

/// Sleep until the time is over (negative: no limit) or Ctrl-C; the signals are blocked in all threads. False on
/// Ctrl-C.
bool run_for(int ms) {
    using namespace std::chrono;
    const sigset_t stop = stop_signals();
    const auto end = steady_clock::now() + milliseconds(ms);
    for (;;) {
        const auto left = std::max<int64_t>(duration_cast<nanoseconds>(end - steady_clock::now()).count(), 0);
        const struct timespec limit = {static_cast<time_t>(left / 1000000000), static_cast<long>(left % 1000000000)};
        const int came = ms < 0 ? sigwaitinfo(&stop, nullptr) : sigtimedwait(&stop, nullptr, &limit);
        if (came >= 0 || errno != EINTR) return came < 0; // who was stopped and goes on gets here, too
    }
}

std::string default_settings_file() {
    return std::filesystem::read_symlink("/proc/self/exe").replace_filename("field_controller.settings").string();
}

/// The simulator's end of a line whose other end is a serial device like any other.
struct Simulated_line {
    Simulated_line() {
        char path[64];
        if (openpty(&master, &slave, path, nullptr, nullptr) != 0) fail(1, "no pseudo-terminal: %s", strerror(errno));
        fcntl(master, F_SETFL, O_NONBLOCK); // a line that nobody reads must not stop the simulator
        device = std::string(path) + ":115200";
    }
    ~Simulated_line() {
        close(master);
        close(slave);
    }
    int master, slave;
    std::string device;
};

/// Nothing but the receiver, for another program to listen to. What it sends while nobody does is lost.
int serve(const Arguments& arguments) {
    const Simulated_line pty;
    const std::string limit = arguments.seconds < 0 ? "" : "for " + std::to_string(arguments.seconds) + " s or ";
    printf("The simulated receiver speaks on %s %suntil Ctrl-C\n", pty.device.c_str(), limit.c_str());
    finish_output(1); // whoever listens may wait for this line in a pipe
    Posix_data_stream line(-1, dup(pty.master));
    Link_watch watch;
    Receiver_simulator simulator(line, watch, arguments.faults, arguments.speed);
    simulator.init(Diner_info_list::get());
    simulator.start();
    run_for(arguments.seconds < 0 ? -1 : arguments.seconds * 1000);
    return 0;
}

/// Stop a diner and wait until it has handled what it was posted.
void park(Diner& diner) {
    diner.stop();
    diner.wait_stopped();
}

/// Stop the simulator and wait until all that it wrote has come through the line, at most a second.
void finish_line(Receiver_simulator& simulator, const Data_stream& stream) {
    park(simulator);
    for (int i = 0; i < 100 && stream.counts().read < simulator.counts().bytes; ++i) Atime::delay(10);
}

void print_summary(const Receiver_simulator* simulator, const Receiver_diner& receiver, const Data_stream& stream) {
    const Receiver_diner::Counts in = receiver.counts();
    if (simulator) {
        const Receiver_simulator::Counts out = simulator->counts();
        printf("frames sent        %7u   (%u line faults, %u frames or replies spoilt)\n", out.frames, out.faults,
               out.damaged);
        printf("replies sent       %7u\n", out.replies);
        printf("bytes sent         %7u\n", out.bytes);
        if (out.held_back) printf("epochs held back   %7u   (for the reader)\n", out.held_back);
        if (out.unsent) printf("frames not sent    %7u   (the line was full)\n", out.unsent);
    }
    const Data_stream::Counts line = stream.counts();
    printf("bytes received     %7u\n", line.read);
    printf("frames delivered   %7u\n", in.delivered);
    printf("positions          %7u\n", in.positions);
    printf("frames rejected    %7u   (%u wrong checksum, %u impossible header)\n", in.rejected + in.refused,
           in.rejected, in.refused);
    printf("text lines         %7u   (noise, cut frames)\n", in.text_lines);
    printf("replies            %7u\n", in.replies);
    printf("bytes lost         %7u   (stream buffer full)\n", line.lost);
    if (simulator) printf("longest time from byte to handler %.2f ms\n", static_cast<double>(in.longest_us) / 1000);
}

/// The run itself. Half-way somebody turns a knob, and the history's manager is taken down and up again, as by a power
/// cut: nothing recorded is lost.
void drive(int seconds, Machine_settings& settings, Fault_history& faults) {
    const int half_ms = seconds < 0 ? -1 : seconds * 500;
    if (!run_for(half_ms)) return;
    settings.change_limit();
    faults.restart();
    Buffered_logger::log("history of faults: manager restarted\n");
    run_for(half_ms);
}

void print_tables(const Receiver_simulator* simulator, const Receiver_diner& receiver, const Data_stream& stream,
                  const Status_diner& status, Fault_history& faults) {
    puts("\nDiners: state and what it is doing, events and passes of timeouts handled, last checkpoint");
    Diner_info_list::get().print(false, false);
    puts("\nHow long their handlers took, how long events and timeouts waited for them, the longest queue");
    Diner_info_list::get().print_figures(false);
    puts("\nReceiver link: what the simulator sent, and what came of it");
    print_summary(simulator, receiver, stream);
    printf("position changes   %7u   (the status diner was woken)\n", status.wake_ups());
    printf("faults recorded    %7u   (with too few satellites and the bus's codes, not listed below)\n",
           faults.recorded());
    puts("\nFaults of the antenna and the corrections, from the history (ERR,source:fault,detail,time)");
    faults.replay(Fault_history::antenna);
    faults.replay(Fault_history::corrections);
}

/// What a run leaves behind must have got where it belongs; false, with one line each, when it did not.
bool keep_results(const Arguments& arguments, const Status_diner& status, Machine_settings& settings) {
    bool kept = true;
    if (!arguments.plot.empty() && !status.write_plot(arguments.plot)) {
        fprintf(stderr, "field_controller: cannot write %s: %s\n", arguments.plot.c_str(), strerror(errno));
        kept = false;
    }
    if (!arguments.trace.empty()) kept &= Trace::write_file(arguments.trace.c_str()) == 0;
    puts("");
    if (!settings.save(status.wake_ups())) {
        fputs("field_controller: the settings are not saved\n", stderr);
        kept = false;
    }
    return kept;
}

/// The machine at work, with the simulated receiver at the other end of the line unless that is null. False when not
/// everything went well.
bool run(const Arguments& arguments, Simulated_line* pty, const std::string& folder) {
    module_man& modules = Diner_info_list::get();
    if (!arguments.trace.empty()) {
        Trace::start();
        Trace::at_abort(arguments.trace.c_str()); // should it end by a fault, the last that was done
    }
    if (pty) Machine_clock::begin(); // the host's is not touched
    Clock_watch clock(modules);
    Posix_threaded_serial_data_stream stream;
    stream.init(modules);
    stream.set_open_failure_fatal(false); // an exit would wait for the diners
    Posix_data_stream line(-1, pty ? dup(pty->master) : -1);
    Link_watch watch;
    Machine_store store(modules);
    CDS::Remote::Server server(store.root(), [&](const CDS::Lookup_item& item, CDS::Remote::Receive_buffer value) {
        return store.may_write(item, value);
    });
    if (!arguments.share.empty() && !server.share(arguments.share.c_str())) {
        fprintf(stderr, "field_controller: cannot share %s: %s\n", arguments.share.c_str(), strerror(errno));
        return false;
    }
    Machine_settings settings(modules, arguments.settings.empty() ? default_settings_file() : arguments.settings);
    settings.load();
    Machine_bus bus(modules, arguments.can);
    Fault_history faults(modules, folder, bus.controller());
    if (!faults.usable()) {
        perror("field_controller: no folder for the history of faults");
        return false;
    }
    Buffered_logger logger;
    logger.init(modules);
    logger.info.handler_limit_ms = -1; // an output that nobody reads is no reason to restart
    Machine_guard guard(modules);
    std::unique_ptr<Receiver_simulator> simulator;
    Status_diner status(store, settings, faults, arguments.quiet, !arguments.plot.empty());
    status.init(modules);
    status.start();
    Receiver_diner receiver(stream, store, faults, pty ? &watch : nullptr, !arguments.messages);
    if (pty) receiver.set_clock(clock);
    receiver.init(modules);
    receiver.start();
    if (!arguments.quiet) {
        puts("\nA line a second says where the machine is, how good the position is (fixed: centimetres, float: "
             "decimetres),\n"
             "and how many faults were recorded. \"Unexpected msg\" is the parser's line when it meets a header that "
             "the\n"
             "line has spoilt, as the simulator does on purpose. \"Clock_watch\": the machine's clock begins in 1970, "
             "and the\n"
             "receiver sets it.\n");
    }
    // Now that somebody is woken by what comes.
    const std::string device = pty ? pty->device : arguments.comm;
    if (!stream.open_from_args(device.c_str())) {
        fprintf(stderr, "field_controller: cannot set up %s\n", device.c_str());
        return false;
    }
    if (pty) {
        simulator = std::make_unique<Receiver_simulator>(line, watch, arguments.faults, arguments.speed);
        simulator->init(modules);
        simulator->start();
    }
    guard.ready();
    drive(arguments.seconds, settings, faults);
    guard.stopping();
    if (simulator) finish_line(*simulator, stream);
    park(receiver);
    park(status); // no line of its own among the tables

    print_tables(simulator.get(), receiver, stream, status, faults);
    bus.print();
    const bool kept = keep_results(arguments, status, settings);
    puts("\nMemory spaces for events and registrations [bytes, hexadecimal]");
    Debug::Text_dumper dumper(stdout);
    Mspace_manager::print_global_usage(dumper);
    return kept;
}

} // namespace

int main(int argc, char** argv) {
    keep_standard_streams();
    Arguments arguments = parse_arguments(argc, argv);
    Debug_print::debug_file = stdout; // before the first thread, as it is meant to be: all lines in one order
    const sigset_t stop = stop_signals();
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    if (arguments.serve) return serve(arguments);
    if (!arguments.comm.empty() &&
        !Posix_threaded_data_stream::can_open(arguments.comm.substr(0, arguments.comm.find(':')).c_str()))
        fail(1, "cannot open %s: %s", arguments.comm.c_str(), strerror(errno));

    const Scratch_folder folder("field_controller");
    if (folder.path.empty()) fail(1, "no folder for the history of faults: %s", strerror(errno));
    std::unique_ptr<Simulated_line> pty;
    if (arguments.comm.empty()) {
        pty = std::make_unique<Simulated_line>();
        if (arguments.seconds < 0) arguments.seconds = 10;
    }
    bool good = run(arguments, pty.get(), folder.path);
    puts("\nAll diners terminated.");
    if (const char* reason = output_error()) {
        fprintf(stderr, "field_controller: cannot write: %s\n", reason);
        good = false;
    }
    return good ? 0 : 1;
}
