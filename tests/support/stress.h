// SPDX-License-Identifier: MIT
// For programs that try something many times over, by chance, in children, in the emulated machine.
#pragma once
#include "support/Temporary_folder.h"
#include <cstdint>
#include <functional>
#include <new>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

/// Numbers by chance, the same ones from the same seed.
class Random {
public:
    explicit Random(uint64_t seed) : _x(seed * 0x9E3779B97F4A7C15u + 1) {}
    /// Below n.
    template <class T>
    T operator()(T n) {
        _x ^= _x >> 12, _x ^= _x << 25, _x ^= _x >> 27;
        return static_cast<T>((_x * 2685821657736338717u >> 32) % static_cast<uint64_t>(n));
    }
    std::string bytes(unsigned n, char from = 0, unsigned range = 256) {
        std::string s;
        while (n--) s += static_cast<char>(static_cast<unsigned>(from) + (*this)(range));
        return s;
    }

private:
    uint64_t _x;
};

/// Threads that are waited for at its end, or before.
struct Threads : std::vector<std::thread> {
    ~Threads() { join(); }
    void join() {
        for (auto& t : *this) t.join();
        clear();
    }
};

/// What this process and its children share.
template <class T>
class Shared {
public:
    Shared() : _it(new (mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) T()) {}
    ~Shared() { munmap(_it, sizeof(T)); }
    Shared(const Shared&) = delete;
    T* operator->() const { return _it; }
    T& operator*() const { return *_it; }

private:
    T* const _it;
};

/// Run `body` in a forked child, as a program that has just started: what it returned, or -N when signal N ended it.
/// `meanwhile` gets the child's number.
int in_child(const std::function<int()>& body, const std::function<void(pid_t)>& meanwhile = nullptr,
             unsigned limit_s = 600);

/// The number that follows `key` in what the system tells of a thread of this process.
inline long told_of(int thread, const char* file, const std::string& key = "\n") {
    const std::string text = "\n" + read_file("/proc/self/task/" + std::to_string(thread) + "/" + file);
    return std::stol(text.substr(text.find(key) + key.size()));
}
