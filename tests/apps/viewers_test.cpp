// SPDX-License-Identifier: MIT
// What programs show of a file, of a serial line and of a running controller.
#include "NV_store/Image_builder.h"
#include "apps/Commands.h"
#include "cds/Block_fixture.h"
#include "glue/cds/CDS_server.h"
#include "support/Pty.h"
#include "support/frame.h"

using namespace std::string_literals;

namespace {

/// Of an engine with a code and a terminal that says what it is, with one long message, and lines that are no frames of
/// such a bus.
TEST_F(Commands, bus_monitor_replays_a_log) {
    const std::tuple<uint32_t, unsigned, std::string> messages[] = {
        {60928, 38, std::string("\x01\x00\x60\x0F\x00\x81\x00\xA0", 8)},
        {65226, 0, "\x04\xF3\xD2\x04\x1F\x01\xFF\xFF"},
        {64653, 38, "P1*Terminal*T \x01\"800\"*"},
        {65242, 38, "\x01V2.1*"},
        {65226, 0, std::string("\x04\xF3\xD2\x04\x1F\x02\x00\xF0\xEC\xFE", 10)}};
    std::string log = "nothing\n(1700000000.000000) can0 123#11\n\n";
    int64_t us = 1700000000000000; // 2023-11-14 22:13:20
    for (const auto& [pgn, source, bytes] : messages) {
        for (const JIN_frame& f : frames_of(pgn, source, bytes, us)) log += f.to_line("can0") + "\n";
        us += 1000000;
    }
    write_file("log", log);
    EXPECT_EQ(answer("bus_monitor log"),
              "0 bus_monitor: 2 lines were no frames of such a bus\n"
              "adr  codes\n"
              "  0  2    NAME not heard, lamps: amber warning flashes slowly\n"
              "          SPN   1234 FMI 31 condition exists, 2 times, since 22:13:21\n"
              "          SPN 520192 FMI 12 bad device or component, 126 times, in an old form: the SPN may be wrong, "
              "since 22:13:24\n"
              " 38       agriculture, class 0.0, function 129.0, ECU 0, maker 123, number 1\n"
              "          product P1 Terminal T _\"800\"\n"
              "          software V2.1\n");
    expect_in(
        run_shell("bus_monitor - --csv <log").out,
        {"address,name,product,software,spn,fmi,meaning,count,first,last,state\n0,0000000000000000,\"\",\"\",1234,31,"
         "\"condition exists\",2,1700000001.000,1700000004.100,active\n",
         "\n38,A00081000F600001,\"P1 Terminal T _\"\"800\"\"\",\"V2.1\",,,,,,,\n"});
}

TEST_F(Commands, history_dump_prints_the_records_from_the_oldest_to_the_newest_that_pass_the_filters) {
    const auto record = [](unsigned src, unsigned error, unsigned time, unsigned word = 0x7F1F) {
        return Frame("SP").u1(src).u2(word).u2(error).u4(time).u1(125).str() + "\n";
    };
    // Current is 1, so 2 is left out, 8 the oldest; with damage, a reply, a torn end and what the restart put there.
    const std::string damaged = record(9, 9, 1700000002).replace(8, 1, "?");
    write_file("H8.dat", record(128, 1234, 1700000000, 0x011F) + damaged + record(1, 5, 1700000001, 17));
    write_file("H9.dat", "RE003%x\r\n" + record(128, 0xF000, 1700000003, 0xFEEC) + record(7, 7, 0));
    write_file("H0.dat", record(2, 65535, 4000000000));
    write_file("H1.dat", record(3, 1, 5).substr(0, 9) + std::string(17, '\n') + record(4, 6, 86400));
    EXPECT_EQ(answer("history_dump . --to 2023-11-15"),
              "0 history_dump: ./H8.dat: 15 bytes are no record\n"
              "history_dump: ./H9.dat: 7 bytes are no record\n"
              "history_dump: ./H1.dat: 9 bytes are no record\n"
              "2023-11-14 22:13:20.500 source 128 error 1234 word 287, SPN 1234 FMI 31 active, count 1\n"
              "2023-11-14 22:13:21.500 source 1 error 5 word 17\n"
              "2023-11-14 22:13:23.500 source 128 error 61440 word 65260, SPN 520192 FMI 12 inactive, count 126\n"
              "1970-01-02 00:00:00.500 source 4 error 6 word 32543\n");
    const std::string a = "1700000000.500,128,1234,287,1234,31,1,active\n", b = "1700000001.500,1,5,17,,,,\n",
                      c = "1700000003.500,128,61440,65260,520192,12,126,inactive\n",
                      d = "4000000000.500,2,65535,32543,,,,\n", e = "86400.500,4,6,32543,,,,\n";
    for (const auto& [filters, rows] : {std::pair{"H", a + b + c + d + e},
                                        {"--source 0x80", a + c},
                                        {"--error=5", b},
                                        {"--from 1700000001 --to 1700000003", b},
                                        {"--from 2023-11-14T22:13:21 --to=2024-01-01", b + c}})
        EXPECT_EQ(run_shell("history_dump . --csv "s + filters).out,
                  "time,source,error,word,spn,fmi,count,change\n" + rows)
            << filters;
}

TEST_F(Commands, nv_dump_prints_an_image_and_the_changes_behind_it_up_to_where_it_is_damaged) {
    using namespace Image;
    const std::string wheel = frame(1, 3, value(2, 1, bytes({1})) + value(8, 0x0102, bytes({0xFE, 0xFF})));
    const std::string image = frame(0, 1,
                                    value(10, 2, little_endian(0x3F59999A, 4)) + wheel +
                                        value(14, 5, bytes({2, 3, 0, 2, 1})) + value(0x25, 9, bytes({2, 7, 0, 8, 1})));
    const std::string good = "root 1\n  float 2 = 0.85\n  struct 3\n    bool 1 = true\n    int16 258 = -2\n"
                             "    CRC ED26C0AC good\n  pointer 5 = 3/258\n  uint16[] 9 = 7 264\n  CRC 9ECEBAC3 good\n";
    write_file("settings", image + frame(0, 1, frame(13, 4, "")));
    EXPECT_EQ(answer("nv_dump settings"),
              "0 " + good + "root 1\n  container 4\n    CRC 3F047002 good\n  CRC 1163EF24 good\n");
    std::string bad = image;
    bad[25] ^= 1; // in the inner container's value
    std::string deep;
    for (int i = 0; i < 65; ++i) deep += header(1, 1, i);
    const std::string stops = "1 nv_dump: -: stops at byte ";
    expect_in(answer("nv_dump -", bad),
              {"1 nv_dump: -: 2 of 2 checksums are wrong\nroot 1\n", "\n    CRC ED26C0AC bad, computed 267A1309\n"});
    expect_in(answer("nv_dump -", image.substr(0, image.size() - 5) + "abcde"),
              {stops + "53: the end of another container\n"});
    expect_in(answer("nv_dump -", wheel + header(1, 2, 3)),
              {stops + "23: the end of a container that did not start\n"});
    expect_in(answer("nv_dump -", deep), {stops + "260: the end of a container is missing\n"});
    expect_cuts_told("nv_dump -", image, 1);
}

/// Records of a trace, with single quotes for double ones.
std::string trace_of(std::string records) {
    records = "[\n{'ph':'M','pid':1,'tid':1,'name':'kavqtglue_trace','args':{'format':1,'recorded':20,'kept':12,"
              "'dropped':3}}" +
              records;
    std::replace(records.begin(), records.end(), '\'', '"');
    return records;
}

const std::string trace = trace_of(R"(,
{'ph':'M','pid':1,'tid':8,'name':'thread_name','args':{'name':'PUMP'}},
{'ph':'X','pid':1,'tid':7,'ts':1000000,'name':'post to PUMP','cat':'post','args':{'diner':'PUMP','node':1,'queue':1,'free':9}},
{'ph':'C','pid':1,'tid':7,'ts':1000000,'name':'free event nodes','args':{'nodes':996}},
{'ph':'B','pid':1,'tid':8,'ts':1000010,'name':'PUMP 2000/1','cat':'event','args':{'diner':'PUMP','node':1}},
{'ph':'X','pid':1,'tid':7,'ts':1000020,'name':'post to PUMP','cat':'post','args':{'diner':'PUMP','node':2,'queue':2,'free':9}},
{'ph':'E','pid':1,'tid':8,'ts':1000110},
{'ph':'B','pid':1,'tid':8,'ts':1000120,'name':'PUMP 2000/1','cat':'event','args':{'diner':'PUMP','node':2}},
{'ph':'B','pid':1,'tid':8,'ts':1000125,'name':'own','cat':'program','args':{'number':1}},
{'ph':'E','pid':1,'tid':8,'ts':1000130},
{'ph':'E','pid':1,'tid':8,'ts':1000420},
{'ph':'B','pid':1,'tid':8,'ts':1000500,'name':'PUMP 2000/1','cat':'event','args':{'diner':'PUMP','node':2}},
{'ph':'E','pid':1,'tid':8,'ts':1000700,'args':{'lost':1}},
{'ph':'B','pid':1,'tid':8,'ts':1500000,'name':'PUMP timeout','cat':'timeout','args':{'diner':'PUMP','uid':1,'late_ms':30}},
{'ph':'i','pid':1,'tid':7,'ts':1600000,'s':'t','name':'refused by PUMP','cat':'post','args':{'diner':'PUMP','module':1}}
]
)");

TEST_F(Commands, trace_view_tells_of_each_diner_and_draws) {
    expect_in(
        answer("trace_view - --plot picture --to 0.001", trace),
        {"0 0.600 s with 12 records (8 older ones overwritten, 3 dropped)", "Free event nodes at least 996.",
         "PUMP               3        1     200.0     300.0     300.0      55.0     100.0     100.0      2        1\n",
         "Longest handlers\n      at [s]  length [us] late [ms]\n"
         "    0.500000     100000.0       30  PUMP timeout, still running\n"
         "    0.000120        300.0        0  PUMP 2000/1\n",
         "    0.000500          0.0        0  PUMP 2000/1, its end is lost\n",
         "Latest timeouts\n      at [s]  length [us] late [ms]\n    0.500000 "});
    expect_in(read_file("picture"), {"<title>PUMP 2000/1, 300.0 us</title>", ">thread 7</text>", "!still running"});
    answer("trace_view - --plot picture --from 0.4 --to 0.55", trace);
    expect_in(read_file("picture"), {"!2000/1", "still running"});
    // A span of less than what a number so far from 0 can tell.
    expect_in(answer("trace_view - --plot picture --from 999999999 --to 999999999.0000001", trace), {"0 0.600 s"});
}

TEST_F(Commands, trace_view_says_in_one_line_what_is_wrong) {
    const std::string line = "1 -: line ", no_plot = "2 cannot write ";
    expect_complaints(
        {{"trace_view -", line + "1: it is no trace", "garbage\n"},
         {"trace_view -", line + "2: it is no trace", "[\n{\"ph\":\"M\",\"name\":\"other\"},\n]\n"},
         {"trace_view -", line + "2: it is no trace", "[\n]\n"},
         {"trace_view -", line + "3: an event without a time", trace_of(",\n{'ph':'B'}\n]\n")},
         {"trace_view -", line + "3: no event", trace_of(",\nxyz,\n]\n")},
         {"trace_view -", line + "3: a line behind the last one", trace_of("\n{}\n]\n")},
         {"trace_view -", line + "3: a line that is too long", trace_of(",\n" + std::string(5000, 'x') + "\n")},
         {"trace_view - --plot /none/x >out", no_plot + "/none/x: No such file or directory", trace},
         {"trace_view - --plot /dev/full >out", no_plot + "/dev/full: No space left on device", trace},
         {"trace_view - --plot x --from 1 --to 0.5 >out", "2 --to must be behind --from", trace}});
    expect_cuts_told("trace_view -", trace.substr(0, trace.size() - 1), 29);
}

std::string time_packet(unsigned ms, unsigned week = 2300) { return Frame("GT").u4(ms).u2(week).str() + "\r\n"; }

TEST_F(Commands, vorn_monitor_prints_a_line_for_each_packet_of_a_recording_and_counts_them) {
    // Messages, replies, damage, noise, and the beginning of a frame at the end.
    write_file("all", time_packet(360000) + Frame("RE").text("%1%on").bare() + "\r\n" +
                          Frame("ER").text("%2%{4,wrong command}").bare() + "\r\n" +
                          time_packet(360000).replace(6, 1, "?").replace(12, 1, "") + "\x01noise\x1b[2J\r\nGTF0B..\n" +
                          Frame("NP").text("all\x1b is well").bare() + "\r\n" + Frame("ZZ").u1(1).u1(0xAB).str() +
                          "\r" + Frame("EL").u1(45).u1(-5).str() + "\nPG01E half");
    const Child_result labelled = run_shell("vorn_monitor --stats - <all");
    EXPECT_EQ(
        labelled.out,
        "GT ms=360000 week=2300\nRE %1%on\nER error 1 (wrong command): %2%{4,wrong command}\n"
        "GT wrong checksum 12 bytes\nTEXT .noise.[2J\nTEXT TF0B..\nNP all. is well\nZZ unknown 01 ab\nEL 45 -5\n");
    expect_in(labelled.err,
              {"Unexpected msg GT(3856) i", "\nframes                   4\n  EL                     1  elevations\n",
               "\nwrong checksums          1\nreplies                  2  (1 errors)\ntext lines               2\n",
               "\nbytes                  " + std::to_string(read_file("all").size()) +
                   "\nbytes lost               0\nbytes left over         10\n"});
    expect_in(run_shell("vorn_monitor all --csv").out,
              {"GT,360000,2300\nRE,%1%on\nER,1,wrong command,%2%{4,wrong command}\nGT,wrong checksum,12 bytes\n"
               "TEXT,.noise.[2J\n",
               "ZZ,unknown 01 ab\nEL,45,-5\n"});
    EXPECT_EQ(answer("vorn_monitor -", "$text\n"), "0 TEXT $text\n");
}

TEST_F(Commands, vorn_monitor_draws_the_positions_that_it_met_save_absurd_ones) {
    std::string input;
    for (const auto& [lat, lon] : {std::pair{0.9, 0.1}, {1e300, 0.1}, {0.9, -1e300}, {0.900001, 0.1}, {0.900002, 0.1}})
        input += Frame("PG").f8(lat).f8(lon).f8(100).f4(1).u1(lat > 0.900001 ? 5 : 4).str() + "\n";
    EXPECT_EQ(answer("vorn_monitor - --plot track", input).substr(0, 8), "0 PG lat");
    expect_in(read_file("track"),
              {"points=\"40.0,600.0 40.0,320.0 40.0,40.0", "fixed: 2 positions", "solution 5: 1 positions"});
}

TEST_F(Commands, vorn_monitor_records_what_it_prints_and_replays_it) {
    const std::string first = "GT ms=360000 week=2300\n", printed = first + "TEXT $noise\nGT ms=1 week=2\n",
                      input = time_packet(360000) + "$noise\n" + time_packet(1, 2);
    EXPECT_EQ(answer("vorn_monitor - --record raw", input), "0 " + printed);
    EXPECT_EQ(read_file("raw"), input);
    EXPECT_EQ(answer("vorn_monitor raw --record timed --timed"), "0 " + printed);
    write_file("cut", read_file("timed").substr(0, 16 + 8 + 20));
    for (const auto& [arguments, wanted] :
         {std::pair<std::string, std::string>{"timed --record again", "0 " + printed},
          {"timed --speed 1", "0 " + printed},
          {"raw --record /dev/full", "1 Recording to /dev/full ends: No space left on device\n" + printed},
          {"cut", "1 Recording ends at byte 44: it is cut\n" + first}})
        EXPECT_EQ(answer("vorn_monitor " + arguments), wanted) << arguments;
    EXPECT_EQ(read_file("again"), input);
}

TEST_F(Commands, vorn_monitor_shows_on_a_terminal_how_far_it_is_unless_the_packets_are_shown_there) {
    write_file("recording", time_packet(360000));
    for (const auto& [output, shown] :
         {std::pair{" 2>tty", "100 %\r\033[K"}, {" >tty 2>&1", "GT ms=360000 week=2300\n"}}) {
        const Pty terminal;
        run_shell("ln -sf " + terminal.path + " tty; vorn_monitor recording" + output);
        EXPECT_EQ(terminal.receive(100), shown);
    }
}

TEST_F(Commands, vorn_monitor_waits_for_a_line_that_hung_up_and_ends_on_a_signal_or_when_nobody_reads_its_output) {
    std::unique_ptr<Pty> line;
    const auto plug_in = [&] {
        line = std::make_unique<Pty>();
        fcntl(line->master, F_SETFD, FD_CLOEXEC); // a copy in the monitor would keep the line up
        run_shell("ln -sfn " + line->path + " line~; mv line~ line");
    };
    size_t heard = 0;
    // Wait until the file "out" goes on with this text, meanwhile sending the time 1 again and again to the line.
    const auto says = [&](const std::string& text) {
        int n = 0;
        return wait_until([&] {
            if (line && n++ % 50 == 0) line->send(time_packet(1));
            const std::string all = read_file("out");
            const bool came = all.find(text, heard) != std::string::npos;
            if (came) heard = all.size();
            return came;
        });
    };
    plug_in();
    const auto pull_out = [&] {
        EXPECT_TRUE(says("GT ms=1 week=2300\n"));
        line.reset();
        EXPECT_TRUE(says("vorn_monitor: line hung up, waiting for it\n"));
        plug_in();
        EXPECT_TRUE(says("vorn_monitor: line is back\n") && says("GT ms=1 week=2300\n"));
    };
    EXPECT_EQ(run_beside("vorn_monitor -c line:115200 --stats --record record >out 2>&1", SIGINT, pull_out), 0);
    EXPECT_NE(read_file("out").find("bytes left over", heard), std::string::npos);
    EXPECT_EQ(read_file("record").rfind(time_packet(1), 0), 0u);

    heard = 0;
    run_beside("sh -c '{ vorn_monitor -c line; echo ended with $? >out; } | head -n 1 >first'", 0,
               [&] { EXPECT_TRUE(says("ended with 0\n")); });
}

/// A controller: its block on a socket, and on a line whose other end is a device.
struct Controller : Described_block {
    Controller() {
        block = {{-3, 200, 0.1f}, {1, 2, 3, 65535}, {'a', '"', 0x1B}, 70000, true};
        EXPECT_VALUES("true true", server.share("socket"), server.serve(dup(line.master)));
    }
    Pty line;
    CDS::Remote::Server server{items.root, [this](const CDS::Lookup_item& i, CDS::Remote::Receive_buffer) {
                                   return &i == &items.speed || &i == &items.levels || &i == &items.label;
                               }};
};

TEST_F(Commands, cds_view_shows_a_block_over_a_socket_and_over_a_line_and_sets_what_the_controller_allows) {
    Controller c;
    const std::string load = "    load     float           0.1\n",
                      levels = "  levels[4]  unsigned short  1 2 3 65535\n",
                      tree = "0 machine\n  engine\n"
                             "    speed    short           -3\n"
                             "    mode     unsigned char   200\n" +
                             load + levels +
                             "  label[8]   char            \"a\"_\"\n"
                             "  counter    int             70000\n"
                             "  on         bool            true\n";
    EXPECT_EQ(answer("cds_view socket"), tree);
    EXPECT_EQ(answer("cds_view --once " + c.line.path + ":115200"), tree);
    EXPECT_EQ(answer("cds_view socket engine.load 'levels[2]'"), "0 machine\n  engine\n" + load + levels);
    expect_in(answer("cds_view socket --csv --once"),
              {"0 time,engine.speed,engine.mode,engine.load,levels[0],levels[1],levels[2],levels[3],label,counter,on\n",
               ",-3,200,0.1,1,2,3,65535,\"a\"\"_\",70000,true\n"});
    EXPECT_EQ(answer("cds_view socket --plot engine on --every 10 --seconds 1 --output picture"), "0 ");
    expect_in(read_file("picture"),
              {">engine.speed<", ">engine.mode<", ">engine.load<", ">on</text>", "polyline", "\n</svg>\n"});

    EXPECT_EQ(answer("cds_view socket --set engine.speed=0x10 --set label=longer --set label=x=y --set levels=9,8"),
              "0 engine.speed = 16\nlabel = \"x=y\"\nlabel = \"x=y\"\nlevels[0] = 9\nlevels[1] = 8\nlevels[2] = 3\n"
              "levels[3] = 65535\n");
    {
        const Scoped_lock<CDS::Head> held(c.head);
        EXPECT_EQ(std::string(c.block.label, 8), std::string("x=y\0\0\0\0\0", 8));
    }
    const std::string cannot = "1 cannot set ", set = "cds_view socket --set ";
    expect_complaints({{set + "counter=1", cannot + "counter: the controller does not allow it"},
                       {set + "engine.speed=1x", cannot + "engine.speed: 1x is no short"},
                       {set + "levels=1,2,3,4,5", cannot + "levels: it has not so many elements"},
                       {set + "label=123456789", cannot + "label: it has not so many elements"},
                       {set + "engine=1", cannot + "engine: there is no such value"},
                       {"cds_view socket speed", "1 socket has no item speed"},
                       {"cds_view socket --plot label", "1 socket has no number label"},
                       {"cds_view socket --csv >/dev/full", "1 cannot write: No space left on device"}});
}

TEST_F(Commands, cds_view_waits_for_a_controller_that_restarts_and_ends_in_order) {
    auto c = std::make_unique<Controller>();
    const auto size = [] { return read_file("out").size(); };
    const auto restart = [&] {
        EXPECT_TRUE(wait_until([&] { return size() > 60; })); // some rows
        c.reset();
        EXPECT_TRUE(wait_until([&] { return !read_file("err").empty(); }));
        c = std::make_unique<Controller>();
        EXPECT_TRUE(wait_until([&, before = size()] { return size() > before; }));
    };
    EXPECT_EQ(run_beside("cds_view socket --csv --every 10 on >out 2>err", SIGTERM, restart), 0);
    EXPECT_EQ(read_file("err"), "cds_view: socket: it does not answer; waiting for it\ncds_view: socket is back\n");
}

} // namespace
