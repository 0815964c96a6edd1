// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include "platform/Task.h"
#include "support/Manual_clock.h"
#include <atomic>
#include <functional>
#include <string>
#include <vector>

/// A waiter without a thread; events are taken by the test.
struct Inbox {
    explicit Inbox(module_man& mm = Diner_info_list::get()) { waiter.init(&mm); }
    /// The data words of what has arrived, one behind the other.
    std::string targets() {
        std::string all;
        waiter_event e;
        while (waiter.get_event(&e, Atime(false)) == 0) all += std::to_string(static_cast<long>(e.data));
        return all;
    }
    /// Their ids, as "1 2".
    std::string events() {
        std::string all;
        for (waiter_event e; waiter.get_event(&e, Atime(false)) == 0;)
            all += (all.empty() ? "" : " ") + std::to_string(e.id);
        return all;
    }
    waiter_descriptor waiter;
};

/// A door that threads wait at while it is shut.
class Gate {
public:
    void shut() { _open = false; }
    void open() { _open = true; }
    void pass() {
        ++_waiting;
        wait_until([this] { return _open.load(); }, std::chrono::hours(1));
        --_waiting;
    }
    /// Wait until a thread stands at it.
    bool reached() {
        return wait_until([this] { return !_open && _waiting == 1; });
    }

private:
    std::atomic<bool> _open{true};
    std::atomic<int> _waiting{0};
};

/// A diner whose handlers are given by the test. Base: Diner::Protection, or Diner for one without a lock.
template <class Base = Diner::Protection>
struct Test_diner : Base {
    template <class... A> ///< of the base
    explicit Test_diner(const char* name = "test", int id = 0, A&&... arguments)
        : Base(std::forward<A>(arguments)...), own(name, id) {}
    ~Test_diner() override {
        lock_gate.open();
        if (this->state == Diner::state_term) this->wait_terminate();
        if (this->state != Diner::state_uninit) this->terminate(true);
    }

    /// Initialise, and start unless `parked`.
    void begin(bool parked = false, bool pass_anonymous = false, Diner_selector* s = nullptr) {
        this->init(Diner_info_list::get(), s, own, 0, 0, false, pass_anonymous);
        if (!parked) run();
    }
    bool run() { return this->start() == 0 && in_state(Diner::state_run); }
    bool in_state(int s) {
        return wait_until([this, s] { return this->state == s; });
    }
    void post(int id) { ++posted, this->waiter.send_event(waiter_event(2000, id, 0)); }
    void wake() { ++posted, this->waiter.send_anonymous_event(); }
    /// Nothing is posted to it that it has not handled.
    bool idle() {
        return wait_until([this] { return this->info.event_count == static_cast<uint32_t>(posted.load()); });
    }
    int start_tokens() { return this->_task->start_semaphore.available(); }

    bool lock(int timeout) const override {
        if (this->on_own_thread()) lock_gate.pass();
        return Base::lock(timeout);
    }
    void diner_start() override {
        ++starts;
        if (on_start) on_start();
    }
    void diner_stop() override { ++stops; }
    using Base::handle_timeout;
    void handle_event(waiter_event& e) override {
        ++events;
        if (on_event) on_event(e);
    }
    void handle_timeout(Timeout& t) override {
        ++timeouts_handled;
        if (on_timeout) on_timeout(t);
    }

    Diner::Descriptor own;
    std::function<void()> on_start;
    std::function<void(waiter_event&)> on_event;
    std::function<void(Timeout&)> on_timeout;
    std::atomic<int> starts{0}, stops{0}, events{0}, timeouts_handled{0}, posted{0};
    mutable Gate lock_gate; ///< shut: the diner's own thread stops before it takes its lock
};

/// All that is left of the pool, held as by a sender gone mad.
struct Exhausted_pool {
    Exhausted_pool() {
        while (waiter_event_node* n = Diner_info_list::get().get_blank_event()) all.push_back(n);
    }
    ~Exhausted_pool() {
        for (waiter_event_node* n : all) Diner_info_list::get().return_used_event(n);
    }
    std::vector<waiter_event_node*> all;
};
