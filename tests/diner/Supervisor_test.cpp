// SPDX-License-Identifier: MIT
#include "glue/diner/Supervisor.h"
#include "glue/diner/Trace.h"
#include "platform/Device_watchdog.h"
#include "platform/Service_manager.h"
#include "support/Manual_clock.h"
#include "support/Temporary_folder.h"
#include "support/Test_diner.h"
#include "support/capture.h"
#include "support/child.h"
#include "util/local_socket.h"
#include <gtest/gtest.h>
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

Supervisor::Options limits(Supervisor::Reaction reaction = Supervisor::starve) {
    Supervisor::Options o;
    o.period_ms = 100, o.handler_ms = 500, o.queue_ms = 1000, o.pool_ms = 300;
    o.reaction = reaction;
    return o;
}

/// A supervisor without a thread: time goes by as the test says.
class Supervised : public testing::Test {
protected:
    Supervised() { watch(limits()); }
    void watch(const Supervisor::Options& o) {
        supervisor = std::make_unique<Supervisor>(o);
        supervisor->add_watchdog(fed);
        supervisor->look();
    }
    /// What is told while so much time goes by in looks; then how often was fed.
    std::string told(int ms) {
        const int before = fed.times;
        const std::string text = debug_text([&] {
            for (; ms > 0; ms -= 100) {
                clock.advance(100);
                supervisor->look();
            }
        });
        return text + std::to_string(fed.times - before);
    }
    /// Have a handler run until the gate opens.
    void hang() {
        gate.shut();
        diner.on_event = [this](waiter_event&) {
            diner.info.checkpoint("some/place", 42);
            gate.pass();
        };
        diner.post(1);
        ASSERT_TRUE(gate.reached());
    }

    Manual_clock clock;
    Gate gate;
    Fed fed;
    Test_diner<> diner{"worker"};
    std::unique_ptr<Supervisor> supervisor;
};

TEST_F(Supervised, a_handler_that_hangs_is_told_of_once_and_starves_the_watchdog) {
    diner.begin();
    EXPECT_EQ(told(3000), "30") << "nothing to do is no trouble";
    hang();
    EXPECT_EQ(told(500), "5") << "not yet";
    diner.post(2);
    EXPECT_EQ(told(1000), "Supervisor: worker runs a handler for 600 ms, last at some/place:42, and 1 events wait\n0");
    EXPECT_TRUE(supervisor->in_trouble());
    gate.open();
    EXPECT_TRUE(diner.idle());
    EXPECT_EQ(told(200), "Supervisor: worker goes on\n2");
    supervisor->starve_for_good();
    EXPECT_EQ(told(200), "0");
}

TEST_F(Supervised, time_in_which_all_stood_still_and_limits_of_ones_own_are_no_trouble) {
    diner.begin();
    hang();
    clock.advance(3600000);
    EXPECT_EQ(told(100), "1") << "asleep, or stopped: 200 ms count";
    diner.info.handler_limit_ms = 2000;
    EXPECT_EQ(told(1500), "15");
    diner.info.handler_limit_ms = -1;
    EXPECT_EQ(told(60000), "600");
    gate.open();
    EXPECT_TRUE(diner.idle());
    // Many handlers that take their time, one behind the other.
    diner.info.handler_limit_ms = 0;
    for (int i = 0; i < 5; ++i) {
        hang();
        EXPECT_EQ(told(400), "4");
        gate.open();
        EXPECT_TRUE(diner.idle());
    }
}

TEST_F(Supervised, a_diner_that_takes_none_of_its_events_is_trouble_unless_it_is_parked) {
    diner.begin(true);
    diner.post(1);
    EXPECT_EQ(told(3000), "30");
    ASSERT_TRUE(diner.run() && diner.idle());
    diner.lock(-1);
    diner.post(2);
    diner.post(3);
    // One may have been taken already, to be handled under the lock.
    ASSERT_TRUE(wait_until([&] { return diner.waiter.num_queued() == 1; }));
    EXPECT_EQ(told(2000), text_of("Supervisor: worker takes none of its 1 events for 1000 ms, last at %s:80\n10",
                                  "glue/diner/Diner"));
    diner.unlock();
    EXPECT_TRUE(diner.idle());
    EXPECT_EQ(told(100), "Supervisor: worker goes on\n1");
    diner.lock(-1);
    diner.post(4);
    diner.post(5);
    ASSERT_TRUE(wait_until([&] { return diner.waiter.num_queued() == 1; }));
    EXPECT_NE(told(2000), "20");
    diner.unlock();
    diner.terminate(true);
    EXPECT_EQ(told(200), "2") << "it has gone, and all with it";
    EXPECT_FALSE(supervisor->in_trouble());
}

TEST_F(Supervised, an_event_pool_that_stays_empty_is_trouble) {
    diner.begin(true);
    diner.post(1);
    module_man& pool = Diner_info_list::get();
    std::vector<waiter_event_node*> taken;
    while (waiter_event_node* n = pool.get_blank_event()) taken.push_back(n);
    EXPECT_EQ(told(1000), "Supervisor: the event pool is empty for 300 ms, most events wait for worker: 1\n2");
    for (waiter_event_node* n : taken) pool.return_used_event(n);
    EXPECT_EQ(told(100), "Supervisor: the event pool has room again\n1");
}

TEST_F(Supervised, calls_back_when_that_was_chosen_and_feeds_on) {
    Supervisor::Options o = limits(Supervisor::call);
    std::vector<Supervisor::Trouble> calls;
    o.on_trouble = [&](const Supervisor::Trouble& t) { calls.push_back(t); };
    watch(o);
    diner.begin();
    hang();
    fed.works = false;
    const std::string text = told(1000);
    EXPECT_NE(text.find("Supervisor: cannot feed a watchdog: No space left on device\n"), std::string::npos);
    EXPECT_EQ(text.substr(text.size() - 2), "10");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].kind, Supervisor::long_handler);
    EXPECT_STREQ(calls[0].diner.name, "worker");
    EXPECT_EQ(calls[0].line, 42);
    gate.open();
    EXPECT_TRUE(diner.idle());
}

TEST(Supervisor_in_a_process, aborts_when_that_was_chosen) {
    const Temporary_folder folder;
    const std::string trace = folder.file("trace");
    const Child_result r = run_child([&] {
        Trace::start(1024);
        Trace::at_abort(trace.c_str());
        Test_diner<> d("worker");
        d.on_event = [](waiter_event&) { pause(); };
        d.begin();
        Supervisor::Options o;
        o.period_ms = o.handler_ms = 20;
        o.reaction = Supervisor::abort_there;
        Supervisor s(o);
        s.init(Diner_info_list::get());
        d.post(1);
        pause();
    });
    EXPECT_EQ(r.signal, SIGABRT);
    EXPECT_NE((r.out + r.err).find("Supervisor: worker runs a handler for "), std::string::npos) << r.end();
    EXPECT_NE(read_file(trace).find("worker"), std::string::npos) << "with the trace written";
}

TEST(Supervisor_in_a_process, feeds_in_a_third_of_the_time_that_a_watchdog_gives) {
    Fed fed;
    fed.limit = 60;
    Supervisor s;
    s.add_watchdog(fed);
    s.init(Diner_info_list::get());
    EXPECT_TRUE(wait_until([&] { return fed.times > 20; })) << "with the period of a second alone it takes 20 s";
}

TEST(Service_manager, is_told_by_datagrams_where_there_is_one) {
    const Temporary_folder folder;
    const std::string own = std::to_string(getpid()), abstract = "@kav-test-" + own, place = folder.file("notify");
    const char* const all = "READY=1|STATUS=all well|WATCHDOG=1|STOPPING=1|";
    const struct {
        const char *socket, *usec, *pid;
        int limit;
        const char* told;
    } table[] = {{place.c_str(), "3000000", own.c_str(), 3000, all},
                 {place.c_str(), "3000000", "1", 0, all},
                 {abstract.c_str(), "99999999999999", nullptr, INT_MAX, all},
                 {place.c_str(), "-5", nullptr, 0, all},
                 {nullptr, "3000000", nullptr, 0, ""},
                 {"notify", nullptr, nullptr, 0, ""}};
    for (const auto& row : table) {
        const std::string where = row.socket && *row.told ? row.socket : place;
        struct sockaddr_un address;
        const unsigned size = Util::local_address(where.c_str(), address);
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        ASSERT_EQ(bind(fd, reinterpret_cast<struct sockaddr*>(&address), size), 0);
        Service_manager manager(row.socket, row.usec, row.pid);
        EXPECT_EQ(manager.limit_ms(), row.limit);
        EXPECT_TRUE(manager.ready() && manager.status("all well\nREADY=0") && manager.feed() && manager.stopping());
        std::string told;
        char text[64];
        for (ssize_t n; (n = recv(fd, text, sizeof text, 0)) > 0; told += '|')
            told.append(text, static_cast<size_t>(n));
        EXPECT_EQ(told, row.told);
        close(fd);
        EXPECT_EQ(manager.feed(), *row.told == 0) << "it has gone";
        unlink(place.c_str());
    }
    const std::pair<std::string, const char*> unusable[] = {{"vsock:2:1", "Address family not supported by protocol"},
                                                            {"/" + std::string(107, 'x'), "File name too long"}};
    for (const auto& [socket, reason] : unusable)
        EXPECT_EQ(debug_text([&s = socket] { EXPECT_TRUE(Service_manager(s.c_str(), nullptr, nullptr).ready()); }),
                  "Service_manager: cannot speak to " + socket + ": " + reason + "\n");
}

TEST(Device_watchdog, is_opened_where_it_is_one) {
    const Temporary_folder folder;
    const std::string file = folder.file("file");
    write_file(file, "kept");
    Device_watchdog watchdog;
    const std::pair<const char*, int> table[] = {{file.c_str(), ENOTTY}, {"/dev/null", ENOTTY}, {"/none", ENOENT}};
    for (const auto& [path, reason] : table) {
        EXPECT_FALSE(watchdog.open(path));
        EXPECT_EQ(errno, reason) << path;
        EXPECT_TRUE(!watchdog.feed() && !watchdog.disarm() && watchdog.limit_ms() == 0);
    }
    EXPECT_EQ(read_file(file), "kept");
}

} // namespace
