// SPDX-License-Identifier: MIT
// A receiver's line is unplugged and plugged in again, each time at another number of the system.
#include "glue/data_stream/Posix_threaded_serial_data_stream.h"
#include "support/Pty.h"
#include "support/stress.h"
#include "support/test.h"

namespace {

constexpr int cycles = 10001;

TEST(Unplug, and_plug_in_again_and_again) {
    module_man mm;
    waiter_descriptor waiter;
    waiter.init(&mm);
    const Temporary_folder folder;
    const std::string link = folder.file("receiver"), spare = folder.file("spare");
    const auto plug_in = [&] {
        auto pty = std::make_unique<Pty>();
        if (symlink(pty->path.c_str(), spare.c_str()) != 0 || rename(spare.c_str(), link.c_str()) != 0) abort();
        return pty;
    };
    const Capture refusals(stderr);
    Posix_threaded_serial_data_stream s;
    s.init(mm);
    s.register_waiter(&waiter);
    s.set_open_failure_fatal(false);
    auto pty = plug_in();
    ASSERT_TRUE(s.open(link.c_str()));
    const int reader = numbers_in("/proc/self/task").back(); // in the order of their beginning
    const auto pauses = [reader] { return told_of(reader, "status", "\nvoluntary_ctxt_switches:"); };
    size_t descriptors = 0, threads = num_threads();

    for (int i = 0; i < cycles; ++i) {
        const std::string message = std::to_string(i);
        pty->send(message);
        std::string got;
        for (waiter_event e; got.size() < message.size() && waiter.get_event(&e, Atime::from_now(20000)) == 0;)
            got += take(s);
        ASSERT_VALUES(texts(message, 6), got, put(s, "answer"));
        if (i == 0) descriptors = num_descriptors(); // the reader's own is open by now

        if (i % 4 == 1) pty->send("never read");
        if (i % 4 == 2) pty = plug_in(); // while the stream is still at the old one
        pty->hang_up();
        if (i % 5000 == 0) // nobody looks after it for a second
            ASSERT_TRUE(wait_until([&, before = pauses()] { return pauses() >= before + 4; }));
        // It is not there yet. (With the link, its number could be another program's by now.)
        ASSERT_FALSE(i % 4 == 3 && unlink(link.c_str()) == 0 && s.open(link.c_str()));
        pty = plug_in();
        ASSERT_TRUE(s.open(link.c_str()));
        take(s);
        waiter.flush_events();
    }
    EXPECT_VALUES(texts(descriptors, threads), num_descriptors(), num_threads());
    const long slept = pauses(), ran_us = told_of(reader, "schedstat") / 1000;
    printf("%d cycles: %u hang-ups noticed; in each the reader slept %.1f times and ran %.0f us\n", cycles,
           s.hang_ups(), double(slept) / cycles, double(ran_us) / cycles);
    EXPECT_LT(slept, 20L * cycles);
    EXPECT_LT(ran_us, 1000L * cycles) << "it spins";
}

} // namespace
