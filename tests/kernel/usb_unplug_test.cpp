// SPDX-License-Identifier: MIT
// A serial line on a USB bus, both ends of it in the kernel: what the kernel says when it is unplugged, and what the
// threaded stream makes of that. 100 times, with --few 12 and with --nightly 1000.
#include "glue/data_stream/Posix_threaded_serial_data_stream.h"
#include "kernel/Guest.h"
#include "support/Pty.h"
#include <poll.h>
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

/// A line set raw by hand.
struct Raw {
    explicit Raw(const std::string& path, int flags = O_NONBLOCK)
        : fd(open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | flags)) {
        termios t;
        tcgetattr(fd, &t);
        cfmakeraw(&t);
        tcsetattr(fd, TCSANOW, &t);
    }
    ~Raw() { close(fd); }
    Raw(const Raw&) = delete;
    const int fd;
};

std::string error_of(ssize_t result) { return result < 0 ? strerrorname_np(errno) : std::to_string(result); }

TEST(Usb_line, unplugged_gives_these_answers) {
    plug_in();
    const std::string path = host_end();
    const Raw line(path), blocking(path, 0);
    char byte = 0, other = 0;
    std::string blocked_read;
    pollfd p = {line.fd, POLLIN, 0};
    std::thread reader([&] { blocked_read = error_of(read(blocking.fd, &other, 1)); });
    std::thread poller([&] { poll(&p, 1, -1); });
    usleep(200000); // both wait by then, most likely; if not, they find the same
    unplug();
    reader.join(), poller.join();
    termios t;
    EXPECT_EQ(p.revents, POLLIN | POLLHUP | POLLERR);
    EXPECT_VALUES("0 0 EIO EIO ENOENT", blocked_read, error_of(read(line.fd, &byte, 1)),
                  error_of(write(line.fd, &byte, 1)), error_of(tcgetattr(line.fd, &t)),
                  error_of(open(path.c_str(), O_RDWR)));
    plug_in();
    EXPECT_NE(host_end(), path) << "as long as somebody holds the old descriptor its number is taken";
}

/// Text of which every part tells where it is from.
std::string pattern(int cycle, size_t size) {
    std::string text;
    while (text.size() < size) text += std::to_string(cycle) + ":" + std::to_string(text.size()) + "\n";
    return text.substr(0, size);
}

/// The far end sends, and reads what comes only if it `reads`, until it is unplugged.
void be_far(std::unique_ptr<Raw> far, const std::string& all, bool reads) {
    char sink[256];
    pollfd gone = {far->fd, 0, 0};
    for (size_t sent = 0; poll(&gone, 1, 1) == 0;) {
        const ssize_t n = write(far->fd, &all[sent], std::min<size_t>(all.size() - sent, 100));
        if (n > 0) sent += static_cast<size_t>(n);
        while (reads && read(far->fd, sink, sizeof sink) > 0) {
        }
    }
}

TEST(Usb_line, unplugged_and_plugged_in_again_and_again) {
    module_man mm;
    waiter_descriptor told;
    told.init(&mm);
    const Capture refusals(stderr);
    Posix_threaded_serial_data_stream s;
    s.init(mm);
    s.register_line_waiter(&told);
    s.set_open_failure_fatal(false);
    plug_in();
    wait_until([] { return host_end() == "/dev/ttyACM0"; });
    ASSERT_TRUE(s.open(host_end().c_str()));
    const std::vector<int> threads = numbers_in("/proc/self/task");
    const int reader = *std::max_element(threads.begin(), threads.end());
    const auto ran_us = [reader] { return told_of(reader, "schedstat") / 1000; };
    size_t descriptors = 0, bytes = 0;
    int elsewhere = 0, in_write = 0, in_open = 0;
    long idle_us = 0;

    const int cycles = Guest::rounds(100);
    for (int i = 0; i < cycles && !HasFailure(); ++i) {
        SCOPED_TRACE(i);
        const uint32_t before = s.hang_ups();
        if (i == 1) descriptors = num_descriptors(); // the reader has opened its own by now
        // Both ends send; the far one does not always read, so that a write gets stuck.
        const bool stuck = i % 4 == 3, opening = i % 4 == 1;
        auto far = std::make_unique<Raw>("/dev/ttyGS0"); // raw before a byte comes: it would be echoed
        std::thread sender([&] { be_far(std::move(far), pattern(i, 4000), !stuck); }); // what the stream has room for
        std::atomic<unsigned> written{0};
        std::thread writer([&] { written = put(s, std::string(stuck ? 200000 : 100, 'w')); });
        std::string got; // somebody reads, up to the middle of a line, or nobody does
        EXPECT_TRUE(wait_until([&] {
            if (i % 3) got += take(s);
            return got.size() + size_t(s.bytes_avail()) >= 1000;
        }));
        if (opening) {
            writer.join(), ++in_open;
            std::thread opener([&] {
                for (int k = 0; k < 20; ++k) s.open("/dev/ttyACM0");
            });
            unplug();
            opener.join();
        } else {
            unplug();
            EXPECT_TRUE(wait_until([&] { return s.hang_ups() == before + 1; }));
            writer.join();
            in_write += written > 100 && written < 200000;
            if (i % 10 == 0) { // nobody looks after it for a second
                const long start = ran_us();
                sleep(1);
                idle_us = std::max(idle_us, ran_us() - start);
            }
            EXPECT_EQ(s.hang_ups(), before + 1) << "told once";
            got += take(s);
            EXPECT_TRUE(got == pattern(i, got.size())) << "a byte was invented or left out";
            bytes += got.size();
        }
        sender.join();
        if (i % 5 != 0) s.close(); // else the old number is taken
        plug_in();
        elsewhere += host_end() != "/dev/ttyACM0";
        EXPECT_TRUE(s.open(host_end().c_str()));
        s.drop(static_cast<unsigned>(s.bytes_avail()));
        told.flush_events();
    }
    EXPECT_VALUES(texts(descriptors, threads.size()), num_descriptors(), num_threads());
    EXPECT_LT(idle_us, 200000) << "it spins";
    printf(
        "%d times unplugged, %u told; %d of them in a write that was stuck, %d around an open, %d times it came back "
        "under another name; %zu bytes compared; in a second without a line the reader ran %ld us\n",
        cycles, s.hang_ups(), in_write, in_open, elsewhere, bytes, idle_us);
}

} // namespace
