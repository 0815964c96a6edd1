// SPDX-License-Identifier: MIT
// A controller that hangs: a supervisor tells of a handler that does not return and of a lock that is held too long,
// has the machine put into a safe state, and feeds a watchdog until it is clear that only a restart helps.
//
// Prints:
//     Supervisor: PUMP runs a handler for ... ms, last at hangs/Pump:10, and 1 events wait
//     the valves are closed
//     Id      Name State Run   EventCnt ToutCnt Checkpoint
//      0      PUMP   Run-0 Evt        0       0 Pump:10
//      1 SUPERVISOR ...
//     the relay is fed all the same
//     Supervisor: PUMP goes on
//     Supervisor: PUMP takes none of its 1 events for ... ms, last at hangs/Pump:20
//     the valves are closed
//     Supervisor: PUMP goes on
//     the relay is fed no more and lets go
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include "glue/diner/Supervisor.h"
#include "platform/Watchdog.h"
#include "util/Debug_print.h"
#include "util/Semaphore.h"
#include <cstdio>
#include <mutex>

namespace {

/// A watchdog of the program's own: a relay in the current of the machine, which lets go when nobody feeds it.
class Relay : public Watchdog {
public:
    bool feed() override {
        fed.release();
        return true;
    }
    int limit_ms() const override { return 300; }
    Semaphore fed{0, true};
};

class Pump : public Diner_external_protection<Diner> {
public:
    explicit Pump(Mutex& machine) : Diner_external_protection<Diner>(machine) {
        init(Diner_info_list::get(), Descriptor("PUMP", 1));
        start();
    }
    ~Pump() override { terminate(true); }
    Semaphore valve, done;

private:
    void handle_event(waiter_event&) override {
        info.checkpoint("hangs/Pump", 10);
        valve.acquire(); // waits for an answer, which a handler must not
        info.checkpoint("hangs/Pump", 20);
        done.release();
    }
    void handle_timeout(Timeout&) override {}
    using Diner::handle_timeout;
};

class Guard {
public:
    explicit Guard(Watchdog& w) : supervisor(options()) {
        supervisor.add_watchdog(w);
        supervisor.init(Diner_info_list::get());
    }
    Semaphore found;
    Supervisor supervisor;

private:
    Supervisor::Options options() {
        Supervisor::Options o;
        o.period_ms = 10; // short, for an example
        o.handler_ms = 200;
        o.queue_ms = 40;
        o.reaction = Supervisor::call;
        o.on_trouble = [this](const Supervisor::Trouble& t) { on_trouble(t); };
        return o;
    }
    // On the supervisor's thread. It waits for nothing.
    void on_trouble(const Supervisor::Trouble& t) {
        Debug_print::try_print("the valves are closed\n"); // a stalled console does not hold it up
        if (t.kind == Supervisor::standing_queue) supervisor.starve_for_good();
        found.release();
    }
};

} // namespace

int main() {
    Debug_print::debug_file = stdout; // before the first thread
    Mutex machine;
    Relay relay;
    Pump pump(machine);
    Guard guard(relay);
    const auto post_two = [&pump] { // one is taken, the other waits
        for (short id : {1, 2}) pump.waiter.send_event(waiter_event(2000, id, 0));
    };

    post_two();
    guard.found.acquire();
    Diner_info_list::get().print(false, false); // takes no diner's lock
    for (int i = 0; i < 3; ++i) relay.fed.acquire();
    puts("the relay is fed all the same");
    for (int i = 0; i < 2; ++i) pump.valve.release();
    for (int i = 0; i < 2; ++i) pump.done.acquire();

    {
        const std::lock_guard<Mutex> held(machine); // by whoever waits for a slow medium, say
        for (int i = 0; i < 2; ++i) pump.valve.release();
        post_two();
        guard.found.acquire();
    }
    while (guard.supervisor.in_trouble()) Atime::delay(1);
    while (relay.fed.try_acquire(relay.limit_ms() / 10)) { // [10 ms]
    }
    puts("the relay is fed no more and lets go");
}
