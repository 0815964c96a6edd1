// SPDX-License-Identifier: MIT
#include "glue/diner/Supervisor.h"
#include "platform/Device_watchdog.h"
#include "platform/Service_manager.h"
#include "support/Test_diner.h"
#include "support/test.h"
#include "util/assertion.h"
#include "util/local_socket.h"
#include <sys/socket.h>
#include <sys/un.h>

namespace {

struct Fed : Watchdog {
    bool feed() override {
        ++times;
        errno = ENOSPC;
        return works;
    }
    int limit_ms() const override { return limit; }
    std::atomic<int> times{0};
    int limit = 0;
    bool works = true;
};

/// A supervisor without a thread: time goes by as the test says.
class Supervised : public testing::Test {
protected:
    Supervised() {
        diner.on_event = [this](waiter_event&) {
            diner.info.checkpoint("some/place", 42);
            gate.pass();
        };
        diner.begin();
        supervisor.add_watchdog(fed);
        supervisor.look();
    }
    ~Supervised() override { gate.open(); }
    /// What is told while so much time goes by in looks; then how often was fed.
    std::string told(int ms) {
        const int before = fed.times;
        const std::string text = debug_text([&] {
            for (; ms > 0; ms -= 100) clock.advance(100), supervisor.look();
        });
        return text + std::to_string(fed.times - before);
    }
    /// Have a handler run until go_on().
    void hang() {
        gate.shut();
        diner.post(1);
        ASSERT_TRUE(gate.reached());
    }
    bool go_on() { return gate.open(), diner.idle(); }

    Manual_clock clock;
    Gate gate;
    Fed fed;
    Test_diner<> diner{"worker"};
    /// [ms] between looks, for handlers, queues and the pool.
    Supervisor supervisor{{100, 500, 1000, 300, 0, Supervisor::starve, nullptr}};
};

TEST_F(Supervised, a_handler_that_hangs_is_told_of_once_and_starves_the_watchdog) {
    EXPECT_EQ(told(3000), "30") << "nothing to do is no trouble";
    hang();
    EXPECT_EQ(told(500), "5") << "not yet";
    diner.post(2);
    EXPECT_EQ(told(1000), "Supervisor: worker runs a handler for 600 ms, last at some/place:42, and 1 events wait\n0");
    EXPECT_VALUES("true true Supervisor: worker goes on\n2", supervisor.in_trouble(), go_on(), told(200));
}

TEST_F(Supervised, time_in_which_all_stood_still_and_limits_of_ones_own_are_no_trouble) {
    hang();
    clock.advance(3600000);
    EXPECT_EQ(told(100), "1") << "asleep, or stopped: 200 ms count";
    for (const auto& [limit, ms] : {std::pair(2000, 1500), {-1, 60000}}) {
        diner.info.handler_limit_ms = limit;
        EXPECT_EQ(told(ms), std::to_string(ms / 100));
    }
    diner.info.handler_limit_ms = 0;
    EXPECT_TRUE(go_on());
    hang();
    EXPECT_EQ(told(400), "4") << "one that takes its time, behind others";
}

TEST_F(Supervised, a_diner_that_takes_none_of_its_events_is_trouble_unless_it_is_parked) {
    ASSERT_VALUES("0 true", diner.stop(), diner.in_state(Diner::state_stop));
    diner.waiter.set_enabled(true);
    diner.post(1);
    EXPECT_VALUES("30 true true", told(3000), diner.run(), diner.idle());
    diner.lock(-1);
    for (int id : {1, 2}) diner.post(id); // one is taken, to be handled under the lock
    ASSERT_TRUE(wait_until([&] { return diner.waiter.num_queued() == 1; }));
    EXPECT_EQ(told(2000), "Supervisor: worker takes none of its 1 events for 1000 ms, last at some/place:42\n10")
        << "the first look sees that it has moved";
    diner.unlock();
    diner.terminate(true);
    EXPECT_VALUES("2 false", told(200), supervisor.in_trouble()) << "it has gone";
}

TEST_F(Supervised, an_event_pool_that_stays_empty_is_trouble) {
    hang();
    diner.post(1);
    diner.info.handler_limit_ms = -1;
    {
        const Exhausted_pool pool;
        fed.works = false;
        EXPECT_EQ(told(1000), "Supervisor: cannot feed a watchdog: No space left on device\n"
                              "Supervisor: the event pool is empty for 300 ms, most events wait for worker: 1\n2");
    }
    EXPECT_EQ(told(100), "Supervisor: the event pool has room again\n1");
}

TEST(Supervisor, aborts_when_that_was_chosen_and_looks_as_often_as_its_watchdog_needs) {
    const Child_result r = run_child([] {
        Util::set_last_act([] { _exit(9); }); // where a trace is written
        Test_diner<> d("worker");
        d.on_event = [](waiter_event&) { pause(); };
        d.begin();
        Fed fed;
        fed.limit = 60;
        Supervisor::Options o;
        o.period_ms = 3600000, o.handler_ms = 20, o.reaction = Supervisor::abort_there;
        Supervisor s(o);
        s.add_watchdog(fed);
        s.init(Diner_info_list::get());
        d.post(1);
        pause();
    });
    EXPECT_EQ(r.end().find("9 Supervisor: worker runs a handler for "), 0u) << r.end();
}

TEST(Service_manager, is_told_by_datagrams_where_there_is_one) {
    const Temporary_folder folder;
    const std::string own = std::to_string(getpid()), place = folder.file("notify"), name = "@kav-test-" + own,
                      all = "READY=1|STATUS=all well|WATCHDOG=1|STOPPING=1|", none, long_one(107, 'x');
    const std::string wrong = "Service_manager: cannot speak to ",
                      family = ": Address family not supported by protocol\n";
    const std::tuple<std::string, const char*, const char*, int, std::string> table[] = {
        // socket, time and process to feed it, limit, what it is told or what is printed
        {place, "3000000", own.c_str(), 3000, all},
        {place, "3000000", "1", 0, all},
        {name, "99999999999999", nullptr, INT_MAX, all},
        {place, "-5", nullptr, 0, all},
        {none, "3000000", nullptr, 0, none},
        {"vsock:2:1", nullptr, nullptr, 0, wrong + "vsock:2:1" + family},
        {"notify", nullptr, nullptr, 0, wrong + "notify" + family},
        {"/" + long_one, nullptr, nullptr, 0, wrong + "/" + long_one + ": File name too long\n"}};
    for (const auto& [where, usec, pid, limit, expected] : table) {
        const bool there = expected == all;
        struct sockaddr_un address;
        const unsigned size = Util::local_address((there ? where : place).c_str(), address);
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        ASSERT_EQ(bind(fd, reinterpret_cast<struct sockaddr*>(&address), size), 0);
        std::optional<Service_manager> manager;
        std::string told = debug_text(
            [&, &w = where, &u = usec, &p = pid] { manager.emplace(w.empty() ? nullptr : w.c_str(), u, p); });
        EXPECT_VALUES(texts(limit, true, true, true, true), manager->limit_ms(), manager->ready(),
                      manager->status("all well\nREADY=0"), manager->feed(), manager->stopping());
        char text[64];
        for (ssize_t n; (n = recv(fd, text, sizeof text, 0)) > 0;) told += std::string(text, size_t(n)) + '|';
        EXPECT_EQ(told, expected);
        close(fd);
        EXPECT_EQ(manager->feed(), !there) << "it has gone";
        unlink(place.c_str());
    }
}

TEST(Device_watchdog, is_opened_where_it_is_one) {
    const Temporary_folder folder;
    const std::string file = folder.file("file");
    write_file(file, "kept");
    Device_watchdog watchdog;
    for (const auto& [path, reason] : {std::pair(file.c_str(), ENOTTY), {"/dev/null", ENOTTY}, {"/none", ENOENT}}) {
        EXPECT_VALUES(texts(false, reason), watchdog.open(path), errno) << path;
        EXPECT_VALUES("false false 0", watchdog.feed(), watchdog.disarm(), watchdog.limit_ms()) << path;
    }
    EXPECT_EQ(read_file(file), "kept");
}

} // namespace
