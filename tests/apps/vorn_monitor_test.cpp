// SPDX-License-Identifier: MIT
#include "support/Pty.h"
#include "support/frame.h"
#include "support/test.h"
#include <poll.h>
#include <sys/file.h>
#include <sys/prctl.h>

namespace {

using Arguments = std::vector<std::string>;

TEST(vorn_monitor, prints_a_line_for_each_packet_of_a_recording_and_counts_them) {
    // Messages, replies, damage, noise, and the beginning of a frame at the end.
    const std::string gt = Frame("GT").u4(360000).u2(2300).str(),
                      input = gt + "\r\n" + Frame("RE").text("%1%on").bare() + "\r\n" +
                              Frame("ER").text("%2%{4,wrong command}").bare() + "\r\n" +
                              std::string(gt).replace(6, 1, "?") + "\n\x01noise\x1b[2J\r\nGTF0B..\n" +
                              Frame("NP").text("all\x1b is well").bare() + "\r\n" + Frame("ZZ").u1(1).u1(0xAB).str() +
                              "\r" + Frame("EL").i1(45).i1(-5).str() + "\nPG01E half";
    const Child_result labelled = run_program(VORN_MONITOR, {"-", "--stats"}, input);
    EXPECT_EQ(
        labelled.out,
        "GT ms=360000 week=2300\nRE %1%on\nER error 1 (wrong command): %2%{4,wrong command}\n"
        "GT wrong checksum 12 bytes\nTEXT .noise.[2J\nTEXT TF0B..\nNP all. is well\nZZ unknown 01 ab\nEL 45 -5\n");
    const size_t counts = labelled.err.find("frames");
    EXPECT_EQ(labelled.err.substr(0, 25), "Unexpected msg GT(3856) i");
    EXPECT_EQ(labelled.err.substr(counts == std::string::npos ? 0 : counts),
              "frames                   4\n"
              "  EL                     1  elevations\n"
              "  NP                     1  text\n"
              "  GT                     1  time and week\n"
              "  ZZ                     1  unknown\n"
              "wrong checksums          1\n"
              "replies                  2  (1 errors)\n"
              "text lines               2\n"
              "bytes                  " +
                  std::to_string(input.size()) + "\nbytes lost               0\nbytes left over         10\n");
    EXPECT_EQ(run_program(VORN_MONITOR, {"--csv", "-"}, input).out,
              "GT,360000,2300\nRE,%1%on\nER,1,wrong command,%2%{4,wrong command}\nGT,wrong checksum,12 bytes\n"
              "TEXT,.noise.[2J\nTEXT,TF0B..\nNP,all. is well\nZZ,unknown 01 ab\nEL,45,-5\n");
}

TEST(vorn_monitor, draws_the_positions_that_it_met_save_absurd_ones) {
    const Temporary_folder folder;
    const std::string plot = folder.file("track.svg");
    const Child_result none = run_program(VORN_MONITOR, {"-", "--plot", plot}, "PG01E half");
    EXPECT_EQ(none.err, "vorn_monitor: cannot draw " + plot + ": no position was met\n");
    std::string input;
    for (const auto& [lat, lon] : {std::pair{0.9, 0.1}, {1e300, 0.1}, {0.9, -1e300}, {0.900001, 0.1}, {0.900002, 0.1}})
        input += Frame("PG").f8(lat).f8(lon).f8(100).f4(1).u1(lat > 0.900001 ? 5 : 4).str() + "\n";
    EXPECT_EQ(run_program(VORN_MONITOR, {"-", "--plot", plot}, input).status, 0);
    const std::string drawn = read_file(plot);
    for (const char* part :
         {"points=\"40.0,600.0 40.0,320.0 40.0,40.0", "fixed: 2 positions", "solution 5: 1 positions"})
        EXPECT_NE(drawn.find(part), std::string::npos) << drawn;
}

TEST(vorn_monitor, answers_what_is_wrong_with_one_line_and_a_status) {
    const Pty no_transceiver, taken;
    const int other = open(taken.path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(flock(other, LOCK_EX), 0);
    const std::pair<Arguments, std::string> rows[] = {
        {{}, "2 give one device with -c, or one file (try --help)"},
        {{"--frob"}, "2 unrecognized option '--frob'"},
        {{"-c", ":9600"}, "2 -c needs a device (try --help)"},
        {{"-c", "/dev/null:299"}, "2 wrong speed 299 (300 to 460800)"},
        {{"-c", "/dev/null:9600:rs422"}, "2 wrong mode rs422 (rs232 or rs485)"},
        {{"-c", "/dev/null"}, "1 cannot open /dev/null: it is no serial line"},
        {{"-c", no_transceiver.path + "::rs485"}, "1 cannot set up " + no_transceiver.path + "::rs485"},
        {{"-c", taken.path}, "1 cannot open " + taken.path + ": another program uses it (--shared reads along)"},
        {{"-c", taken.path + "::rs485", "--shared"}, "1 cannot set up " + taken.path + "::rs485"},
        {{"/none"}, "1 cannot open /none: No such file or directory"},
        {{"/"}, "1 cannot read /: it is a directory"},
        {{"/proc/self/mem"}, "1 cannot read /proc/self/mem: Input/output error"},
    };
    for (const auto& [arguments, end] : rows) {
        Child_result r = run_program(VORN_MONITOR, arguments);
        r.err.erase(0, r.err.find(": ") + 2); // the program's name
        EXPECT_EQ(r.end() + r.out, end + "\n");
    }
    close(other);
}

TEST(vorn_monitor, records_what_it_prints_and_replays_it) {
    const Temporary_folder folder;
    const std::string input =
                          Frame("GT").u4(360000).u2(2300).str() + "\r\n$noise\n" + Frame("GT").u4(1).u2(2).str() + "\n",
                      printed = "GT ms=360000 week=2300\nTEXT $noise\nGT ms=1 week=2\n";
    const std::string raw = folder.file("raw"), timed = folder.file("timed"), again = folder.file("again");
    EXPECT_EQ(run_program(VORN_MONITOR, {"-", "--record", raw}, input).out, printed);
    EXPECT_EQ(read_file(raw), input);
    EXPECT_EQ(run_program(VORN_MONITOR, {raw, "--record", timed, "--timed"}).out, printed);
    EXPECT_EQ(read_file(timed).substr(0, 9), "KAVQTREC\x01");
    for (const Arguments& arguments : {Arguments{timed, "--record", again}, Arguments{timed, "--speed", "1"}}) {
        const Child_result r = run_program(VORN_MONITOR, arguments);
        EXPECT_EQ(r.end() + r.out, "0 " + printed);
    }
    EXPECT_EQ(read_file(again), input);
    write_file(folder.file("short"), "$text\n");
    EXPECT_EQ(run_program(VORN_MONITOR, {folder.file("short")}).out, "TEXT $text\n");

    write_file(folder.file("cut"), read_file(timed).substr(0, 16 + 8 + 20));
    const std::string version = std::string(read_file(timed)).replace(8, 1, "\x02");
    write_file(folder.file("version"), version);
    const std::tuple<Arguments, std::string, std::string> rows[] = {
        {{"-", "--record", raw}, "1 vorn_monitor: cannot record to " + raw + ": it is there already\n", ""},
        {{"-", "--record", "/none/x"}, "1 vorn_monitor: cannot record to /none/x: No such file or directory\n", ""},
        {{"-", "--record", "/dev/full"}, "1 Recording to /dev/full ends: No space left on device\n", printed},
        {{"-", "--timed"}, "2 vorn_monitor: --timed needs --record (try --help)\n", ""},
        {{"-", "--speed", "fast"}, "2 vorn_monitor: wrong speed fast (0.001 to 1000 times the original)\n", ""},
        {{"-c", "/dev/null", "--speed", "1"}, "2 vorn_monitor: --speed needs a recording (try --help)\n", ""},
        {{raw, "--speed", "1"}, "1 Recording ends at byte 0: it is none\n", ""},
        {{folder.file("version")}, "1 Recording ends at byte 0: it is of another version\n", ""},
        {{folder.file("cut")}, "1 Recording ends at byte 44: it is cut\n", printed.substr(0, 23)},
    };
    for (const auto& [arguments, end, out] : rows) {
        const Child_result r = run_program(VORN_MONITOR, arguments, input);
        EXPECT_EQ(r.end() + r.out, end + out);
    }
    EXPECT_EQ(read_file(raw), input) << "it was not written over";
}

TEST(vorn_monitor, fails_when_its_output_does_and_keeps_it_from_what_it_opens) {
    const std::string packet = Frame("GT").u4(1).u2(2300).str() + "\r\n", cannot = "1 vorn_monitor: cannot write: ";
    const Temporary_folder folder;
    write_file(folder.file("recording"), packet);
    const Pty line;
    line.send(packet + packet);
    const std::string full = " >/dev/full", closed = " >&-", refused = "Bad file descriptor\n";
    EXPECT_EQ(run_shell(VORN_MONITOR " --help" + full).end(), cannot + "No space left on device\n");
    EXPECT_EQ(run_shell(VORN_MONITOR " " + folder.file("recording") + full).end(),
              cannot + "No space left on device\n");
    EXPECT_EQ(run_shell(VORN_MONITOR " " + folder.file("recording") + closed).end(), cannot + refused);
    EXPECT_EQ(run_shell(VORN_MONITOR " -c " + line.path + closed).end(), cannot + refused);
}

TEST(vorn_monitor, shows_on_a_terminal_how_far_it_is_unless_the_packets_are_shown_there) {
    const Temporary_folder folder;
    const std::string recording = folder.file("recording");
    write_file(recording, Frame("GT").u4(360000).u2(2300).str() + "\r\n");
    for (const bool packets_there : {false, true}) {
        const Pty terminal;
        run_child([&] {
            const int fd = open(terminal.path.c_str(), O_RDWR | O_NOCTTY);
            dup2(fd, STDERR_FILENO);
            if (packets_there) dup2(fd, STDOUT_FILENO);
            execl(VORN_MONITOR, "vorn_monitor", recording.c_str(), nullptr);
        });
        EXPECT_EQ(terminal.receive(100), packets_there ? "GT ms=360000 week=2300\n" : "100 %\r\033[K");
    }
}

/// A receiver's end of a serial line, reached through a link that a later receiver can take over.
struct Receiver {
    explicit Receiver(const std::string& link) {
        fcntl(pty.master, F_SETFD, FD_CLOEXEC); // a copy in the monitor would keep the line up
        if (symlink(pty.path.c_str(), (link + "~").c_str()) != 0 || rename((link + "~").c_str(), link.c_str()) != 0)
            abort();
    }
    Pty pty;
};

/// A running monitor; what it writes on standard output and standard error comes together.
struct Live_monitor {
    explicit Live_monitor(const std::string& device, const char* record = "/dev/null") {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) abort();
        pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) dup2(ends[1], stream);
            execl(VORN_MONITOR, "vorn_monitor", "-c", device.c_str(), "--stats", "--record", record, nullptr);
        }
        close(ends[1]);
        output = ends[0];
    }
    /// Read on until `text` was said, 20 s at most; meanwhile `r`, if any, sends the time 1 again and again.
    bool says(const std::string& text, const Receiver* r = nullptr) {
        const size_t from = said.size();
        for (int i = 0; i < 400 && said.find(text, from) == std::string::npos; ++i) {
            if (r) r->pty.send(Frame("GT").u4(1).u2(2300).str() + "\r\n");
            pollfd p = {output, POLLIN, 0};
            char piece[4096];
            const ssize_t n = poll(&p, 1, 50) > 0 ? read(output, piece, sizeof piece) : 0;
            said.append(piece, static_cast<size_t>(std::max<ssize_t>(n, 0)));
        }
        return said.find(text, from) != std::string::npos;
    }
    bool ends_well() const {
        int status = -1;
        return waitpid(pid, &status, 0) == pid && status == 0;
    }
    std::string said;
    pid_t pid;
    int output;
};

TEST(vorn_monitor, waits_for_a_line_that_hung_up_and_ends_on_a_signal_or_when_nobody_reads_its_output) {
    const Temporary_folder folder;
    const std::string link = folder.file("line"), packet = "GT ms=1 week=2300\n";
    auto receiver = std::make_unique<Receiver>(link);
    const std::string record = folder.file("record"), bytes = Frame("GT").u4(1).u2(2300).str() + "\r\n";
    Live_monitor monitor(link + ":115200", record.c_str());
    ASSERT_TRUE(monitor.says(packet, receiver.get())) << monitor.said;
    receiver.reset();
    ASSERT_TRUE(monitor.says("vorn_monitor: " + link + " hung up, waiting for it\n")) << monitor.said;
    receiver = std::make_unique<Receiver>(link);
    ASSERT_TRUE(monitor.says("vorn_monitor: " + link + " is back\n")) << monitor.said;
    ASSERT_TRUE(monitor.says(packet, receiver.get())) << monitor.said;
    kill(monitor.pid, SIGINT);
    EXPECT_VALUES("true true", monitor.says("bytes left over"), monitor.ends_well()) << monitor.said;
    EXPECT_EQ(read_file(record).substr(0, bytes.size()), bytes);

    Live_monitor unread(link);
    ASSERT_TRUE(unread.says(packet, receiver.get()));
    close(unread.output);
    receiver->pty.send(Frame("GT").u4(1).u2(2300).str() + "\r\n");
    EXPECT_TRUE(unread.ends_well());
}

} // namespace
