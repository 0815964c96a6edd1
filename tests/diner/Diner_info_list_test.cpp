// SPDX-License-Identifier: MIT
#include "support/Test_diner.h"
#include "support/test.h"

namespace {

/// What `print(to_debug)` writes, which is the same on either output.
template <class Print>
std::string printed(Print print) {
    Capture out(stdout);
    print(false);
    const std::string text = out.text();
    EXPECT_EQ(debug_text([&] { print(true); }), text);
    return text;
}

/// Of the file that a Capture puts in its place.
off_t size_of_stderr() { return lseek(STDERR_FILENO, 0, SEEK_END); }

/// A diner whose state is set by the test, with a record that fills what is left of its row.
struct Posing_diner : Test_diner<> {
    struct Appending : Diner_info {
        using Diner_info::Diner_info;
        void append_print_info(const char* text, int room) const override {
            snprintf(const_cast<char*>(text), static_cast<size_t>(room), "%s", std::string(300, '+').c_str());
        }
    };
    Posing_diner(const char* name, int s, bool pending) : Test_diner(name) {
        descriptor = own, state = s, _start_pending = pending;
    }
    ~Posing_diner() override { state = state_uninit, _start_pending = false; }
    Appending row{*this};
};

TEST(Diner_info, prints_its_row_and_what_a_derived_record_appends) {
    using Counts = std::pair<uint32_t, uint32_t>; // of events and timeouts
    const std::tuple<const char*, int, bool, unsigned char, Counts, const char*, bool, std::string> cases[] = {
        // name, cut to twelve, state, start pending, activity, counts, checkpoint's file, with its path, row
        {"twelve_chars_", 1, true, 1, {12, 3}, "x/Diner", false, "twelve_chars Stoping-1 Evt       12       3 Diner"},
        {"a", 2, false, 2, {123456789, 12345678}, "x/y", true, "        a  Stop-0 Tmt 123456789 12345678 x/y"},
        {"a", 3, false, 0, {4294967295u, 0}, "plain", false, "        a Uninit-0 Idl       -1       0 plain"},
        {"a", 5, false, 0, {0, 0}, "x/y", true, "        a Unknown-0 Idl        0       0 x/y"}};
    for (const auto& [name, state, pending, activity, counts, file, full_path, row] : cases) {
        Posing_diner d(name, state, pending);
        d.row.activity = activity, d.row.event_count = counts.first, d.row.timeout_count = counts.second;
        d.row.checkpoint(file, 80);
        EXPECT_EQ(printed([&, path = full_path](bool to_debug) { d.row.print(to_debug, path); }),
                  row + ":80\n" + std::string(251 - row.size(), '+'));
    }
}

TEST(Diner_info_list, shows_and_reaches_the_diners_in_the_order_of_their_start) {
    Diner_info_list& list = Diner_info_list::get();
    Test_diner<> a("first"), b("second"), c("gone");
    c.begin();
    c.terminate(true);
    for (auto* d : {&a, &b}) {
        d->begin();
        ASSERT_TRUE(wait_until([&] { return d->info.checkpoint_line == 80; }));
    }
    EXPECT_EQ(printed([&](bool to_debug) { list.print(to_debug, true); }),
              "\nId      Name State Run   EventCnt ToutCnt Checkpoint\n"
              " 0     first   Run-0 Idl        0       0 glue/diner/Diner:80\n"
              " 1    second   Run-0 Idl        0       0 glue/diner/Diner:80\n");
    for (int index : {-1, 2, 1000000}) list.set_debug_level(index, 99);
    list.set_debug_level(1, 7);
    EXPECT_VALUES("0 7", a.info.debug_level, b.info.debug_level);
    const std::string alive = "  first (Run)\n  second (Run)\n",
                      stuck = alive + "Testing     first.. Ok\nTesting    second";
    Capture err(stderr);
    EXPECT_EQ(list.print_alive(), 2);
    b.lock(-1);
    std::thread tester([&] { list.test_lock(); });
    EXPECT_TRUE(wait_until([&] { return size_of_stderr() == off_t(stuck.size()); })) << "open until it is let go";
    b.unlock();
    tester.join();
    EXPECT_EQ(err.text(), stuck + ".. Ok\n");
}

TEST(Diner_info_list, tells_how_long_handlers_take_and_events_and_timeouts_wait) {
    Manual_clock clock;
    Timeout t;
    Test_diner<> d("slow");
    d.on_event = [&](waiter_event& e) {
        clock.advance(e.id);
        EXPECT_EQ(d.info.handler_age_ns(), e.id ? e.id * 1000000 : 1);
    };
    d.on_timeout = [&](Timeout&) { clock.advance(9); };
    const auto has_handled = [&d](unsigned n) {
        return wait_until([&] { return d.info.handler_time.values().count == n && d.info.handler_age_ns() == 0; });
    };
    d.begin();
    // Of those that wait behind the first, the 64th behind it stands for its like.
    d.lock_gate.shut();
    d.post(3);
    ASSERT_TRUE(d.lock_gate.reached());
    for (int i = 2; i <= 70; ++i) d.post(0);
    EXPECT_EQ(d.info.handler_age_ns(), 0);
    clock.advance(5);
    d.lock_gate.open();
    ASSERT_TRUE(has_handled(70));
    d.submit_timeout(t, -20);
    ASSERT_TRUE(has_handled(71));
    // Of waits: the first, the second, which was the first again when the diner had looked, and the 64th behind that.
    const std::string heading =
        "\nId      Name Handl[us] Worst[us]  Wait[us] Worst[us] Late[ms]    Queue\n 0      slow";
    const auto print = [](bool to_debug) { Diner_info_list::get().print_figures(to_debug); };
    EXPECT_EQ(printed(print), heading + "     169.0    9000.0    7954.5    8000.0       20       69\n");
    Diner_info_list::get().reset_figures();
    d.post(7);
    ASSERT_TRUE(has_handled(1));
    EXPECT_EQ(printed(print), heading + "    7000.0    7000.0       0.0       0.0        0        1\n");
}

TEST(Diner_info_list, forgets_a_diner_that_is_ended_during_its_init) {
    const Capture tested(stderr);
    Test_diner<> other, d;
    other.begin(true);
    other.lock(-1);
    std::thread tester([] { Diner_info_list::get().test_lock(); }); // holds the list from its first letter on
    EXPECT_TRUE(wait_until([] { return size_of_stderr() > 0; }));
    std::thread starter([&d] { d.begin(true); });
    EXPECT_TRUE(d.in_state(Diner::state_stop));
    d.terminate(true);
    other.unlock();
    starter.join();
    tester.join();
    EXPECT_VALUES("true 1", d.terminated(), Diner_info_list::get().print_alive());
}

/// A process returns from main with a diner that runs, one that is parked and one that is stuck in its handler.
TEST(Diner_info_list, ends_every_diner_at_the_end_of_the_process_and_tells_who_is_late) {
    const auto begin = std::chrono::steady_clock::now();
    const std::string line = "1 out of 1 diners still alive\n";
    const Child_result r = run_child([&line] {
        // What outlives main; the stuck one without a lock: with one, terminate() would give up.
        static auto &running = *new Test_diner<>, &parked = *new Test_diner<>;
        static auto& stuck = *new Test_diner<Diner>;
        running.begin();
        parked.begin(true);
        // Until the second message. A process that did not wait would not live to see it.
        stuck.on_event = [n = off_t(2 * line.size())](auto&) { wait_until([n] { return size_of_stderr() >= n; }); };
        stuck.begin();
        stuck.post(1);
        wait_until([] { return stuck.info.activity == Diner_info::activity_event; });
    });
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1500)) << "not before the 16th pass";
    EXPECT_EQ(r.end().substr(0, 2 + 2 * line.size()), "0 " + line + line);
}

} // namespace
