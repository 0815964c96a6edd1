// SPDX-License-Identifier: MIT
#pragma once
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

/// A folder that goes with its object.
struct Temporary_folder {
    Temporary_folder() : Temporary_folder(std::filesystem::temp_directory_path()) {}
    explicit Temporary_folder(const std::filesystem::path& parent) {
        std::string pattern = (parent / "kav-test-XXXXXX").string();
        path = mkdtemp(pattern.data());
    }
    ~Temporary_folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    Temporary_folder(const Temporary_folder&) = delete;

    /// Where folders for thousands of saves go: in memory, if the system has such a place.
    static std::filesystem::path quick_place() {
        const std::filesystem::path memory = "/dev/shm";
        return access(memory.c_str(), W_OK) == 0 ? memory : std::filesystem::temp_directory_path();
    }

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
