// SPDX-License-Identifier: MIT
// An active object: a pump that sleeps until an event asks for water, and then makes its strokes by a periodic timeout.
// Afterwards it is parked and started again.
//
// Prints:
//     looks around
//     asked for 3 litres
//     stroke, 2 to go
//     stroke, 1 to go
//     stroke, 0 to go
//     looks around
//     Id      Name State Run   EventCnt ToutCnt Checkpoint
//      0      PUMP   Run-0 Idl        4     ... Diner:80
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include "util/Semaphore.h"
#include <cstdio>

namespace {

class Pump : public Diner::Protection {
public:
    enum Event { event_fill = 1, event_look };

    Pump() {
        Diner_info_list& modules = Diner_info_list::get(); // the process's event pool and status list
        modules.init_module(&_module, false);
        init(modules, Descriptor("PUMP", 1));
        start();
    }
    ~Pump() override { terminate(true); } // the thread is gone before the pump is

    /// Any thread. Nothing is waited for.
    void fill(unsigned litres) {
        const waiter_event event(_module, event_fill, litres);
        if (waiter.send_event(event) != 0) puts("too many events wait");
    }
    Semaphore ready, full;

private:
    // Posts from before were dropped, so it looks for itself.
    void diner_start() override {
        waiter.send_event(waiter_event(_module, event_look, 0), waiter_descriptor::drop_duplicates);
    }

    // Both handlers run on the pump's own thread, one at a time, under its lock.
    void handle_event(waiter_event& event) override {
        if (event.module_id != _module) return;
        if (event.id == event_look) {
            puts("looks around");
            ready.release();
            return;
        }
        _to_go = static_cast<unsigned>(event.data);
        printf("asked for %u litres\n", _to_go);
        _stroke.period = 20; // [ms]
        submit_timeout(_stroke, 20);
    }
    void handle_timeout(Timeout& timeout) override {
        printf("stroke, %u to go\n", --_to_go);
        if (_to_go > 0) return;
        timeout.invalidate(); // no further period
        full.release();
    }
    using Diner::handle_timeout;

    short _module = 0;
    unsigned _to_go = 0;
    Timeout _stroke;
};

} // namespace

int main() {
    Pump pump;
    pump.fill(3);
    pump.full.acquire();
    pump.ready.acquire();

    pump.stop();
    pump.wait_stopped(); // at most 5 s; false when it runs on
    pump.start();
    pump.ready.acquire();
    pump.get_state(); // takes the lock, so the handler has returned
    Diner_info_list::get().print(false, false);
}
