// SPDX-License-Identifier: MIT
#include "apps/Commands.h"
#include "support/Pty.h"
#include "support/frame.h"

using vorn_monitor = Commands;

namespace {

std::string time_packet(unsigned ms, unsigned week = 2300) { return Frame("GT").u4(ms).u2(week).str() + "\r\n"; }

TEST_F(vorn_monitor, prints_a_line_for_each_packet_of_a_recording_and_counts_them) {
    // Messages, replies, damage, noise, and the beginning of a frame at the end.
    write_file("all", time_packet(360000) + Frame("RE").text("%1%on").bare() + "\r\n" +
                          Frame("ER").text("%2%{4,wrong command}").bare() + "\r\n" +
                          time_packet(360000).replace(6, 1, "?").replace(12, 1, "") + "\x01noise\x1b[2J\r\nGTF0B..\n" +
                          Frame("NP").text("all\x1b is well").bare() + "\r\n" + Frame("ZZ").u1(1).u1(0xAB).str() +
                          "\r" + Frame("EL").i1(45).i1(-5).str() + "\nPG01E half");
    const Child_result labelled = run_shell("vorn_monitor --stats - <all");
    EXPECT_EQ(
        labelled.out,
        "GT ms=360000 week=2300\nRE %1%on\nER error 1 (wrong command): %2%{4,wrong command}\n"
        "GT wrong checksum 12 bytes\nTEXT .noise.[2J\nTEXT TF0B..\nNP all. is well\nZZ unknown 01 ab\nEL 45 -5\n");
    EXPECT_EQ(labelled.err.substr(0, 25), "Unexpected msg GT(3856) i");
    EXPECT_EQ(labelled.err.substr(std::min(labelled.err.size(), labelled.err.find("frames"))),
              "frames                   4\n"
              "  EL                     1  elevations\n"
              "  NP                     1  text\n"
              "  GT                     1  time and week\n"
              "  ZZ                     1  unknown\n"
              "wrong checksums          1\n"
              "replies                  2  (1 errors)\n"
              "text lines               2\n"
              "bytes                  " +
                  std::to_string(read_file("all").size()) +
                  "\nbytes lost               0\n"
                  "bytes left over         10\n");
    EXPECT_EQ(run_shell("vorn_monitor all --csv").out,
              "GT,360000,2300\nRE,%1%on\nER,1,wrong command,%2%{4,wrong command}\nGT,wrong checksum,12 bytes\n"
              "TEXT,.noise.[2J\nTEXT,TF0B..\nNP,all. is well\nZZ,unknown 01 ab\nEL,45,-5\n");
    EXPECT_EQ(answer("vorn_monitor -", "$text\n"), "0 TEXT $text\n");
}

TEST_F(vorn_monitor, draws_the_positions_that_it_met_save_absurd_ones) {
    std::string input;
    for (const auto& [lat, lon] : {std::pair{0.9, 0.1}, {1e300, 0.1}, {0.9, -1e300}, {0.900001, 0.1}, {0.900002, 0.1}})
        input += Frame("PG").f8(lat).f8(lon).f8(100).f4(1).u1(lat > 0.900001 ? 5 : 4).str() + "\n";
    EXPECT_EQ(answer("vorn_monitor - --plot track", input).substr(0, 8), "0 PG lat");
    expect_in(read_file("track"),
              {"points=\"40.0,600.0 40.0,320.0 40.0,40.0", "fixed: 2 positions", "solution 5: 1 positions"});
}

TEST_F(vorn_monitor, records_what_it_prints_and_replays_it) {
    const std::string first = "GT ms=360000 week=2300\n", printed = first + "TEXT $noise\nGT ms=1 week=2\n",
                      input = time_packet(360000) + "$noise\n" + time_packet(1, 2);
    EXPECT_EQ(answer("vorn_monitor - --record raw", input), "0 " + printed);
    EXPECT_EQ(read_file("raw"), input);
    EXPECT_EQ(answer("vorn_monitor raw --record timed --timed"), "0 " + printed);
    const std::string timed = read_file("timed");
    EXPECT_EQ(timed.substr(0, 9), "KAVQTREC\x01");
    write_file("cut", timed.substr(0, 16 + 8 + 20));
    write_file("version", std::string(timed).replace(8, 1, "\x02"));
    for (const auto& [arguments, wanted] :
         {std::pair<std::string, std::string>{"timed --record again", "0 " + printed},
          {"timed --speed 1", "0 " + printed},
          {"raw --record /dev/full", "1 Recording to /dev/full ends: No space left on device\n" + printed},
          {"raw --speed 1", "1 Recording ends at byte 0: it is none\n"},
          {"version", "1 Recording ends at byte 0: it is of another version\n"},
          {"cut", "1 Recording ends at byte 44: it is cut\n" + first}})
        EXPECT_EQ(answer("vorn_monitor " + arguments), wanted) << arguments;
    EXPECT_EQ(read_file("again"), input);
}

TEST_F(vorn_monitor, shows_on_a_terminal_how_far_it_is_unless_the_packets_are_shown_there) {
    write_file("recording", time_packet(360000));
    for (const auto& [output, shown] :
         {std::pair{" 2>tty", "100 %\r\033[K"}, {" >tty 2>&1", "GT ms=360000 week=2300\n"}}) {
        const Pty terminal;
        run_shell("ln -sf " + terminal.path + " tty; vorn_monitor recording" + output);
        EXPECT_EQ(terminal.receive(100), shown);
    }
}

/// A receiver's end of a serial line, which the file "line" leads to until a later receiver takes it over.
struct Receiver {
    Receiver() {
        fcntl(pty.master, F_SETFD, FD_CLOEXEC); // a copy in the monitor would keep the line up
        if (symlink(pty.path.c_str(), "line~") != 0 || rename("line~", "line") != 0) abort();
    }
    Pty pty;
};

TEST_F(vorn_monitor, waits_for_a_line_that_hung_up_and_ends_on_a_signal_or_when_nobody_reads_its_output) {
    auto receiver = std::make_unique<Receiver>();
    size_t heard = 0;
    // Wait until the file "out" goes on with this text, meanwhile sending the time 1 again and again to a line.
    const auto says = [&](const std::string& text) {
        int n = 0;
        const auto came = [&] {
            if (receiver && n++ % 50 == 0) receiver->pty.send(time_packet(1));
            const std::string all = read_file("out");
            const size_t at = all.find(text, heard);
            if (at != std::string::npos) heard = all.size();
            return at != std::string::npos;
        };
        return wait_until(came);
    };
    const Running monitor("vorn_monitor -c line:115200 --stats --record record >out 2>&1");
    EXPECT_TRUE(says("GT ms=1 week=2300\n"));
    receiver.reset();
    EXPECT_TRUE(says("vorn_monitor: line hung up, waiting for it\n"));
    receiver = std::make_unique<Receiver>();
    EXPECT_TRUE(says("vorn_monitor: line is back\n"));
    EXPECT_TRUE(says("GT ms=1 week=2300\n"));
    EXPECT_EQ(monitor.end(SIGINT), 0);
    EXPECT_TRUE(says("bytes left over")) << read_file("out");
    EXPECT_EQ(read_file("record").rfind(time_packet(1), 0), 0u);

    const Running unread("sh -c '{ vorn_monitor -c line; echo ended with $? >out; } | head -n 1 >first'");
    heard = 0;
    EXPECT_TRUE(says("ended with 0\n"));
    EXPECT_EQ(unread.end(0), 0);
}

} // namespace
