// SPDX-License-Identifier: MIT
#include "support/Pty.h"
#include "support/child.h"
#include "support/frame.h"
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

void exec_monitor(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "vorn_monitor");
    std::vector<char*> argv;
    for (auto& a : arguments) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(VORN_MONITOR, argv.data());
    _exit(126);
}

/// Run the monitor to its end, with `input` as standard input.
Child_result run_monitor(const std::vector<std::string>& arguments, const std::string& input = "") {
    return run_program(VORN_MONITOR, arguments, input);
}

/// A recording: messages, replies, damage, noise, and the beginning of a frame at the end.
std::string recording() {
    std::string wrong = Frame("GT").u4(1000).u2(2300).str();
    wrong[6] ^= 1;
    return Frame("GT").u4(360000).u2(2300).str() + "\r\n" + Frame("RE").text("%1%on").bare() + "\r\n" +
           Frame("ER").text("%2%{4,wrong command}").bare() + "\r\n" + wrong + "\n\x01noise\x1b[2J\r\n" +
           Frame("ZZ").u1(1).u1(0xAB).str() + "\r" + Frame("EL").i1(45).i1(-5).str() + "\nPG01E half";
}

TEST(vorn_monitor, prints_a_line_for_each_packet_of_a_recording) {
    const Child_result labelled = run_monitor({"-", "--stats"}, recording());
    EXPECT_EQ(labelled.status, 0);
    EXPECT_EQ(labelled.out, "GT ms=360000 week=2300\n"
                            "RE %1%on\n"
                            "ER error 1 (wrong command): %2%{4,wrong command}\n"
                            "GT wrong checksum 12 bytes\n"
                            "TEXT .noise.[2J\n"
                            "ZZ unknown 01 ab\n"
                            "EL 45 -5\n");
    char bytes[64];
    snprintf(bytes, sizeof bytes, "bytes           %10zu\n", recording().size());
    EXPECT_EQ(labelled.err, "frames                   3\n"
                            "  EL                     1  elevations\n"
                            "  GT                     1  time and week\n"
                            "  ZZ                     1  unknown\n"
                            "wrong checksums          1\n"
                            "replies                  2  (1 errors)\n"
                            "text lines               1\n"
                            "bytes           " +
                                std::string(10 - std::to_string(recording().size()).size(), ' ') +
                                std::to_string(recording().size()) +
                                "\nbytes lost               0\nbytes left over         10\n");
    const Child_result comma = run_monitor({"--csv", "-"}, recording());
    EXPECT_EQ(comma.status, 0);
    EXPECT_EQ(comma.out, "GT,360000,2300\nRE,%1%on\nER,1,wrong command,%2%{4,wrong command}\n"
                         "GT,wrong checksum,12 bytes\nTEXT,.noise.[2J\nZZ,unknown 01 ab\nEL,45,-5\n");
    EXPECT_EQ(comma.err, "");
}

TEST(vorn_monitor, a_damaged_length_costs_its_frame_alone_but_unknown_messages_may_have_any) {
    const std::string good = Frame("~~").u4(7).str() + "\r\n", unknown = Frame("ZZ").text(std::string(700, 'z')).str();
    const Child_result result = run_monitor({"-"}, "GTF0B....\n" + good + unknown + "\n" + good);
    std::string dump;
    for (int i = 0; i < 700; ++i) dump += " 7a";
    EXPECT_TRUE(result.out == "TEXT TF0B....\nRT ms=7\nZZ unknown" + dump + "\nRT ms=7\n") << result.out;
    EXPECT_EQ(result.err.find("Unexpected msg GT(3856) in "), 0u) << result.err;
}

TEST(vorn_monitor, a_wrong_call_gets_one_line_and_a_status) {
    static const struct {
        std::vector<std::string> arguments;
        int status;
        const char* says;
    } rows[] = {
        {{}, 2, "give one device with -c, or one file"},
        {{"--frob"}, 2, "--frob"},
        {{"-c", ":9600"}, 2, "needs a device"},
        {{"-c", "/dev/null:299"}, 2, "wrong speed 299"},
        {{"-c", "/dev/null:9600:rs422"}, 2, "wrong mode rs422"},
        {{"-c", "/dev/null:9600:rs485:x"}, 2, "too many fields"},
        {{"-c", "/dev/null"}, 1, "cannot open /dev/null: it is no serial line"},
        {{"/no/such/file"}, 1, "cannot open /no/such/file: No such file"},
        {{"/"}, 1, "cannot read /: it is a directory"},
    };
    for (const auto& r : rows) {
        const Child_result result = run_monitor(r.arguments);
        EXPECT_EQ(result.status, r.status) << r.says;
        EXPECT_NE(result.err.find(r.says), std::string::npos) << result.err;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_EQ(result.out, "");
    }
}

/// A receiver's end of a serial line, reached through a link that a later receiver can take over.
struct Receiver {
    explicit Receiver(const std::string& link) {
        fcntl(pty.master, F_SETFD, FD_CLOEXEC); // a copy in the monitor would keep the line up
        const std::string fresh = link + "~";
        if (symlink(pty.path.c_str(), fresh.c_str()) != 0 || rename(fresh.c_str(), link.c_str()) != 0) abort();
    }
    Pty pty;
};

/// A running monitor; what it writes on standard output and standard error comes together.
class Live_monitor {
public:
    explicit Live_monitor(const std::vector<std::string>& arguments) {
        int ends[2];
        if (pipe(ends) != 0) abort();
        _pid = fork();
        if (_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(ends[1], STDOUT_FILENO);
            dup2(ends[1], STDERR_FILENO);
            close(ends[0]);
            close(ends[1]);
            exec_monitor(arguments);
        }
        close(ends[1]);
        _output = ends[0];
    }
    /// Read on until `text` was said; false after 20 s. `again` is done in between.
    bool says(
        const std::string& text, const std::function<void()>& again = [] {}) {
        for (int i = 0; i < 400 && said.find(text) == std::string::npos; ++i) {
            again();
            pollfd p = {_output, POLLIN, 0};
            char piece[4096];
            const ssize_t n = poll(&p, 1, 50) > 0 ? read(_output, piece, sizeof piece) : 0;
            said.append(piece, static_cast<size_t>(std::max<ssize_t>(n, 0)));
        }
        return said.find(text) != std::string::npos;
    }
    void signal(int number) const { kill(_pid, number); }
    void stop_reading() { close(_output); }
    /// Its exit status; -1 when a signal ended it.
    int wait() const {
        int status = 0;
        return waitpid(_pid, &status, 0) == _pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string said;

private:
    pid_t _pid;
    int _output;
};

std::string time_message(unsigned ms) { return Frame("GT").u4(ms).u2(2300).str() + "\r\n"; }

TEST(vorn_monitor, listens_to_a_line_waits_for_one_that_hung_up_and_ends_on_a_signal_with_the_statistics) {
    const Temp_dir folder;
    const std::string link = folder.file("line");
    auto receiver = std::make_unique<Receiver>(link);
    Live_monitor monitor({"-c", link + ":115200", "--stats"});
    const auto send = [&](unsigned ms) { return [&, ms] { receiver->pty.send(time_message(ms)); }; };
    ASSERT_TRUE(monitor.says("GT ms=1 week=2300\n", send(1))) << monitor.said;
    receiver.reset();
    ASSERT_TRUE(monitor.says("vorn_monitor: " + link + " hung up, waiting for it\n")) << monitor.said;
    receiver = std::make_unique<Receiver>(link);
    ASSERT_TRUE(monitor.says("vorn_monitor: " + link + " is back\n")) << monitor.said;
    ASSERT_TRUE(monitor.says("GT ms=2 week=2300\n", send(2))) << monitor.said;
    monitor.signal(SIGINT);
    EXPECT_TRUE(monitor.says("bytes left over")) << monitor.said;
    EXPECT_EQ(monitor.wait(), 0);

    // A line without a transceiver to switch.
    const Child_result result = run_monitor({"-c", link + "::rs485"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "vorn_monitor: cannot set up " + link + "::rs485\n");
}

TEST(vorn_monitor, ends_quietly_when_nobody_reads_its_output) {
    const Temp_dir folder;
    const std::string file = folder.file("fifo"), link = folder.file("line");
    Receiver receiver(link);
    mkfifo(file.c_str(), 0600);
    // One after the other: a second monitor would inherit the reading end.
    for (const bool device : {false, true}) {
        Live_monitor monitor(device ? std::vector<std::string>{"-c", link} : std::vector<std::string>{file});
        const int fifo = device ? -1 : open(file.c_str(), O_WRONLY);
        const auto send = [&] {
            const std::string bytes = time_message(1);
            EXPECT_GT(write(device ? receiver.pty.master : fifo, bytes.data(), bytes.size()), 0);
        };
        ASSERT_TRUE(monitor.says("GT ms=1", send)) << device;
        monitor.stop_reading();
        send();
        EXPECT_EQ(monitor.wait(), 0) << device;
        close(fifo);
    }
}

} // namespace
