// SPDX-License-Identifier: MIT
#include "cds/Block_fixture.h"
#include "glue/cds/CDS_server.h"
#include "support/Pty.h"
#include "support/test.h"

namespace {

using Arguments = std::vector<std::string>;

/// A controller: its block on a socket, and on a line whose other end is a device.
struct Controller {
    Controller() {
        block = {{-3, 200, 0.1f}, {1, 2, 3, 65535}, {'a', '"', 0x1B}, 70000, true};
        EXPECT_VALUES("true true", server.share(path.c_str()), server.serve(dup(line.master)));
    }
    bool may_write(const CDS::Lookup_item& item) const {
        return &item == &items.speed || &item == &items.levels || &item == &items.label;
    }
    const Temporary_folder folder;
    const std::string path = folder.file("socket");
    Pty line;
    CDS::Head head{nullptr, 0};
    Block block{};
    Block_items items{head, block};
    CDS::Remote::Server server{items.root,
                               [this](const CDS::Lookup_item& i, CDS::Remote::Receive_buffer) { return may_write(i); }};
};

const std::string tree = "machine\n"
                         "  engine\n"
                         "    speed    short           -3\n"
                         "    mode     unsigned char   200\n"
                         "    load     float           0.1\n"
                         "  levels[4]  unsigned short  1 2 3 65535\n"
                         "  label[8]   char            \"a\"_\"\n"
                         "  counter    int             70000\n"
                         "  on         bool            true\n";

TEST(cds_view, shows_a_block_over_a_socket_and_over_a_line) {
    Controller c;
    EXPECT_EQ(run_program(CDS_VIEW, {c.path}).out, tree);
    const Child_result line = run_program(CDS_VIEW, {c.line.path + ":115200", "--once"});
    EXPECT_EQ(line.out, tree);
    EXPECT_EQ(line.end(), "0 ");
    EXPECT_EQ(run_program(CDS_VIEW, {c.path, "engine.load", "levels[2]"}).out,
              "machine\n  engine\n    load     float           0.1\n  levels[4]  unsigned short  1 2 3 65535\n");

    const std::string rows = run_program(CDS_VIEW, {c.path, "--csv", "--once"}).out;
    EXPECT_EQ(rows.substr(0, rows.find('\n')),
              "time,engine.speed,engine.mode,engine.load,levels[0],levels[1],levels[2],"
              "levels[3],label,counter,on");
    EXPECT_EQ(rows.substr(rows.rfind(".") - 1), "0.1,1,2,3,65535,\"a\"\"_\",70000,true\n") << rows;

    const std::string picture = c.folder.file("picture");
    const Arguments plot = {c.path, "--plot", "engine", "on", "--every", "10", "--seconds", "1", "--output", picture};
    EXPECT_EQ(run_program(CDS_VIEW, plot).end(), "0 ");
    const std::string svg = read_file(picture);
    for (const char* name : {"engine.speed", "engine.mode", "engine.load", "on"})
        EXPECT_NE(svg.find(">" + std::string(name) + "</text>"), std::string::npos);
    EXPECT_NE(svg.find("polyline"), std::string::npos);
    EXPECT_EQ(svg.substr(svg.size() - 7), "</svg>\n");
}

TEST(cds_view, sets_what_the_controller_allows_and_says_in_one_line_what_is_wrong) {
    Controller c;
    write_file(c.folder.file("file"), "");
    const auto set = [&](const char* what) { return run_program(CDS_VIEW, {c.path, "--set", what}); };
    EXPECT_EQ(set("engine.speed=0x10").out, "engine.speed = 16\n");
    EXPECT_EQ(set("levels=9,8").out, "levels[0] = 9\nlevels[1] = 8\nlevels[2] = 3\nlevels[3] = 65535\n");
    EXPECT_EQ(set("label=x=y").out, "label = \"x=y\"\n");
    {
        const Scoped_lock<CDS::Head> held(c.head);
        EXPECT_EQ(std::string(c.block.label, 8), std::string("x=y\0\0\0\0\0", 8));
    }
    const std::string cannot = "1 cds_view: cannot ", look = cannot + "look at ";
    const std::pair<Arguments, std::string> rows[] = {
        {{c.path, "--set", "counter=1"}, cannot + "set counter: the controller does not allow it"},
        {{c.path, "--set", "engine.speed=1x"}, cannot + "set engine.speed: 1x is no short"},
        {{c.path, "--set", "levels=1,2,3,4,5"}, cannot + "set levels: it has not so many elements"},
        {{c.path, "--set", "label=123456789"}, cannot + "set label: it has not so many elements"},
        {{c.path, "--set", "engine=1"}, cannot + "set engine: there is no such value"},
        {{c.path, "speed"}, "1 cds_view: " + c.path + " has no item speed"},
        {{c.path, "--plot", "label"}, "1 cds_view: " + c.path + " has no number label"},
        {{c.path, "--plot", "--once"}, "2 cds_view: one of --once, --csv and --plot (try --help)"},
        {{c.path, "--set", "speed"}, "2 cds_view: --set needs PATH=VALUE, not speed"},
        {{c.path, "--every", "5"}, "2 cds_view: wrong value 5 for --every (10 to 3600000)"},
        {{}, "2 cds_view: give a socket or a serial line (try --help)"},
        {{"/none"}, look + "/none: No such file or directory"},
        {{c.folder.file("file")}, look + c.folder.file("file") + ": it is neither a socket nor a serial line"},
    };
    for (const auto& [arguments, end] : rows) {
        const Child_result r = run_program(CDS_VIEW, arguments);
        EXPECT_EQ(r.end(), end + "\n");
        EXPECT_EQ(r.out, "");
    }
    EXPECT_EQ(run_shell(CDS_VIEW " " + c.path + " --csv >/dev/full").end(),
              "1 cds_view: cannot write: No space left on device\n");
}

TEST(cds_view, waits_for_a_controller_that_restarts_and_ends_in_order) {
    auto c = std::make_unique<Controller>();
    const Temporary_folder folder;
    const std::string link = folder.file("link"), out = folder.file("out"), err = folder.file("err");
    ASSERT_EQ(symlink(c->path.c_str(), link.c_str()), 0);
    const pid_t viewer = fork();
    if (viewer == 0) {
        if (!freopen(out.c_str(), "w", stdout) || !freopen(err.c_str(), "w", stderr)) _exit(126);
        execl(CDS_VIEW, CDS_VIEW, link.c_str(), "--csv", "--every", "10", "on", nullptr);
        _exit(126);
    }
    const auto rows = [&] {
        const std::string all = read_file(out);
        return std::count(all.begin(), all.end(), '\n');
    };
    EXPECT_TRUE(wait_until([&] { return rows() > 3; }));
    c.reset();
    EXPECT_TRUE(wait_until([&] { return !read_file(err).empty(); }));
    c = std::make_unique<Controller>();
    ASSERT_EQ(unlink(link.c_str()), 0);
    ASSERT_EQ(symlink(c->path.c_str(), link.c_str()), 0);
    const auto before = rows();
    EXPECT_TRUE(wait_until([&] { return rows() > before; }));
    kill(viewer, SIGTERM);
    int status = -1;
    waitpid(viewer, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read_file(err),
              "cds_view: " + link + ": it does not answer; waiting for it\ncds_view: " + link + " is back\n");
}

} // namespace
