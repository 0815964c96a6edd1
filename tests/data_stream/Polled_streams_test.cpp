// SPDX-License-Identifier: MIT
#include "glue/data_stream/Posix_polled_serial_data_stream.h"
#include "support/Pty.h"
#include "support/Test_diner.h"
#include "support/test.h"
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>

namespace {

using Stream = Posix_polled_data_stream;

/// A diner that polls a line itself and collects what comes.
template <class S>
struct Line_diner : Test_diner<> {
    Line_diner() {
        line.init(Diner_info_list::get());
        EXPECT_TRUE(line.attach(&waiter));
        on_event = [this](waiter_event& e) {
            EXPECT_TRUE(on_own_thread());
            if (e.module_id != line.module_id()) return;
            if (e.id != Stream::event_data) told += e.id == Stream::event_line_lost ? "lost " : "back ";
            for (; line.bytes_avail() > 0; line.drop(1)) ++bytes, sum += line[0];
            ++line_events;
        };
    }
    ~Line_diner() override { terminate(true); }
    S line;
    std::atomic<unsigned> bytes{0}, sum{0}, line_events{0};
    std::string told; ///< the diner's until it has ended
};

struct Polled : testing::Test {
    Polled() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0); }
    ~Polled() override { close(ends[0]); }
    void send(size_t n) { EXPECT_EQ(write(ends[0], std::string(n, 1).data(), n), static_cast<ssize_t>(n)); }
    int ends[2]; ///< the stream closes the second
};

TEST_F(Polled, lines_events_and_timeouts_reach_the_one_thread_and_none_holds_up_another) {
    Line_diner<Stream> d;
    ASSERT_TRUE(d.line.open_fd(ends[1]));
    d.begin();
    send(3);
    EXPECT_TRUE(wait_until([&] { return d.bytes == 3; })) << "it sleeps without limit";
    Timeout t;
    d.submit_timeout(t, 20);
    send(1);
    EXPECT_TRUE(wait_until([&] { return d.timeouts_handled == 1 && d.bytes == 4; }));
    d.submit_timeout(t, 3600000);
    send(1);
    EXPECT_TRUE(wait_until([&] { return d.bytes == 5; })) << "it sleeps with a limit";
    // So busy that it never sleeps: each event posts the next.
    const auto collect = d.on_event;
    ASSERT_TRUE(d.stop() == 0 && d.wait_stopped());
    d.on_event = [&](waiter_event& e) {
        if (e.module_id == 2000) d.waiter.send_event(waiter_event(2000, 1, 0));
        collect(e);
    };
    ASSERT_TRUE(d.run());
    d.waiter.send_event(waiter_event(2000, 1, 0));
    send(7);
    EXPECT_TRUE(wait_until([&] { return d.bytes == 12; }));
}

TEST_F(Polled, nothing_is_lost_between_posts_and_bytes_at_the_same_time) {
    Line_diner<Stream> d;
    ASSERT_TRUE(d.line.open_fd(ends[1]));
    d.begin();
    constexpr int each = 3000;
    std::vector<std::thread> posters;
    for (int i = 0; i < 2; ++i)
        posters.emplace_back([&] {
            for (int n = 0; n < each; ++n) d.wake();
        });
    for (int n = 0; n < each; ++n) send(2);
    for (auto& p : posters) p.join();
    EXPECT_TRUE(wait_until([&] { return d.bytes == 2 * each; }));
    EXPECT_TRUE(wait_until([&] { return d.info.event_count == d.line_events + 2 * each; })) << d.info.event_count;
    EXPECT_EQ(d.sum, 2u * each);
    d.terminate(true);
    EXPECT_TRUE(d.line.bytes_read == 2 * each && d.line.bytes_lost == 0);
}

TEST_F(Polled, what_does_not_fit_is_lost_and_counted_and_writes_wait_for_room) {
    Line_diner<Stream> d;
    std::string received(300000, 0);
    std::thread peer([&] {
        for (size_t n = 0; n < received.size();) {
            const ssize_t got = read(ends[0], &received[n], received.size() - n);
            if (got <= 0) return;
            n += static_cast<size_t>(got);
        }
    });
    ASSERT_TRUE(d.line.open_fd(ends[1]));
    const std::string sent(received.size(), 'w'); // parked: it is ours
    EXPECT_EQ(d.line.__write(reinterpret_cast<const unsigned char*>(sent.data()), 300000), 300000u);
    peer.join();
    EXPECT_EQ(received, sent);
    d.on_event = nullptr; // takes nothing
    d.begin();
    for (int i = 0; i < 6; ++i) send(1000);
    EXPECT_TRUE(wait_until([&] {
        int waiting = 0;
        return ioctl(ends[1], FIONREAD, &waiting) == 0 && waiting == 0;
    }));
    d.terminate(true);
    EXPECT_TRUE(d.line.bytes_avail() == 4200 && d.line.bytes_lost == 1800 && d.line.bytes_read == 6000);
    EXPECT_TRUE(d.line.close() && !d.line.close());
    const unsigned char x = 'x';
    EXPECT_EQ(d.line.__write(&x, 1), ~0u);
}

TEST(Polled_serial_line, is_lost_once_and_serves_on_when_opened_again) {
    Line_diner<Posix_polled_serial_data_stream> d;
    Pty first, second;
    ASSERT_TRUE(d.line.open_from_args((first.path + ":115200").c_str()));
    EXPECT_EQ(first.speed(), B115200);
    d.begin();
    first.send("abc");
    EXPECT_TRUE(wait_until([&] { return d.bytes == 3; }));
    first.hang_up();
    EXPECT_TRUE(wait_until([&] { return d.line.hang_ups() == 1; }));
    d.wake();
    ASSERT_TRUE(wait_until([&] { return d.info.event_count >= 1 + d.line_events; }));
    ASSERT_TRUE(d.stop() == 0 && d.wait_stopped());
    ASSERT_TRUE(d.line.open_from_args(second.path.c_str()));
    ASSERT_TRUE(d.run());
    second.send("d");
    EXPECT_TRUE(wait_until([&] { return d.bytes == 4; }));
    d.terminate(true);
    EXPECT_EQ(d.told, "lost ");
}

} // namespace
