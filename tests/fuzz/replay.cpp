// SPDX-License-Identifier: MIT
// Runs a fuzzer's target over the files of folders where libFuzzer is not at hand.
#include "support/Temporary_folder.h"
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    int files = 0;
    for (int i = 1; i < argc; ++i)
        for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
            printf("%s\n", entry.path().c_str());
            fflush(stdout); // the last one named is the one that failed
            const std::string bytes = read_file(entry.path());
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++files;
        }
    printf("%d inputs\n", files);
    return files > 0 ? 0 : 1;
}
