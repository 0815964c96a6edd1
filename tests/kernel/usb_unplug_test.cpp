// SPDX-License-Identifier: MIT
// A serial line on a USB bus, both ends of it in the kernel, is unplugged from under the threaded stream while bytes
// flow both ways. 100 times, with --few 12 and with --nightly 1000.
#include "glue/data_stream/Posix_threaded_serial_data_stream.h"
#include "kernel/Guest.h"
#include "support/Pty.h"
#include <sys/syscall.h>

namespace {

/// The host's end, as a path, while it is plugged in.
std::string host_end() {
    for (const char* path : {"/dev/ttyACM0", "/dev/ttyACM1"})
        if (access(path, F_OK) == 0) return path;
    return "";
}

void plug_in() {
    Guest::must("modprobe dummy_hcd && modprobe cdc-acm && modprobe g_serial use_acm=1");
    ASSERT_TRUE(wait_until([] { return !host_end().empty(); }));
}

/// Waits until whoever has the far end open lets go of it.
void unplug() {
    ASSERT_EQ(syscall(SYS_delete_module, "g_serial", 0), 0);
    ASSERT_TRUE(wait_until([] { return host_end().empty(); }));
}

TEST(Usb_line, unplugged_and_plugged_in_again_and_again) {
    const Capture refusals(stderr);
    module_man mm;
    Posix_threaded_serial_data_stream s;
    s.init(mm);
    s.set_open_failure_fatal(false);
    plug_in();
    ASSERT_TRUE(s.open(host_end().c_str()));
    const std::vector<int> threads = numbers_in("/proc/self/task");
    const int reader = *std::max_element(threads.begin(), threads.end());
    size_t descriptors = 0;

    const int cycles = Guest::rounds(100);
    for (int i = 0; i < cycles && !HasFailure(); ++i) {
        SCOPED_TRACE(i);
        const uint32_t before = s.hang_ups();
        if (i == 1) descriptors = num_descriptors(); // the reader has opened its own by now
        // The far end sends numbers that tell where they are from, no more than the stream has room for. It does not
        // always read, so that a write gets stuck; sometimes the line is opened when it goes.
        const bool stuck = i % 4 == 3, opening = i % 4 == 1;
        std::string all, got;
        for (int n = 10000 * (i + 1); all.size() < 3000; ++n) all += std::to_string(n) + "\n";
        write_file("/tmp/all", all);
        Guest::sh(std::string("(stty raw -echo; cat /tmp/all >&0; ") +
                  (stuck ? "while stty -g; do usleep 5000; done" : "cat") + ") <>/dev/ttyGS0 >/dev/null 2>&1 &");
        EXPECT_TRUE(wait_until([&] { return s.bytes_avail() > 0; })); // raw by now: it would echo
        std::thread writer([&] {
            put(s, std::string(stuck ? 200000 : 100, 'w'));
            for (int k = 0; opening && k < 20; ++k) s.open("/dev/ttyACM0");
        });
        EXPECT_TRUE(wait_until([&] { // somebody reads, up to the middle of a line, or nobody does
            if (i % 3) got += take(s);
            return opening || got.size() + size_t(s.bytes_avail()) >= 1000;
        }));
        unplug();
        writer.join();
        if (!opening) {
            EXPECT_TRUE(wait_until([&] { return s.hang_ups() == before + 1; }));
            if (i % 10 == 0) { // nobody looks after it for a second
                const long start = told_of(reader, "schedstat");
                sleep(1);
                EXPECT_LT(told_of(reader, "schedstat") - start, 200000000) << "[ns] it spins";
            }
            EXPECT_EQ(s.hang_ups(), before + 1) << "told once";
            got += take(s);
            EXPECT_EQ(got, all.substr(0, got.size())) << "a byte was invented or left out";
        }
        if (i % 5 != 0) s.close(); // else the old number is taken
        plug_in();
        EXPECT_TRUE(s.open(host_end().c_str()));
        s.drop(static_cast<unsigned>(s.bytes_avail()));
    }
    EXPECT_VALUES(texts(descriptors, threads.size()), num_descriptors(), num_threads());
    printf("%d times unplugged, %u told\n", cycles, s.hang_ups());
}

} // namespace
