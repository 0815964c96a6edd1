// SPDX-License-Identifier: MIT
#include "support/Test_diner.h"
#include "support/test.h"
#include "util/Clock_offset.h"
#include "util/Debug_base.h"

namespace {

class Timeouts : public testing::Test {
protected:
    /// Submit `t` to fall due in `ms`.
    int submit(Timeout& t, int ms) {
        const Atime when = Atime::from_now(ms);
        return manager.submit_timeout(t, &when);
    }
    /// Timeouts handled by the next pass of the diner.
    int pass() {
        const int before = diner.timeouts_handled;
        diner.handle_timeout();
        return diner.timeouts_handled - before;
    }

    Manual_clock clock;
    Timeout t[3];
    Timeout_manager manager; // after the timeouts: its end makes them free
    Test_diner<> diner;
};

TEST_F(Timeouts, are_copied_without_their_place_in_a_list) {
    Timeout assigned = Atime::from_now(20);
    EXPECT_VALUES("0 20", t[1].remaining_ms(), assigned.remaining_ms());
    t[0].uid = 5;
    t[0].period = 7;
    ASSERT_EQ(diner.submit_timeout(t[0], 40), 0);
    for (const Timeout& c : {Timeout(t[0]), assigned = t[0]})
        EXPECT_VALUES("40 5 7 true false", c.remaining_ms(), c.uid, c.period, !c.diner, c.submitted());
    EXPECT_TRUE(t[0].submitted());
}

TEST_F(Timeouts, are_withdrawn_by_their_destructor_and_by_that_of_their_diner) {
    for (int ms : {1000, 0}) { // pending, handed out
        auto own = std::make_unique<Timeout>();
        diner.submit_timeout(*own, ms);
        EXPECT_EQ(pass(), ms == 0);
        const void *address = own.get(), *d = static_cast<Diner*>(&diner);
        EXPECT_EQ(debug_text([&] { own.reset(); }), text_of("Destruct %p %p\n", address, d));
        Atime expiry(false);
        EXPECT_EQ(diner.next_timeout(expiry), -1);
    }
    Test_diner<>().submit_timeout(t[0], 1000);
    t[0] = Atime::from_now(10); // would abort in a list
}

TEST_F(Timeouts, end_a_pass_in_spite_of_handlers_that_are_slow_or_submit_in_the_past_and_of_clocks_set_back) {
    t[0].period = 10;
    diner.submit_timeout(t[0], 0);
    diner.on_timeout = [this](Timeout&) { clock.advance(25); };
    for (int handled : {1, 2, 5}) EXPECT_EQ(pass(), handled) << "what falls due meanwhile is left to the next pass";
    t[0].invalidate();
    EXPECT_EQ(pass(), 1) << "the last one";
    diner.on_timeout = [this](Timeout& x) { diner.submit_timeout(x, -1000); };
    for (int handled : {0, 1, 1}) EXPECT_EQ((diner.submit_timeout(t[1], handled ? 0 : 10), pass()), handled);
    diner.on_timeout = [this](Timeout&) { clock.advance(-500); };
    for (Timeout& x : t) diner.submit_timeout(x, -100);
    EXPECT_EQ(pass(), 3);
    std::list<Timeout> made;
    diner.on_timeout = [&](Timeout&) { diner.submit_timeout(made.emplace_back(), -1000); };
    diner.submit_timeout(t[0], 0);
    EXPECT_EQ(pass(), 10001) << "new ones each time";
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
    EXPECT_EQ(run_child([&] { tree.insert(&t[0]); }).out, "BUG: avl_bstree::insert, already in a tree.\r\n");
    manager.remove_timeout(t[0]);
    EXPECT_EQ(tree.insert(&t[0]), 0);
    EXPECT_EQ(debug_text([&] { EXPECT_VALUES("-1 -1", submit(t[0], 0), manager.remove_timeout(t[0])); }),
              refused + refused);
    for (const auto& misuse : {std::function<void()>([&] { t[0] = Atime::now(); }), {[&] { t[0].~Timeout(); }}})
        EXPECT_EQ(run_child(misuse).signal, SIGABRT);
    EXPECT_VALUES(texts(&t[0], 0, 0), tree.first(), tree.integrity(), tree.remove(&t[0]));
}

TEST_F(Timeouts, are_listed_by_every_operation_under_their_category) {
    t[0].uid = 3;
    t[0].period = 250;
    const void* address = &t[0];
    const std::string row = text_of("uid: 3, type: 0, nid: %p, per: 250 till_expiry: -5\r\n", address),
                      alive = "Alive timeouts:\r\n---------------\r\n", dead = "Dead timeouts:\r\n--------------\r\n";
    Debug_filter::add_filter(_JDB::jdb_timeout);
    EXPECT_EQ(debug_text([&] { submit(t[0], -5); }), alive + row + dead + "\r\n");
    EXPECT_EQ(debug_text([&] { manager.next_timeout(); }), alive + row + dead + "\r\n");
    EXPECT_EQ(debug_text([&] { manager.expired_timeout(); }), alive + dead + row + "\r\n");
    EXPECT_EQ(debug_text([&] { diner.submit_timeout(t[0], 0); }), refused) << "no lists";
    EXPECT_EQ(debug_text([&] { manager.remove_timeout(t[0]); }), alive + dead + "\r\n");
    Debug_filter::remove_filter(_JDB::jdb_timeout);
}

TEST_F(Timeouts, misused_end_the_process) {
    const std::tuple<std::function<void()>, const char*, const char*> cases[] = {
        {[&] { t[0] = Atime::now(); }, "Tried to change timeout time while in a list\n",
         "glue/diner/Timeout:85: Timeout& Timeout::operator=(const Atime&): Assertion"},
        {[&] { t[0] = t[1]; }, "Tried to copy over timeout while in a list\n",
         "glue/diner/Timeout:75: Timeout& Timeout::operator=(const Timeout&): Assertion"},
        {[&] { t[0].set_diner(nullptr), t[0].~Timeout(); }, "Tried to destruct timeout while in a list\n",
         "glue/diner/Timeout:66: Timeout::~Timeout(): Assertion"},
        {[&] { submit(t[1], 0), manager.expired_timeout(), manager.reschedule_periodic_timeout(t[0]); }, "",
         "glue/diner/Timeout_manager:77: bool Timeout_manager::reschedule_periodic_timeout(Timeout&): Assertion"},
        {[&] { t[0].expiry += 10000, clock.advance(1000), diner.handle_timeout(); },
         "Timeout_diner::handle_timeout - not expired yet -10000\n", ""},
    };
    diner.submit_timeout(t[0], 1000);
    for (const auto& [misuse, message, assertion] : cases) {
        const Child_result r = run_child(misuse);
        const size_t told = r.err.find(message), failed = r.err.find(assertion);
        EXPECT_VALUES(texts(SIGABRT, true, true), r.signal, told <= failed, failed < r.err.size()) << r.err;
    }
}

enum Steps { not_at_all, told, watched };

/// The simplest thing that can work. Bursts and trickles, many equal expiries, while the clock is set not at all, with
/// the manager told, or with nothing but its own eyes. What the model keeps does not change with that.
class Random_use : public Timeouts, public testing::WithParamInterface<Steps> {
protected:
    Random_use() {
        if (GetParam() == watched) Util::Clock_offset::watch();
        clock.set(-3); // some are due before 1970
    }
    ~Random_use() override {
        manager.terminate();
        if (GetParam() == watched) Util::Clock_offset::stop_watching();
    }
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
        const int64_t hour = 3600000, fifty_days = 4320000000; // [ms]
        const int64_t to[] = {0, 5, -999, hour, -hour, fifty_days, -fifty_days}, ms = to[up_to(7)] - offset;
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
        if (GetParam() == watched) look();
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
        ran.insert(&x);
        Timeout& other = up_to(3) ? x : any();
        const int act = up_to(400);
        if (act == 0) manager.terminate(), pending.clear(), handed_out.clear();
        if (act > 300) submit_any(other);
        if (act > 0 && act < 50) remove(other);
        if (act % 10 == 0) step();
        const bool goes_on = handed_out.count(&x) && x.period > 0;
        if (goes_on) handed_out.erase(&x), pending[&x] = due + x.period;
        ASSERT_TRUE(!reschedule || manager.reschedule_periodic_timeout(x) == goes_on);
        ASSERT_TRUE(!reschedule || up_to(10) || manager.next_timeout() == first().second);
    }
    void run_a_pass() {
        const int64_t begin = now();
        ran.clear(), held_back.clear();
        auto pass = manager.begin_pass();
        look();
        for (pass_over = false;;) {
            const auto& [ms, expected] = first(held_back);
            Timeout* const due = manager.expired_timeout(pass);
            ASSERT_EQ(due, ms > begin || pass_over ? nullptr : expected);
            if (!due) break;
            handle(*due, up_to(2)); // else it is rescheduled with the next step
        }
    }

    std::mt19937 random{20260401};
    std::vector<Timeout> all{400};
    int64_t offset = 0, noticed = 0;     // [ms] by which the clock was set
    std::map<Timeout*, int64_t> pending; // when it is due, by a clock that nobody sets [ms]
    std::set<Timeout*> handed_out, ran, held_back;
    bool pass_over = false;
};

TEST_P(Random_use, agrees_with_a_list) {
    for (int round = 0; round < 6000 && !HasFatalFailure(); ++round) {
        SCOPED_TRACE(round);
        for (int i = up_to(20) ? 1 : up_to(300); i > 0; --i) up_to(10) < 7 ? submit_any(any()) : remove(any());
        for (int i = round % 2 ? up_to(20) : 0; i > 0; --i) {
            ASSERT_TRUE(up_to(4) || manager.next_timeout() == first().second);
            Timeout* const due = manager.expired_timeout();
            look();
            ASSERT_EQ(due, first().first <= now() ? first().second : nullptr);
            if (due) handle(*due, true);
        }
        if (round % 4 == 0) run_a_pass();
        Timeout& x = any();
        const bool is_pending = pending.count(&x);
        ASSERT_VALUES(texts(is_pending, is_pending || handed_out.count(&x)), manager.submitted(x), x.in_tree());
        ASSERT_TRUE(!is_pending || x.ms() == pending[&x] + noticed) << x.ms();
        Atime expiry(false);
        ASSERT_EQ(manager.next_expiry(expiry), !pending.empty());
        ASSERT_TRUE(pending.empty() || Timeout::ms_of(expiry) == first().first + noticed);
        clock.advance(up_to(10));
        if (up_to(10) == 0) step();
    }
}

INSTANTIATE_TEST_SUITE_P(With_steps_of_the_clock, Random_use, testing::Values(not_at_all, told, watched));

} // namespace
