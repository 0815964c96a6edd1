// SPDX-License-Identifier: MIT
// Threads of one's own: a lock around what they share, and a semaphore that wakes whoever takes bytes from a ring.
//
// Prints:
//     two workers counted 200000 bales
//     somebody has the lock: not had within 20 ms
//     room for 5 of 10 bytes
//     received "left right both "
//     nothing more within 30 ms
#include "util/Mutex.h"
#include "util/Ring_buffer.h"
#include "util/Scoped_lock.h"
#include "util/Semaphore.h"
#include <cstdio>
#include <string>
#include <thread>

namespace {

/// What several threads change says which lock guards it: clang's -Wthread-safety finds whoever forgets to take it.
class Bale_counter {
public:
    void count() {
        const Scoped_lock held(_mutex);
        ++_bales;
    }
    int bales() {
        const Scoped_lock held(_mutex);
        return _bales;
    }

private:
    Mutex _mutex;
    int _bales KAV_GUARDED_BY(_mutex) = 0;
};

void count_together() {
    Bale_counter counter;
    const auto work = [&counter] {
        for (int i = 0; i < 100000; ++i) counter.count();
    };
    std::thread one(work), two(work);
    one.join();
    two.join();
    printf("two workers counted %d bales\n", counter.bales());
}

void do_without() {
    Mutex mutex;
    const Scoped_lock held(mutex);
    const auto try_it = [&mutex] {
        if (mutex.try_lock(20)) { // [ms]
            mutex.unlock();
        } else {
            puts("somebody has the lock: not had within 20 ms");
        }
    };
    std::thread(try_it).join();
}

/// Bytes from one thread to another.
class Channel {
public:
    void send(const std::string& text) {
        const auto n = static_cast<uint32_t>(text.size());
        {
            const Scoped_lock held(_mutex);
            const uint32_t taken = _ring.put(reinterpret_cast<const unsigned char*>(text.data()), n);
            if (taken < n) printf("room for %u of %u bytes\n", taken, n);
        }
        _arrived.release(); // who wakes finds the lock free
    }
    /// All that is there, nothing when none comes within 30 ms; or at once, when the bytes went with an earlier token.
    std::string receive() {
        if (!_arrived.try_acquire(3)) return ""; // [10 ms]
        const Scoped_lock held(_mutex);
        std::string all(_ring.used(), 0);
        _ring.peek(0, reinterpret_cast<unsigned char*>(&all[0]), _ring.used()); // a look: the bytes stay
        _ring.clear();
        return all;
    }

private:
    unsigned char _storage[16];
    Mutex _mutex;
    Ring_buffer _ring KAV_GUARDED_BY(_mutex){_storage, sizeof _storage};
    Semaphore _arrived{0, true}; // of several releases one token stays, since all is taken at once
};

} // namespace

int main() {
    count_together();
    do_without();

    Channel channel;
    std::thread([&channel] {
        for (const char* word : {"left ", "right ", "both sides"}) channel.send(word);
    }).join();
    printf("received \"%s\"\n", channel.receive().c_str());
    if (channel.receive().empty()) puts("nothing more within 30 ms");
}
