// SPDX-License-Identifier: MIT
// Runs a fuzzer's target over files, and over all files of a folder, where libFuzzer is not at hand.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static int replay(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return 0;
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    printf("%s\n", path.c_str());
    fflush(stdout); // the last one named is the one that failed
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    return 1;
}

int main(int argc, char** argv) {
    int files = 0;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) {
            files += replay(argv[i]);
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) files += replay(entry.path());
    }
    printf("%d inputs\n", files);
    return files > 0 ? 0 : 1;
}
