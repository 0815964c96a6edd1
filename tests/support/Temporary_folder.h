// SPDX-License-Identifier: MIT
#pragma once
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

/// A folder that goes with its object, `quick` for thousands of saves: in memory, if the system has such a place.
struct Temporary_folder {
    enum Kind { ordinary, quick };
    explicit Temporary_folder(Kind kind = ordinary) {
        const bool memory = kind == quick && access("/dev/shm", W_OK) == 0;
        std::string pattern =
            (memory ? "/dev/shm" : std::filesystem::temp_directory_path().string()) + "/kav-test-XXXXXX";
        path = mkdtemp(pattern.data());
    }
    ~Temporary_folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    Temporary_folder(const Temporary_folder&) = delete;

    std::string file(const std::string& name) const { return path + "/" + name; }

    std::string path;
};

inline std::string read_file(const std::string& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

inline void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}
