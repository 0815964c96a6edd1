// SPDX-License-Identifier: MIT
//
// From the write of a byte at the far end of a pseudo-terminal to the handler of the near end: a diner that polls the
// line itself, a diner behind a reader thread, a plain thread that reads and handles, and a QSocketNotifier in a thread
// with a loop of Qt. First on idle cores, then beside one busy thread for each core. The contenders take turns, and all
// their samples are put together: median, p99, worst [us].
#include "glue/data_stream/Posix_polled_data_stream.h"
#include "glue/data_stream/Posix_threaded_data_stream.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QThread>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <pty.h>
#include <random>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

/// When the byte was sent and how long each took. Its handler runs on one thread at a time.
struct Samples {
    void handled() {
        const auto took = Clock::now() - sent;
        us.push_back(std::chrono::duration<double, std::micro>(took).count());
        count.store(static_cast<int>(us.size()), std::memory_order_release);
    }
    double part(double p) {
        const auto at = us.begin() + static_cast<long>(p * static_cast<double>(us.size() - 1));
        std::nth_element(us.begin(), at, us.end());
        return *at;
    }
    Clock::time_point sent;
    std::vector<double> us;
    std::atomic<int> count{0};
};

/// What listens to the line at `path` until it goes.
using Listener = std::shared_ptr<void>;

struct Polled : Diner::Protection {
    Polled(Samples& s, const char* path) : samples(s) {
        line.init(Diner_info_list::get());
        line.attach(&waiter);
        if (!line.open(path)) exit(1);
        init(Diner_info_list::get(), Descriptor("POLLED", 0));
        start();
    }
    ~Polled() override { terminate(true); }
    void handle_event(waiter_event&) override {
        for (; line.bytes_avail() > 0; line.drop(1)) samples.handled();
    }
    void handle_timeout(Timeout&) override {}
    using Diner::handle_timeout;
    Samples& samples;
    Posix_polled_data_stream line;
};

struct Threaded : Diner::Protection {
    Threaded(Samples& s, const char* path) : samples(s) {
        init(Diner_info_list::get(), Descriptor("READER", 0));
        start();
        line.init(Diner_info_list::get());
        line.register_waiter(&waiter);
        line.open(path, false, false);
    }
    ~Threaded() override {
        line.deregister_waiter(&waiter);
        terminate(true);
    }
    void handle_event(waiter_event&) override {
        for (; line.bytes_avail() > 0; line.drop(1)) samples.handled();
    }
    void handle_timeout(Timeout&) override {}
    using Diner::handle_timeout;
    Samples& samples;
    Posix_threaded_data_stream line;
};

/// A thread that reads blocking and handles what it has read; 'q' ends it.
struct Plain {
    Plain(Samples& s, const char* path) : fd(::open(path, O_RDWR | O_NOCTTY)) {
        thread = std::thread([this, &s] {
            for (char c; read(fd, &c, 1) == 1 && c != 'q';) s.handled();
        });
    }
    ~Plain() {
        thread.join();
        close(fd);
    }
    int fd;
    std::thread thread;
};

struct Notifier {
    Notifier(Samples& s, const char* path) : fd(::open(path, O_RDWR | O_NOCTTY | O_NONBLOCK)) {
        thread = std::thread([this, &s] {
            QEventLoop loop;
            QSocketNotifier readable(fd, QSocketNotifier::Read);
            QObject::connect(&readable, &QSocketNotifier::activated, [&] {
                for (char c; read(fd, &c, 1) == 1;) c == 'q' ? loop.quit() : s.handled();
            });
            loop.exec();
        });
    }
    ~Notifier() {
        thread.join();
        close(fd);
    }
    int fd;
    std::thread thread;
};

struct Contender {
    const char* name;
    std::function<Listener(Samples&, const char*)> listen;
    Samples samples;
};

template <class T>
std::unique_ptr<Contender> contender(const char* name) {
    auto c = std::make_unique<Contender>();
    c->name = name;
    c->listen = [](Samples& s, const char* path) { return std::make_shared<T>(s, path); };
    return c;
}

/// One turn: a line of its own, and bytes at intervals that follow no clock.
void take_turn(Contender& c, int bytes, std::mt19937& random) {
    int master, slave;
    char path[64];
    struct termios raw = {};
    cfmakeraw(&raw);
    if (openpty(&master, &slave, path, &raw, nullptr) != 0) exit(1);
    {
        const Listener listener = c.listen(c.samples, path);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        for (int i = 0; i < bytes; ++i) {
            const int before = c.samples.count;
            std::this_thread::sleep_for(std::chrono::microseconds(300 + random() % 700));
            c.samples.sent = Clock::now();
            if (write(master, "x", 1) != 1) exit(1);
            while (c.samples.count.load(std::memory_order_acquire) == before)
                std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
        if (write(master, "q", 1) != 1) exit(1);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    close(slave);
    close(master);
}

} // namespace

/// Argument: turns of 250 bytes for each contender, 12 by default.
int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const int turns = argc > 1 ? atoi(argv[1]) : 12;
    if (turns <= 0) {
        fputs("usage: latency_bench [turns of 250 bytes each (12)]\n", stderr);
        return 2;
    }
    std::mt19937 random(1);
    for (const bool busy : {false, true}) {
        std::atomic<bool> stop{false};
        std::vector<std::thread> hogs;
        for (unsigned i = 0; busy && i < std::thread::hardware_concurrency(); ++i)
            hogs.emplace_back([&] {
                while (!stop) {
                }
            });
        std::unique_ptr<Contender> all[] = {
            contender<Polled>("diner that polls"), contender<Threaded>("diner behind a reader thread"),
            contender<Plain>("plain reader thread"), contender<Notifier>("QSocketNotifier")};
        for (int turn = 0; turn < turns; ++turn) {
            std::shuffle(std::begin(all), std::end(all), random);
            for (auto& c : all) take_turn(*c, 250, random);
        }
        std::sort(std::begin(all), std::end(all),
                  [](auto& a, auto& b) { return a->samples.part(0.5) < b->samples.part(0.5); });
        printf("%s\n", busy ? "beside busy cores" : "idle cores");
        for (auto& c : all)
            printf("  %-30s median %6.1f us  p99 %7.1f us  worst %8.1f us\n", c->name, c->samples.part(0.5),
                   c->samples.part(0.99), c->samples.part(1));
        stop = true;
        for (auto& h : hogs) h.join();
    }
}
