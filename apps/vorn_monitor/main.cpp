// SPDX-License-Identifier: MIT
// Shows what a receiver says: attaches to a serial line, or reads a recorded file or standard input, and prints one
// line per packet. Packets go to standard output and everything else to standard error, so that a redirected log is
// clean. Status 1: the outside world failed, 2: wrong arguments.
#include "Report.h"
#include "glue/data_stream/Posix_data_stream.h"
#include "glue/data_stream/Posix_threaded_serial_data_stream.h"
#include "glue/data_stream/Recorder_data_stream.h"
#include "glue/data_stream/Replay_data_stream.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include "glue/vorn/GNSS_messages.h"
#include "glue/vorn/Vorn_checkers.h"
#include "options.h"
#include "progress.h"
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char usage[] = "Usage: vorn_monitor -c device[:baud[:mode]] [--csv] [--stats] [--plot SVG]\n"
                     "                    [--record F [--timed]] [--shared]\n"
                     "  or:  vorn_monitor FILE [--csv] [--stats] [--plot SVG] [--record F [--timed]] [--speed N]\n"
                     "Print what a receiver says, one line per packet, until the file ends or Ctrl-C.\n"
                     "  -c, --comm  listen to a serial line; baud 300 to 460800 (9600), mode rs232 or rs485\n"
                     "  --shared    do not keep other programs out of the line\n"
                     "  FILE        read a recorded file, - for standard input\n"
                     "  --record F  keep the bytes in a new file while they are printed\n"
                     "  --timed     with --record: and when they came, for a replay\n"
                     "  --speed N   replay a timed recording at N times its original speed, not all at once\n"
                     "  --csv       comma-separated form\n"
                     "  --stats     a summary on standard error at the end\n"
                     "  --plot SVG  draw the track into that file at the end\n"
                     "  -h, --help  this text\n"
                     "  --version   the version\n";

struct Options {
    std::string device; ///< as given to -c; empty when a file is read
    std::string file;
    std::string record; ///< where to keep the bytes; empty: nowhere
    bool timed = false; ///< with their times
    double speed = 0;   ///< of a replay; 0: all at once
    std::string plot;   ///< where to draw the track; empty: nowhere
    bool csv = false;
    bool stats = false;
    bool shared = false; ///< other programs may use the line, too

    std::string device_path() const { return device.substr(0, device.find(':')); }
};

/// What the library would tacitly put right, a technician wants to hear of.
bool check_device(const std::string& device) {
    std::string fields[3]; // path, speed, mode
    size_t n = 0;
    for (const char c : device) {
        if (c != ':') {
            fields[n] += c;
        } else if (++n == 3) {
            fail(2, "too many fields in %s: device[:baud[:mode]] (try --help)", device.c_str());
        }
    }
    if (fields[0].empty()) fail(2, "-c needs a device (try --help)");
    if (!fields[1].empty()) {
        int baud;
        if (!read_number(fields[1].c_str(), baud) || baud < 300 || baud > 460800)
            fail(2, "wrong speed %s (300 to 460800)", fields[1].c_str());
    }
    if (!fields[2].empty() && fields[2] != "rs232" && fields[2] != "rs485") {
        fail(2, "wrong mode %s (rs232 or rs485)", fields[2].c_str());
    }
    return true;
}

Options parse(int argc, char** argv) {
    Options o;
    size_t sources = 0;
    const auto set_device = [&](const char* value) { return ++sources, o.device = value, check_device(o.device); };
    const auto files = read_options(argc, argv, usage,
                                    {{"comm", set_device, 'c'},
                                     {"csv", o.csv},
                                     {"stats", o.stats},
                                     {"plot", o.plot},
                                     {"shared", o.shared},
                                     {"record", o.record},
                                     {"timed", o.timed},
                                     {"speed", o.speed, 0.001, 1000.0}});
    sources += files.size();
    if (!files.empty()) o.file = files[0];
    if (sources != 1) fail(2, "give one device with -c, or one file (try --help)");
    if (o.timed && o.record.empty()) fail(2, "--timed needs --record (try --help)");
    if (o.speed > 0 && o.file.empty()) fail(2, "--speed needs a recording (try --help)");
    return o;
}

/// Keeps what a stream brings, if that is wanted. A recording that is there already is not written over.
class Recording_file {
public:
    Recording_file(const Options& o, Data_stream& source) : _source(source) {
        if (o.record.empty()) return;
        struct stat status;
        const bool there = stat(o.record.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
        const int fd = there ? -1 : open(o.record.c_str(), O_WRONLY | O_CREAT | O_NOCTTY | O_CLOEXEC, 0666);
        if (fd < 0)
            fail(1, "cannot record to %s: %s", o.record.c_str(), there ? "it is there already" : strerror(errno));
        _file.emplace(-1, fd);
        _recorder.emplace(source, *_file, o.timed ? Recorder_data_stream::timed : Recorder_data_stream::raw,
                          o.record.c_str());
    }
    /// What to read in place of the source.
    Data_stream& stream() { return _recorder ? *_recorder : _source; }
    bool failed() const { return _recorder && !_recorder->is_recording(); }

private:
    Data_stream& _source;
    std::optional<Posix_data_stream> _file;
    std::optional<Recorder_data_stream> _recorder;
};

/// What is asked for at the end. A reader of the output that has gone has seen enough; any other failure of the output
/// is one of the program.
void conclude(const Options& o, const Report& report, const Data_stream& stream, int incomplete) {
    if (o.stats) report.summary(stream, incomplete);
    if (!o.plot.empty() && !report.write_plot(o.plot)) {
        fail(1, "cannot draw %s: %s", o.plot.c_str(), errno == ENODATA ? "no position was met" : strerror(errno));
    }
    const int reason = report.output_error();
    if (reason != 0 && reason != EPIPE) fail(1, "cannot write: %s", strerror(reason));
}

/// The signals that end the program arrive here and nowhere else. To be made before the first thread.
class Stop_signals {
public:
    Stop_signals() {
        const sigset_t set = stop_signals();
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        fd = signalfd(-1, &set, SFD_CLOEXEC);
        signal(SIGPIPE, SIG_IGN); // noticed by the failing output
    }
    /// True when one came, after waiting for it up to `ms`.
    bool came(int ms) const {
        pollfd p = {fd, POLLIN, 0};
        return poll(&p, 1, ms) > 0;
    }
    int fd;
};

constexpr int packet_room = 4200; // [bytes] more than any packet

/// Takes messages that the library does not know as they come. Of the others it refuses impossible lengths, which the
/// library reports on standard error: damaged on the line, they would swallow the frames behind.
class Monitor_checker : public Vorn_length_checker {
public:
    Monitor_checker() {
        longest_array = 500;
        longest_text = packet_room; // a reply may be as long as it likes
    }
    bool check(Data_stream& stream, unsigned short id, int total_len) override {
        return !GNSS_messages::find(id) || Vorn_length_checker::check(stream, id, total_len);
    }
};

/// Wait for bytes that are due and take them; false at the end of the recording and when a signal came.
bool more_bytes(Replay_data_stream& replay, Data_stream& taker, const Stop_signals& stop) {
    const int ms = replay.ms_to_next();
    if (ms < 0 || stop.came(ms)) return false;
    taker.bytes_avail(Data_stream::BUFFER_SIZE);
    return true;
}

/// Wait for bytes and take those that are there; false at the end of the file and when a signal came.
bool more_bytes(Posix_data_stream& stream, Data_stream& taker, int fd, const Stop_signals& stop) {
    pollfd waits[] = {{fd, POLLIN, 0}, {stop.fd, POLLIN, 0}};
    while (poll(waits, 2, -1) < 0) {
    }
    if (waits[1].revents) return false;
    const uint32_t before = stream.bytes_read;
    taker.bytes_avail(Data_stream::BUFFER_SIZE);
    return stream.bytes_read != before;
}

/// Print what is there; false when the program shall end.
bool print_packets(Vorn_parser& parser, Report& report, const Stop_signals& stop) {
    unsigned char packet[packet_room];
    int len;
    while (const int kind = parser.get_packet(packet, sizeof packet, len)) {
        report.packet(kind, packet, len);
        if (stop.came(0) || report.output_error()) return false;
    }
    return true;
}

/// Whether a file begins as a timed recording does. Its bytes stay unread.
bool is_timed(int fd) {
    char begin[Recording::magic_size];
    return pread(fd, begin, sizeof begin, lseek(fd, 0, SEEK_CUR)) == static_cast<ssize_t>(sizeof begin) &&
           memcmp(begin, Recording::magic, sizeof begin) == 0;
}

void monitor_file(const Options& o) {
    const int fd = o.file == "-" ? STDIN_FILENO : open(o.file.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC);
    struct stat status;
    if (fd < 0 || fstat(fd, &status) != 0) fail(1, "cannot open %s: %s", o.file.c_str(), strerror(errno));
    if (S_ISDIR(status.st_mode)) fail(1, "cannot read %s: it is a directory", o.file.c_str());

    const Stop_signals stop;
    Report report(o.csv);
    Posix_data_stream stream(fd);
    stream.set_read_timeout(0); // take what is there; all waiting is done here, together with the signals
    std::optional<Replay_data_stream> replay;
    if (o.speed > 0 || (S_ISREG(status.st_mode) && is_timed(fd))) {
        replay.emplace(stream, o.speed);
        replay->set_read_timeout(0);
    }
    Recording_file recording(o, replay ? static_cast<Data_stream&>(*replay) : stream);
    Vorn_parser parser(&recording.stream(), false);
    Monitor_checker checker;
    parser.set_checker(&checker);
    {
        Progress progress(S_ISREG(status.st_mode) ? static_cast<uint64_t>(status.st_size) : 0);
        uint64_t bytes = 0;
        const auto more = [&] {
            return replay ? more_bytes(*replay, recording.stream(), stop)
                          : more_bytes(stream, recording.stream(), fd, stop);
        };
        for (uint32_t before = 0; more() && print_packets(parser, report, stop);) {
            bytes += stream.bytes_read - before; // a difference, since the stream's count begins anew after 4 GB
            before = stream.bytes_read;
            progress.at(bytes);
        }
    }
    char c; // a regular file that ended answers 0, one that failed fails again
    const int reason = S_ISREG(status.st_mode) && read(fd, &c, 1) < 0 ? errno : 0;
    conclude(o, report, recording.stream(), recording.stream().bytes_avail());
    if (recording.failed() || (replay && replay->state() >= Replay_data_stream::cut)) exit(1); // a line has said so
    if (reason != 0) fail(1, "cannot read %s: %s", o.file.c_str(), strerror(reason));
}

/// Prints what the reader thread of a serial line delivers.
class Listener : public Diner::Protection {
public:
    Listener(Posix_threaded_serial_data_stream& stream, Data_stream& taker, Report& report, const char* device)
        : _stream(stream), _taker(taker), _report(report), _parser(&taker, false), _device(device) {
        _parser.set_checker(&_checker);
    }
    ~Listener() override {
        _stream.deregister_waiter(&waiter);
        _stream.deregister_line_waiter(&waiter);
        terminate(true);
    }
    void listen(module_man& modules) {
        init(modules, Descriptor("MONITOR", 1));
        _stream.init(modules);
        _stream.register_waiter(&waiter);
        _stream.register_line_waiter(&waiter);
        start();
    }
    bool line_lost() const { return _line_lost; }
    /// Print nothing any more; false when the last line cannot be got rid of, because its reader does not read.
    bool finish() {
        if (!lock(100)) return false;
        _finished = true;
        unlock();
        return true;
    }

private:
    using Diner::handle_timeout;
    void handle_timeout(Timeout&) override {}
    void handle_event(waiter_event& event) override {
        if (event.id == Posix_threaded_data_stream::event_line_lost) {
            _line_lost = true;
            fprintf(stderr, "vorn_monitor: %s hung up, waiting for it\n", _device);
        } else if (event.id == Posix_threaded_data_stream::event_line_back) {
            _line_lost = false;
            fprintf(stderr, "vorn_monitor: %s is back\n", _device);
        }
        _taker.bytes_avail(Data_stream::BUFFER_SIZE);
        unsigned char packet[packet_room];
        int len;
        while (!_finished) {
            const int kind = _parser.get_packet(packet, sizeof packet, len);
            if (kind == Vorn_parser::kind_none) break;
            _report.packet(kind, packet, len);
            if (_report.output_error() == 0) continue;
            _finished = true;
            kill(getpid(), SIGTERM);
        }
    }

    Posix_threaded_serial_data_stream& _stream;
    Data_stream& _taker; ///< what takes its bytes: itself, or a recorder
    Report& _report;
    Vorn_parser _parser;
    Monitor_checker _checker;
    const char* _device;
    std::atomic<bool> _line_lost{false};
    bool _finished = false;
};

/// Why a device cannot be listened to; null when it can.
const char* why_not(const std::string& path, bool shared) {
    const char* const taken = "another program uses it (--shared reads along)";
    const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return errno == EBUSY ? taken : strerror(errno);
    const char* reason = isatty(fd) ? nullptr : "it is no serial line";
    if (!reason && !shared && flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) reason = taken;
    close(fd);
    return reason;
}

/// Whether the line was lost, as the stream's thread notices within `ms`: then a set-up that failed is no fault of the
/// device.
bool hung_up(const Posix_threaded_data_stream& stream, const Stop_signals& stop, int ms) {
    for (const int step = 10; ms > 0 && stream.hang_ups() == 0 && !stop.came(step);) ms -= step;
    return stream.hang_ups() > 0;
}

void monitor_device(const Options& o) {
    constexpr int retry_ms = 500;
    const std::string path = o.device_path();
    if (const char* reason = why_not(path, o.shared)) fail(1, "cannot open %s: %s", path.c_str(), reason);

    const Stop_signals stop;
    Report report(o.csv);
    Posix_threaded_serial_data_stream stream;
    stream.set_open_failure_fatal(false);
    stream.set_exclusive(!o.shared);
    Recording_file recording(o, stream);
    {
        Listener listener(stream, recording.stream(), report, path.c_str());
        listener.listen(Diner_info_list::get());
        if (!stream.open_from_args(o.device.c_str()) && !hung_up(stream, stop, retry_ms))
            fail(1, "cannot set up %s", o.device.c_str());
        // A line that was pulled out comes back as another device of the same name.
        while (!stop.came(retry_ms)) {
            if (listener.line_lost() && !why_not(path, o.shared)) stream.open_from_args(o.device.c_str());
        }
        stream.close();
        if (!listener.finish()) {
            fputs("vorn_monitor: the output is stuck\n", stderr);
            _exit(1); // the thread that waits for it cannot be ended
        }
    }
    conclude(o, report, stream, recording.stream().bytes_avail());
    if (recording.failed()) exit(1); // a line has said so
}

} // namespace

int main(int argc, char** argv) {
    keep_standard_streams();
    const Options options = parse(argc, argv);
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    if (options.device.empty()) {
        monitor_file(options);
    } else {
        monitor_device(options);
    }
    return 0;
}
