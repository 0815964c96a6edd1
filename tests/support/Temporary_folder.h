// SPDX-License-Identifier: MIT
#pragma once
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

/// A folder that goes with its object.
class Temporary_folder {
public:
    Temporary_folder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kav-test-XXXXXX").string();
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
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

inline void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}
