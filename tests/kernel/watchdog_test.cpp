// SPDX-License-Identifier: MIT
// The kernel's software watchdog, told to say that it would reset the machine in place of doing so.
#include "glue/diner/Supervisor.h"
#include "kernel/Guest.h"
#include "platform/Device_watchdog.h"
#include "support/Test_diner.h"

namespace {

constexpr int limit_s = 3;

/// How often the machine would have been reset.
int resets() { return std::stoi("0" + run_shell("dmesg | grep -c 'Reboot ignored'").out); }

TEST(Watchdog, resets_a_machine_whose_diner_hangs_or_whose_controller_was_killed_and_no_other) {
    Guest::must("modprobe softdog soft_noboot=1");
    Device_watchdog watchdog, second;
    ASSERT_TRUE(watchdog.open("/dev/watchdog", limit_s));
    EXPECT_VALUES(texts(limit_s * 1000, false, EBUSY), watchdog.limit_ms(), second.open(), errno);

    Gate gate;
    Test_diner<> diner("worker");
    diner.on_event = [&](waiter_event&) { gate.pass(); };
    diner.begin();
    Supervisor::Options options;
    options.handler_ms = 1000;
    Supervisor supervisor(options);
    supervisor.add_watchdog(watchdog);
    supervisor.init(Diner_info_list::get());
    sleep(3 * limit_s);
    EXPECT_EQ(resets(), 0) << "it is fed";

    gate.shut();
    diner.post(1);
    EXPECT_TRUE(wait_until([] { return resets() > 0; }));
    gate.open();
    EXPECT_TRUE(wait_until([&] { return !supervisor.in_trouble(); }));
    const int before = resets();
    sleep(2 * limit_s);
    EXPECT_EQ(resets(), before) << "it goes on, and is fed again";

    supervisor.terminate(true);
    EXPECT_TRUE(watchdog.disarm());
    sleep(2 * limit_s);
    EXPECT_EQ(resets(), before) << "an end in good order";

    EXPECT_EQ(in_child([&] { return watchdog.open("/dev/watchdog", limit_s) && watchdog.feed() ? raise(SIGKILL) : 0; }),
              -SIGKILL);
    EXPECT_TRUE(wait_until([&] { return resets() > before; }));
}

} // namespace
