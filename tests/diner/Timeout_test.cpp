// SPDX-License-Identifier: MIT
#include "glue/diner/Clock_watch.h"
#include "support/Test_diner.h"
#include "support/test.h"
#include "util/Debug_base.h"

namespace {

constexpr int64_t hour = 3600000, fifty_years = 1577880000000; // [ms]

class Timeouts : public testing::Test {
protected:
    int submit(Timeout& t, int ms) { return manager.submit_timeout_in(t, ms); }

    Manual_clock clock;
    Timeout t[3];
    Timeout_manager manager; // after the timeouts: its end makes them free
    Test_diner<> diner;
};

TEST_F(Timeouts, are_copied_without_their_place_and_withdrawn_by_either_destructor) {
    t[0].uid = 5, t[0].period = 7;
    EXPECT_VALUES("0 0", t[0].remaining_ms(), diner.submit_timeout(t[0], 40));
    Timeout assigned = Atime::from_now(20);
    for (const Timeout& c : {Timeout(t[0]), assigned = t[0]})
        EXPECT_VALUES("40 5 7 true false true", c.remaining_ms(), c.uid, c.period, !c.diner, c.submitted(),
                      t[0].submitted());
    diner.remove_timeout(t[0]);
    for (int ms : {1000, 0}) { // pending, handed out
        auto own = std::make_unique<Timeout>();
        diner.submit_timeout(*own, ms);
        diner.handle_timeout();
        EXPECT_EQ(diner.timeouts_handled, ms == 0);
        const std::string line = text_of("Destruct %p %p\n", own.get(), static_cast<Diner*>(&diner));
        EXPECT_EQ(debug_text([&] { own.reset(); }), line);
        EXPECT_EQ(diner.next_timeout(t[0].expiry), -1);
    }
    Test_diner<>().submit_timeout(t[0], 1000);
    t[0] = Atime::from_now(10); // would abort in a list
}

TEST_F(Timeouts, made_in_the_past_by_each_handler_end_a_pass_all_the_same) {
    std::list<Timeout> made;
    diner.on_timeout = [&](Timeout&) { diner.submit_timeout(made.emplace_back(), -1000); };
    diner.submit_timeout(t[0], 0);
    diner.handle_timeout();
    EXPECT_EQ(diner.timeouts_handled, 10001);
    for (Timeout& x : made) diner.remove_timeout(x);
}

const std::string refused = "Failed to remove timeout, did client get right Diner?\n";

TEST_F(Timeouts, are_refused_where_another_manager_or_tree_has_them) {
    Timeout_manager other;
    submit(t[0], 10);
    EXPECT_EQ(debug_text([&] {
                  EXPECT_VALUES("-1 -1 false", other.remove_timeout(t[0]), other.submit_timeout(t[0], nullptr),
                                other.internal_remove(t[0]));
              }),
              refused + refused + refused);
    EXPECT_VALUES("true false 10", manager.submitted(t[0]), other.submitted(t[0]), t[0].remaining_ms());
    c_bstree<avl_bstree, Timeout> tree;
    tree.create<Timeout_manager::timeouts_compare>();
    EXPECT_VALUES("-1 null null", tree.remove(&t[0]), tree.next(&t[0]), tree.nearby(&t[0], bst_less));
    manager.remove_timeout(t[0]);
    tree.insert(&t[0]);
    EXPECT_EQ(debug_text([&] { EXPECT_VALUES("-1 -1", submit(t[0], 0), manager.remove_timeout(t[0])); }),
              refused + refused);
    EXPECT_EQ(run_child([&] { t[0].~Timeout(); }).signal, SIGABRT);
    EXPECT_VALUES("0 0", tree.integrity(), tree.remove(&t[0]));
}

TEST_F(Timeouts, are_listed_by_every_operation_under_their_category) {
    t[0].uid = 3, t[0].period = 250;
    const std::string row = text_of("uid: 3, type: 0, nid: %p, per: 250 till_expiry: -5\r\n", &t[0]),
                      alive = "Alive timeouts:\r\n---------------\r\n", dead = "Dead timeouts:\r\n--------------\r\n",
                      pending = alive + row + dead + "\r\n", handed_out = alive + dead + row + "\r\n";
    Debug_filter::add_filter(_JDB::jdb_timeout);
    EXPECT_EQ(debug_text([&] {
                  submit(t[0], -5), manager.next_timeout(), manager.expired_timeout();
                  diner.submit_timeout(t[0], 0); // refused: no lists
                  manager.remove_timeout(t[0]);
              }),
              pending + pending + handed_out + refused + alive + dead + "\r\n");
    Debug_filter::remove_filter(_JDB::jdb_timeout);
}

TEST_F(Timeouts, misused_end_the_process) {
    const std::string at = program_invocation_short_name + std::string(": glue/diner/Timeout");
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[&] { t[0] = Atime::now(); },
         "Tried to change timeout time while in a list\n" + at + ":85: Timeout& Timeout::operator=(const Atime&): A"},
        {[&] { t[0] = t[1]; },
         "Tried to copy over timeout while in a list\n" + at + ":75: Timeout& Timeout::operator=(const Timeout&): A"},
        {[&] { t[0].set_diner(nullptr), t[0].~Timeout(); },
         "Tried to destruct timeout while in a list\n" + at + ":66: Timeout::~Timeout(): A"},
        {[&] { submit(t[1], 0), manager.expired_timeout(), manager.reschedule_periodic_timeout(t[0]); },
         at + "_manager:77: bool Timeout_manager::reschedule_periodic_timeout(Timeout&): A"},
        {[&] { t[0].expiry += 10000, clock.advance(1000), diner.handle_timeout(); },
         "Timeout_diner::handle_timeout - not expired yet -10000\n"},
    };
    diner.submit_timeout(t[0], 1000);
    for (const auto& [misuse, message] : cases)
        EXPECT_EQ(run_child(misuse).end().substr(0, 9 + message.size()), "signal 6 " + message);
}

TEST_F(Timeouts, move_with_the_clock_at_most_to_the_last_instant_and_to_the_first) {
    diner.begin(true); // in the list, and its thread looks at nothing
    diner.submit_timeout(t[0], 100);
    for (int32_t s : {INT32_MAX, INT32_MIN, INT32_MIN, 3600}) Diner_info_list::get().clock_stepped(s, 0);
    EXPECT_VALUES(texts(INT32_MIN + 3600, 0), t[0].expiry.time, diner.remove_timeout(t[0]));
}

/// How the clock is set: not at all, with the manager told, or with nothing but its own eyes.
enum Steps { not_at_all, told, watched };

/// The simplest thing that can work. Bursts and trickles, many equal expiries, handlers that are slow or set the clock.
/// What the model keeps does not change with the steps.
class Random_use : public testing::TestWithParam<Steps> {
protected:
    int up_to(int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); }
    Timeout& any() { return all[random() % all.size()]; }
    int64_t now() const { return Timeout::ms_of(Atime::now()) - offset; }
    void forget(Timeout& x) { pending.erase(&x), handed_out.erase(&x); }
    /// The earliest but for those that are left to the next pass; of equal ones that at the lowest address.
    std::pair<int64_t, Timeout*> first(const std::set<Timeout*>& but = {}) {
        std::pair<int64_t, Timeout*> least(INT64_MAX, nullptr);
        for (const auto& [x, ms] : pending)
            if (!but.count(x)) least = std::min(least, {ms, x});
        return least;
    }

    void step() {
        const int64_t to[] = {0, 5, -999, hour, -hour, 1200 * hour, -1200 * hour}, ms = to[up_to(7)] - offset;
        if (GetParam() == not_at_all || ms == 0) return;
        clock.step(ms);
        offset += ms;
        if (GetParam() == told) manager.clock_stepped(ms), look();
    }
    /// The manager looks at the clock. A step that it notices ends a pass.
    void look() { pass_over |= std::exchange(noticed, offset) != offset; }

    /// In a moment, long after or before that, or at its own expiry; a period or more late it becomes due now.
    void submit_any(Timeout& x) {
        const int ms = up_to(2) ? up_to(70) - 20 : up_to(300000), how = up_to(8);
        const Atime when = how == 0 ? x.expiry : Atime::from_now(ms);
        const int64_t wanted = Timeout::ms_of(when) - offset;
        x.period = up_to(2) * (1 + up_to(20));
        ASSERT_EQ(how == 1 ? manager.submit_timeout_in(x, ms) : manager.submit_timeout(x, how ? &when : nullptr), 0);
        if (watch) look();
        forget(x);
        pending[&x] = x.period && now() - wanted >= x.period ? now() : wanted;
        if (ran.count(&x)) held_back.insert(&x);
    }
    void remove(Timeout& x) {
        forget(x);
        ASSERT_TRUE(up_to(2) ? manager.remove_timeout(x) == 0 : manager.internal_remove(x));
    }
    /// What a handler does: mostly nothing. A periodic timeout goes on unless it did something with it.
    void handle(Timeout& x, bool reschedule) {
        const int64_t due = pending[&x];
        forget(x);
        handed_out.insert(&x);
        Timeout& other = up_to(3) ? x : any();
        const int act = up_to(400);
        if (act == 0) manager.terminate(), pending.clear(), handed_out.clear();
        if (act > 300) submit_any(other);
        if (act > 0 && act < 50) remove(other);
        if (act % 10 == 0) step();
        if (act % 10 == 1) clock.advance(up_to(50) - 20);
        const bool goes_on = handed_out.count(&x) && x.period > 0;
        if (goes_on) handed_out.erase(&x), pending[&x] = due + x.period;
        ASSERT_TRUE(!reschedule || manager.reschedule_periodic_timeout(x) == goes_on);
        ASSERT_TRUE(!reschedule || up_to(10) || manager.next_timeout() == first().second);
    }
    /// All of a pass, or at most so many one by one.
    void take(bool in_pass, int most) {
        std::optional<Timeout_manager::Pass> pass;
        if (in_pass) pass = manager.begin_pass(), look();
        const int64_t begin = now();
        for (pass_over = false; in_pass || most > 0; --most) {
            const auto& [ms, expected] = first(held_back);
            Timeout* const due = pass ? manager.expired_timeout(*pass) : manager.expired_timeout();
            if (!pass) look();
            ASSERT_EQ(due, (pass ? pass_over || ms > begin : ms > now()) ? nullptr : expected);
            if (!due) break;
            ASSERT_TRUE(!pass || pass->remaining_ms() == ms - begin || ms - begin < INT_MIN);
            if (pass) ran.insert(due);
            handle(*due, !pass || up_to(2)); // else it is rescheduled with the next step
        }
        ran.clear(), held_back.clear();
    }

    std::mt19937 random{20260401};
    Manual_clock clock{-3}; // some are due before 1970
    std::optional<Clock_watch> watch;
    std::vector<Timeout> all{400};
    Timeout_manager manager;
    int64_t offset = 0, noticed = 0;     // [ms] by which the clock was set
    std::map<Timeout*, int64_t> pending; // when it is due, by a clock that nobody sets [ms]
    std::set<Timeout*> handed_out, ran, held_back;
    bool pass_over = false;
};

TEST_P(Random_use, agrees_with_a_list) {
    if (GetParam() == watched) watch.emplace(Diner_info_list::get());
    for (int round = 0; round < 6000 && !HasFatalFailure(); ++round) {
        SCOPED_TRACE(round);
        for (int i = up_to(20) ? 1 : up_to(300); i > 0; --i) up_to(10) < 7 ? submit_any(any()) : remove(any());
        if (round % 2) take(false, up_to(20));
        if (round % 4 == 0) take(true, 0);
        Timeout& x = any();
        const bool is_pending = pending.count(&x);
        ASSERT_VALUES(texts(is_pending, is_pending || handed_out.count(&x)), manager.submitted(x), x.in_tree());
        ASSERT_EQ(x.ms(), is_pending ? pending[&x] + noticed : x.ms());
        Atime expiry(false);
        ASSERT_EQ(manager.next_expiry(expiry) ? Timeout::ms_of(expiry) - noticed : INT64_MAX, first().first);
        clock.advance(up_to(10));
        if (up_to(10) == 0) step();
    }
}

INSTANTIATE_TEST_SUITE_P(With_steps_of_the_clock, Random_use, testing::Values(not_at_all, told, watched));

// With a clock of the test's own: what a real kernel does is in kernel/clock_test.cpp.

TEST(Clock_watch, begins_with_the_clock_as_it_is_tells_each_step_once_and_wakes_every_diner) {
    Manual_clock clock{100000000}; // fifty years ahead there is a clock as well
    Timeout periodic;
    periodic.period = 100;
    Test_diner<> sleeper;
    sleeper.begin(false, true);
    std::optional<Clock_watch> watch;
    for (int i = 0; i < 3; ++i) {
        watch.reset();
        clock.step(hour); // nobody watches
        sleeper.submit_timeout(periodic, 100);
        watch.emplace(Diner_info_list::get());
        EXPECT_EQ(periodic.remaining_ms(), 100);
    }
    { const Clock_watch other(Diner_info_list::get()); } // its end is not the last one's
    waiter_descriptor told;
    told.init(&Diner_info_list::get());
    EXPECT_VALUES("0 -1", watch->register_waiter(&told), watch->register_waiter(&told));
    const std::pair<int64_t, const char*> steps[] = {{hour, "forward by 3600.000"},
                                                     {-fifty_years - 7, "back by 1577880000.007"},
                                                     {-999, "back by 0.999"},
                                                     {2000000000000, "forward by 2000000000.000"}};
    int woken = 3; // by the submissions
    for (const auto& [ms, text] : steps) {
        clock.step(ms);
        EXPECT_EQ(debug_text([&] { EXPECT_VALUES("true false", watch->check(), watch->check()); }),
                  std::string("Clock_watch: the clock was set ") + text + " s, timeouts move along\n");
        Diner_info_list::get().clock_stepped(1000, 0); // who still calls it by hand does no harm
        woken += 2;
        EXPECT_VALUES(texts(ms, 100), watch->last_step_ms(), periodic.remaining_ms());
        EXPECT_TRUE(wait_until([&] { return sleeper.events == woken; }));
    }
    waiter_event e;
    EXPECT_VALUES(texts(4, 1, 0, watch->module_id(), Clock_watch::event_set), watch->steps(), told.num_queued(),
                  told.get_event(&e, Atime::now()), e.module_id, e.id);
    EXPECT_VALUES("0 -1", watch->deregister_waiter(&told), watch->deregister_waiter(&told));
    clock.advance(hour); // a night goes by
    EXPECT_FALSE(watch->check());
}

} // namespace
