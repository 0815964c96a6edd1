// SPDX-License-Identifier: MIT
// A text file with a CRC-32 behind it: written, read, and refused after one byte of it has changed.
//
// Prints:
//     read "gain = 0.75"
//     Error CRC32 mismatch on checksummed file [...]
//     refused after one byte has changed
//     a text of 1000 bytes: saved, read 1020 bytes
#include "glue/NV_store/Safe_file.h"
#include "glue/data_stream/File_checksummed_data_stream.h"
#include "util/Debug_print.h"
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

bool write_file(const char* path, const std::string& text) {
    File_checksummed_data_stream file;
    if (!file.open_write(path)) return false;
    file._write(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned>(text.size()));
    return file.close_write(); // appends the checksum; without this call there is none
}

bool read_file(const char* path, std::string& text) {
    File_checksummed_data_stream file;
    if (!file.open_read(path)) return false; // verifies the whole file
    text.clear();
    for (; file.bytes_avail(1); file.drop(1)) text += static_cast<char>(file[0]);
    return file.close_read();
}

bool spoil_first_byte(const char* path) {
    FILE* const file = fopen(path, "r+");
    if (!file) return false;
    fputc('G', file);
    return fclose(file) == 0;
}

} // namespace

int main() {
    Debug_print::debug_file = stdout; // where the library says why it refuses
    std::string folder = (std::filesystem::temp_directory_path() / "checksummed-XXXXXX").string();
    if (!mkdtemp(folder.data())) return 1;
    const std::string small = folder + "/gain.txt", large = folder + "/map.txt";

    std::string text;
    if (!write_file(small.c_str(), "gain = 0.75") || !read_file(small.c_str(), text)) return 1;
    printf("read \"%s\"\n", text.c_str());
    if (spoil_first_byte(small.c_str()) && !read_file(small.c_str(), text)) puts("refused after one byte has changed");

    // Above 255 bytes only multiples of 255 verify: this pads with line feeds, and survives a power cut as well.
    const NV_store::Safe_result saved = NV_store::save_checksummed(large.c_str(), std::string(1000, 'x'));
    NV_store::load_checksummed(large.c_str(), text);
    printf("a text of 1000 bytes: %s, read %zu bytes\n", NV_store::to_text(saved), text.size());
    std::filesystem::remove_all(folder);
}
