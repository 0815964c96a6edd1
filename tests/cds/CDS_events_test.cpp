// SPDX-License-Identifier: MIT
#include "cds/Block_fixture.h"
#include "support/allocations.h"
#include "support/capture.h"
#include "support/child.h"
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>

namespace {

using Targets = std::vector<long>;

class Events : public testing::Test {
protected:
    Events() { head.lock(); }
    ~Events() override { head.unlock(); }

    int reg(int offset, int length, int value) {
        return head.event_register(&inbox.waiter, offset, length, CDS::reg_value, value, nullptr, nullptr);
    }
    int unreg(int offset, int length, int value) {
        return head.event_unregister(&inbox.waiter, offset, length, CDS::reg_value, value, nullptr, nullptr);
    }
    /// Who is woken by a signal without copies.
    Targets woken(int offset, int length) {
        head.event_signal(nullptr, nullptr, offset, length, nullptr);
        return inbox.targets();
    }

    module_man modules;
    CDS::Head head{&modules, 0};
    Inbox inbox{modules};
};

TEST_F(Events, Ranges_nest_whatever_the_order_of_registration) {
    const int ranges[][3] = {{0, 8, 1}, {2, 2, 2}, {8, 8, 3}, {0, 32, 4}, {2, 1, 5}, {20, 4, 6}};
    std::vector<int> order = {0, 1, 2, 3, 4, 5};
    do {
        module_man own_modules;
        CDS::Head own(&own_modules, 0);
        own.lock();
        Inbox box(own_modules);
        for (int i : order)
            ASSERT_EQ(own.event_register(&box.waiter, ranges[i][0], ranges[i][1], CDS::reg_value, ranges[i][2], nullptr,
                                         nullptr),
                      0);
        const struct {
            int offset, length;
            Targets woken;
        } table[] = {{2, 2, {4, 1, 2, 5}},
                     {2, 1, {4, 1, 2, 5}},
                     {0, 8, {4, 1, 2, 5}},
                     {4, 2, {4, 1}},
                     {8, 2, {4, 3}},
                     {0, 16, {4, 1, 2, 5, 3}},
                     {18, 8, {4, 6}},
                     {0, 32, {4, 1, 2, 5, 3, 6}},
                     {0, 64, {4, 1, 2, 5, 3, 6}},
                     {40, 2, {}}};
        for (const auto& row : table) {
            own.event_signal(nullptr, nullptr, row.offset, row.length, nullptr);
            EXPECT_EQ(box.targets(), row.woken) << row.offset << "," << row.length;
        }
        own.unlock();
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(Events, Copies_decide_who_is_woken) {
    reg(0, 8, 1);
    reg(2, 2, 2);
    reg(6, 2, 3);
    unsigned char now[8] = {}, before[8] = {};
    const struct {
        int differing; ///< byte, -1: none
        Targets woken;
    } table[] = {{6, {1, 3}}, {2, {1, 2}}, {0, {1}}, {-1, {}}};
    for (const auto& row : table) {
        memset(before, 0, sizeof before);
        if (row.differing >= 0) before[row.differing] = 1;
        head.event_signal(now, before, 0, 8, nullptr);
        EXPECT_EQ(inbox.targets(), row.woken) << row.differing;
    }
    // A containing range is woken by any byte of the signalled one.
    before[0] = 1;
    head.event_signal(now, before, 2, 2, nullptr);
    EXPECT_EQ(inbox.targets(), (Targets{1, 2}));
}

TEST_F(Events, Partly_overlapping_ranges_may_be_missed) {
    // Not supported; pinned so that nobody relies on more.
    reg(0, 10, 1);
    reg(5, 10, 2);
    EXPECT_EQ(woken(6, 2), Targets{2});
}

TEST_F(Events, A_registration_counts_as_often_as_it_was_made) {
    EXPECT_EQ(unreg(2, 2, 7), -1);
    reg(2, 2, 7);
    reg(2, 2, 7);
    EXPECT_EQ(woken(2, 2), (Targets{7, 7}));
    EXPECT_EQ(unreg(2, 2, 8), -1);
    EXPECT_EQ(unreg(2, 3, 7), -1);
    EXPECT_EQ(unreg(2, 2, 7), 0);
    EXPECT_EQ(woken(2, 2), Targets{7});
    EXPECT_EQ(unreg(2, 2, 7), 0);
    EXPECT_EQ(unreg(2, 2, 7), -1);
    EXPECT_EQ(woken(2, 2), Targets{});
}

TEST_F(Events, A_writer_can_leave_itself_out) {
    Inbox other(modules);
    reg(0, 4, 1);
    head.event_register(&other.waiter, 0, 4, CDS::reg_value, 2, nullptr, nullptr);
    CDS::Options options;
    options.set_waiter_to_exclude(&inbox.waiter);
    head.event_signal(nullptr, nullptr, 0, 4, &options);
    EXPECT_EQ(inbox.targets(), Targets{});
    EXPECT_EQ(other.targets(), Targets{2});
}

TEST_F(Events, Handles_carry_themselves_as_target) {
    struct Wheel : CDS::Virt_access {
        int number = 3;
    } wheel;
    wheel.access.init(&head, 0, 4);
    CDS::Access_base handle(&head, 0, 4);
    ASSERT_EQ(handle.reg(&inbox.waiter, -5), 0);
    ASSERT_EQ(handle.autoreg(&inbox.waiter), 0);
    ASSERT_EQ(wheel.autoreg(&inbox.waiter), 0);
    head.event_signal(nullptr, nullptr, 1, 1, nullptr);

    const struct {
        CDS::Reg_type type;
        event_word_t target;
    } expected[] = {{CDS::reg_value, static_cast<unsigned>(-5)},
                    {CDS::reg_access, reinterpret_cast<event_word_t>(&handle)},
                    {CDS::reg_virt_access, reinterpret_cast<event_word_t>(static_cast<CDS::Virt_access*>(&wheel))}};
    for (const auto& row : expected) {
        waiter_event e;
        ASSERT_EQ(inbox.waiter.get_event(&e, Atime(false)), 0);
        EXPECT_EQ(e.data, row.target);
        EXPECT_EQ(e.id, 0);
        for (const auto& other : expected) EXPECT_EQ(head.is_event(e, other.type), other.type == row.type);
    }
    EXPECT_EQ(handle.unreg(&inbox.waiter, -5), 0);
    EXPECT_EQ(handle.autounreg(&inbox.waiter), 0);
    EXPECT_EQ(wheel.autounreg(&inbox.waiter), 0);
    EXPECT_EQ(wheel.autounreg(&inbox.waiter), -1);
    EXPECT_EQ(woken(1, 1), Targets{});
}

TEST_F(Events, An_uninitialised_handle_ends_the_process) {
    const struct {
        int (*call)(CDS::Access_base&, waiter_descriptor*);
        const char* verb;
    } table[] = {{[](CDS::Access_base& a, waiter_descriptor* w) { return a.reg(w, 1); }, "reg"},
                 {[](CDS::Access_base& a, waiter_descriptor* w) { return a.unreg(w, 1); }, "unreg"},
                 {[](CDS::Access_base& a, waiter_descriptor* w) { return a.autoreg(w); }, "autoreg"},
                 {[](CDS::Access_base& a, waiter_descriptor* w) { return a.autounreg(w); }, "autounreg"}};
    for (const auto& row : table) {
        const Child_result child = run_child([&] {
            CDS::Access_base handle;
            row.call(handle, &inbox.waiter);
        });
        EXPECT_EQ(child.signal, SIGABRT);
        EXPECT_EQ(child.out, std::string("BUG: CDS: Tried to ") + row.verb + " with no init\r\n");
    }
}

TEST_F(Events, Registrations_are_bounded_and_a_failed_one_changes_nothing) {
    Capture err(stderr);
    int registered = 0;
    while (reg(registered * 2, 2, registered) == 0) ASSERT_LT(++registered, 10000);
    const std::string text = err.text();
    EXPECT_GT(registered, 100);
    EXPECT_TRUE(text == "ERROR: Could not get mem CDS node\n" ||
                text == "ERROR: Could not get memory for CDS des node\n")
        << text;
    EXPECT_EQ(woken(0, 2), Targets{0});
    EXPECT_EQ(woken(2 * (registered - 1), 2), Targets{registered - 1});

    // Taken back, the memory of the registrations serves again; the ranges stay known.
    for (int i = 0; i < registered; ++i) EXPECT_EQ(unreg(i * 2, 2, i), 0);
    for (int i = 0; i < registered; ++i) EXPECT_EQ(reg(i * 2, 2, i), 0);
}

TEST_F(Events, A_range_that_cannot_take_others_in_leaves_them_where_they_are) {
    // Memory given back in growing amounts, until it is enough for the new range but not for its list.
    std::string text;
    for (int more = 1; more < 20 && text.find("child tree") == std::string::npos; ++more) {
        CDS::Head own(&modules, 0);
        own.lock();
        auto reserve = std::make_unique<CDS::Head>(&modules, 0);
        reserve->lock();
        for (int i = 0; i < more; ++i)
            reserve->event_register(&inbox.waiter, 0, 1, CDS::reg_value, i, nullptr, nullptr);
        Capture err(stderr);
        int n = 0;
        while (own.event_register(&inbox.waiter, 2 * n, 2, CDS::reg_value, n, nullptr, nullptr) == 0) ++n;
        reserve->unlock();
        reserve.reset();
        const int result = own.event_register(&inbox.waiter, 0, 8, CDS::reg_value, -1, nullptr, nullptr);
        text = err.text();
        text = text.substr(text.find('\n') + 1);
        EXPECT_EQ(result, text.empty() ? 0 : -1);
        own.event_signal(nullptr, nullptr, 0, 8, nullptr);
        EXPECT_EQ(inbox.targets().size(), result == 0 ? 5u : 4u);
        own.unlock();
    }
    EXPECT_EQ(text, "ERROR: Could not get mem CDS child tree\n");
}

TEST_F(Events, Everything_is_given_back_with_the_head) {
    for (int round = 0; round < 200; ++round) {
        CDS::Head own(&modules, 0);
        own.lock();
        for (int i = 0; i < 20; ++i)
            ASSERT_EQ(own.event_register(&inbox.waiter, i % 5, 40 - i, CDS::reg_value, i, nullptr, nullptr), 0)
                << round;
        own.unlock();
    }
}

TEST_F(Events, A_signal_allocates_nothing) {
    for (int i = 0; i < 50; ++i) reg(i * 4, 4, i);
    unsigned char now[200] = {}, before[200];
    memset(before, 1, sizeof before);
    const long start = allocations();
    head.event_signal(now, before, 0, 200, nullptr);
    head.event_signal(nullptr, nullptr, 40, 4, nullptr);
    EXPECT_EQ(allocations(), start);
    EXPECT_EQ(inbox.targets().size(), 51u);
}

TEST_F(Events, A_debug_build_reports_a_call_without_the_lock) {
    head.unlock();
    Capture err(stderr);
    reg(0, 4, 1);
    head.event_signal(nullptr, nullptr, 0, 4, nullptr);
    unreg(0, 4, 1);
    head.lock();
#ifdef NDEBUG
    EXPECT_EQ(err.text(), "");
#else
    EXPECT_EQ(err.text(), "CDS: event_register without the head's lock\n"
                          "CDS: event_signal without the head's lock\n"
                          "CDS: event_unregister without the head's lock\n");
#endif
}

} // namespace
