// SPDX-License-Identifier: MIT
// For programs that try something many times over, by chance, in children, in the emulated machine.
#pragma once
#include "support/capture.h"
#include <memory>
#include <random>
#include <sys/mman.h>
#include <thread>

/// Numbers by chance, the same ones from the same seed.
struct Random : std::mt19937_64 {
    using std::mt19937_64::mt19937_64;
    /// Below n.
    template <class T>
    T operator()(T n) {
        return static_cast<T>(std::mt19937_64::operator()() % static_cast<uint64_t>(n));
    }
    std::string bytes(unsigned n, char from = 0, unsigned range = 256) {
        std::string s;
        while (n--) s += static_cast<char>(static_cast<unsigned>(from) + (*this)(range));
        return s;
    }
};

/// Threads that are waited for at its end, or before.
struct Threads : std::vector<std::thread> {
    ~Threads() { join(); }
    void join() {
        for (; !empty(); pop_back()) back().join();
    }
};

/// What this process and its children share.
template <class T>
struct Shared : std::shared_ptr<T> {
    Shared()
        : std::shared_ptr<T>(new (mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
                                 T(),
                             [](T* it) { munmap(it, sizeof(T)); }) {}
};

/// The number that follows `key` in what the system tells of a thread of this process.
inline long told_of(int thread, const char* file, const std::string& key = "\n") {
    const std::string text = "\n" + read_file("/proc/self/task/" + std::to_string(thread) + "/" + file);
    return std::stol(text.substr(text.find(key) + key.size()));
}
