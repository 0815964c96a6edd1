// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/Data_stream.h"
#include "support/capture.h"
#include <numeric>
#include <pty.h>
#include <termios.h>

/// A pseudo-terminal: the test holds the master end, what is tested opens the other one by its path.
struct Pty {
    Pty() {
        struct termios raw = {};
        cfmakeraw(&raw);
        int slave = -1;
        if (openpty(&master, &slave, nullptr, &raw, nullptr) != 0) abort();
        path = ptsname(master);
        ::close(slave);
    }
    ~Pty() { hang_up(); }
    Pty(const Pty&) = delete;

    speed_t speed() const {
        struct termios settings;
        tcgetattr(master, &settings);
        return cfgetospeed(&settings);
    }
    void hang_up() { ::close(std::exchange(master, -1)); }
    void send(const std::string& bytes) const {
        if (::write(master, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) abort();
    }
    /// Exactly `n` bytes, or what came before the other end was closed.
    std::string receive(size_t n) const {
        std::string all;
        char byte;
        while (all.size() < n && ::read(master, &byte, 1) == 1) all += byte;
        return all;
    }

    int master = -1;
    std::string path;
};

/// Numbers that a folder of the system lists: "/proc/self/fd" the open descriptors, "/proc/self/task" the threads.
inline std::vector<int> numbers_in(const char* folder) {
    std::vector<int> all;
    for (const auto& e : std::filesystem::directory_iterator(folder)) all.push_back(std::stoi(e.path().filename()));
    return all;
}
inline size_t num_descriptors() { return numbers_in("/proc/self/fd").size(); }
inline size_t num_threads() { return numbers_in("/proc/self/task").size(); }

/// Bytes `first` to `first` + n - 1 of an endless row.
inline std::string row(size_t n, size_t first = 0) {
    std::string s(n, 0);
    std::iota(s.begin(), s.end(), static_cast<char>(first));
    return s;
}

inline unsigned put(Data_stream& s, const std::string& bytes) {
    return s._write(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<unsigned>(bytes.size()));
}

/// Take `n` bytes; empty when they do not come.
inline std::string take(Data_stream& s, unsigned n) {
    std::string bytes(n, 0);
    return s.get_data(reinterpret_cast<unsigned char*>(&bytes[0]), n) && s.drop(n) ? bytes : "";
}
/// Take what is buffered.
inline std::string take(Data_stream& s) { return take(s, static_cast<unsigned>(s.bytes_avail())); }

/// The debugging name that a stream should have, cut as it is.
inline std::string stream_name(const char* type, const Data_stream& s, const std::string& rest) {
    return text_of("%s(%p%s)", type, static_cast<const void*>(&s), rest.c_str()).substr(0, Data_stream::name_size - 1);
}
