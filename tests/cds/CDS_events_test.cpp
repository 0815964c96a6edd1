// SPDX-License-Identifier: MIT
#include "cds/Block_fixture.h"
#include "support/test.h"

namespace {

class Events : public testing::Test {
protected:
    Events() { head.lock(); }
    ~Events() override { head.unlock(); }

    int reg(int offset, int length, int value) { return reg(head, offset, length, value); }
    int reg(CDS::Head& h, int offset, int length, int value) {
        return h.event_register(&inbox.waiter, offset, length, CDS::reg_value, value, nullptr, nullptr);
    }
    int unreg(int offset, int length, int value) {
        return head.event_unregister(&inbox.waiter, offset, length, CDS::reg_value, value, nullptr, nullptr);
    }
    /// Who is woken by a signal without copies.
    std::string woken(int offset, int length) { return woken(head, offset, length); }
    std::string woken(CDS::Head& h, int offset, int length, CDS::Options* options = nullptr) {
        h.event_signal(nullptr, nullptr, offset, length, options);
        return inbox.targets();
    }

    module_man modules;
    Inbox inbox{modules}; // outlives its registrations
    CDS::Head head{&modules, 0};
};

TEST_F(Events, Ranges_nest_whatever_the_order_of_registration) {
    const int ranges[][3] = {{0, 8, 1}, {2, 2, 2}, {8, 8, 3}, {0, 32, 4}, {2, 1, 5}, {20, 4, 6}};
    const struct {
        int offset, length;
        const char* woken;
    } table[] = {{2, 2, "4125"}, {2, 1, "4125"},    {0, 8, "4125"},    {4, 2, "41"}, {8, 2, "43"}, {0, 16, "41253"},
                 {18, 8, "46"},  {0, 32, "412536"}, {0, 64, "412536"}, {40, 2, ""},  {1, 2, "41"}};
    // So many heads that memory which one of them kept would be missed.
    std::vector<int> order = {0, 1, 2, 3, 4, 5};
    do {
        CDS::Head own(&modules, 0);
        const std::lock_guard<Mutex> guard(own);
        for (const int i : order) ASSERT_EQ(reg(own, ranges[i][0], ranges[i][1], ranges[i][2]), 0);
        for (const auto& row : table) EXPECT_EQ(woken(own, row.offset, row.length), row.woken) << row.offset;
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(Events, Ranges_are_refused_outside_the_block_and_reported_where_they_overlap_partly) {
    const auto said = [&](int offset, int length, int result = 0) {
        return debug_text([&] { EXPECT_EQ(reg(offset, length, offset), result) << offset << ", " << length; });
    };
    const std::string outside = "lies outside the block of ";
    EXPECT_EQ(said(8, -1, -1), "CDS: range of -1 bytes at 8 " + outside + "2147483647 bytes\n");
    EXPECT_EQ(said(100, 10) + said(110, 10) + said(102, 3) + said(90, 50), "") << "side by side, inside, around";
    // Partly overlapping ranges are not supported; pinned so that nobody relies on more.
    EXPECT_EQ(said(95, 10), "CDS: range of 10 bytes at 95 overlaps that of 10 at 100 partly: signals may miss one\n");
    EXPECT_EQ(said(104, 4), "CDS: range of 4 bytes at 104 overlaps that of 3 at 102 partly: signals may miss one\n");
    EXPECT_EQ(woken(104, 1), "90100104");

    Block block;
    const Block_items items(head, block);
    const int size = sizeof block;
    EXPECT_EQ(said(size, 0) + said(size - 1, 1), "");
    for (const auto& [offset, length] :
         {std::pair{size - 1, 2}, std::pair{-1, 2}, std::pair{size + 1, 0}, std::pair{1, INT32_MAX}})
        EXPECT_NE(said(offset, length, -1).find(outside + std::to_string(size)), std::string::npos) << offset;
    EXPECT_EQ(woken(size - 1, 2), std::to_string(size - 1) + std::to_string(size));
}

TEST_F(Events, Copies_decide_who_is_woken) {
    for (const int at : {0, 2, 6}) reg(at, at ? 2 : 8, at);
    const struct {
        int differing, offset, length;
        const char* woken;
    } table[] = {{6, 0, 8, "06"}, {2, 0, 8, "02"}, {0, 0, 8, "0"}, {8, 0, 8, ""},
                 {3, 2, 4, "02"}, {4, 2, 4, "0"},  {4, 0, 2, ""}};
    for (const auto& row : table) {
        unsigned char now[9] = {}, before[9] = {};
        before[row.differing] = 1;
        const long start = allocations();
        head.event_signal(now + row.offset, before + row.offset, row.offset, row.length, nullptr);
        EXPECT_EQ(allocations(), start);
        EXPECT_EQ(inbox.targets(), row.woken) << row.differing;
    }
}

TEST_F(Events, A_registration_counts_as_often_as_it_was_made) {
    EXPECT_EQ(unreg(2, 2, 7), -1);
    reg(2, 2, 7);
    reg(2, 2, 7);
    EXPECT_EQ(woken(2, 2), "77");
    EXPECT_EQ(unreg(2, 2, 8), -1);
    EXPECT_EQ(unreg(2, 1, 7), -1);
    EXPECT_EQ(unreg(2, 2, 7), 0);
    EXPECT_EQ(woken(2, 2), "7");
    CDS::Options options;
    options.set_waiter_to_exclude(&inbox.waiter);
    EXPECT_EQ(woken(head, 2, 2, &options), "") << "a writer leaves itself out";
    Inbox other(modules);
    options.set_waiter_to_exclude(&other.waiter);
    EXPECT_EQ(woken(head, 2, 2, &options), "7");
}

TEST_F(Events, Handles_carry_themselves_as_target) {
    struct Wheel : CDS::Virt_access {
        int number = 3;
    } wheel;
    wheel.access.init(&head, 0, 4);
    CDS::Access_base handle(&head, 0, 4);
    EXPECT_EQ(handle.reg(&inbox.waiter, -5) | handle.autoreg(&inbox.waiter) | wheel.autoreg(&inbox.waiter), 0);
    head.event_signal(nullptr, nullptr, 1, 1, nullptr);

    const std::pair<CDS::Reg_type, event_word_t> expected[] = {
        {CDS::reg_value, static_cast<unsigned>(-5)},
        {CDS::reg_access, reinterpret_cast<event_word_t>(&handle)},
        {CDS::reg_virt_access, reinterpret_cast<event_word_t>(static_cast<CDS::Virt_access*>(&wheel))}};
    for (const auto& [type, target] : expected) {
        waiter_event e;
        ASSERT_EQ(inbox.waiter.get_event(&e, Atime(false)), 0);
        EXPECT_VALUES(texts(target, 0), e.data, e.id) << type;
        for (const auto& other : expected) EXPECT_EQ(head.is_event(e, other.first), other.first == type);
    }
    EXPECT_EQ(handle.unreg(&inbox.waiter, -5) | handle.autounreg(&inbox.waiter) | wheel.autounreg(&inbox.waiter), 0);
    EXPECT_EQ(wheel.autounreg(&inbox.waiter), -1);
}

TEST_F(Events, An_uninitialised_handle_ends_the_process) {
    for (const std::string verb : {"reg", "unreg", "autoreg", "autounreg"}) {
        const Child_result child = run_child([&] {
            CDS::Access_base handle;
            if (verb == "reg") handle.reg(nullptr, 1);
            if (verb == "unreg") handle.unreg(nullptr, 1);
            verb == "autoreg" ? handle.autoreg(nullptr) : handle.autounreg(nullptr);
        });
        EXPECT_EQ(child.signal, SIGABRT);
        EXPECT_EQ(child.out, "BUG: CDS: Tried to " + verb + " with no init\r\n");
    }
}

TEST_F(Events, Registrations_are_bounded_and_a_failed_one_changes_nothing) {
    // Memory given back in growing amounts, until it is enough for a range around others but not for its list.
    std::string text;
    for (int more = 1; more < 20 && text.find("child tree") == std::string::npos; ++more) {
        CDS::Head own(&modules, 0);
        const std::lock_guard<Mutex> guard(own);
        auto reserve = std::make_unique<CDS::Head>(&modules, 0);
        reserve->lock();
        for (int i = 0; i < more; ++i) reg(*reserve, 0, 1, i);
        Capture err(stderr);
        int n = 0;
        while (reg(own, 2 * n, 2, n) == 0) ASSERT_LT(++n, 10000);
        reserve->unlock();
        reserve.reset();
        const int result = reg(own, 0, 8, -1);
        text = err.text();
        const std::string first = text.substr(0, text.find('\n') + 1);
        EXPECT_TRUE(first == "ERROR: Could not get mem CDS node\n" ||
                    first == "ERROR: Could not get memory for CDS des node\n");
        text = text.substr(first.size());
        EXPECT_EQ(result, text.empty() ? 0 : -1);
        EXPECT_EQ(woken(own, 0, 8), result == 0 ? "-10123" : "0123");
        EXPECT_EQ(woken(own, 2 * (n - 1), 2), std::to_string(n - 1));
    }
    EXPECT_EQ(text, "ERROR: Could not get mem CDS child tree\n");
}

TEST_F(Events, A_debug_build_reports_a_call_without_the_lock) {
    head.unlock();
    Capture err(stderr);
    woken(0, 4);
    head.lock();
#ifdef NDEBUG
    EXPECT_EQ(err.text(), "");
#else
    EXPECT_EQ(err.text(), "CDS: event_signal without the head's lock\n");
#endif
}

} // namespace
