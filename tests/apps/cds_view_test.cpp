// SPDX-License-Identifier: MIT
#include "apps/Commands.h"
#include "cds/Block_fixture.h"
#include "glue/cds/CDS_server.h"
#include "support/Pty.h"

namespace {

/// A controller: its block on a socket, and on a line whose other end is a device.
struct Controller {
    Controller() {
        block = {{-3, 200, 0.1f}, {1, 2, 3, 65535}, {'a', '"', 0x1B}, 70000, true};
        EXPECT_VALUES("true true", server.share("socket"), server.serve(dup(line.master)));
    }
    Pty line;
    CDS::Head head{nullptr, 0};
    Block block{};
    Block_items items{head, block};
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
