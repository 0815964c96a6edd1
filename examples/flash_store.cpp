// SPDX-License-Identifier: MIT
// Files in the controller's flash file store, which has one slot for reading and one for writing. On a host a folder
// stands in for it.
//
// Prints:
//     "boom_width.txt" 6 bytes
//     "track.txt" 21 bytes
//     27 of 100 bytes used
//     track: 49.20 8.60;49.21 8.60
//     told that the store is full
#include "glue/data_stream/PCFile_data_stream.h"
#include "glue/diner/Diner_info_list.h"
#include "platform/pcf_host.h"
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

constexpr int attempts = 5; // 100 ms apart, while another stream of the process has the slot

/// Append to a file, or make it.
bool append(const char* name, const std::string& text) {
    const auto n = static_cast<unsigned>(text.size());
    unsigned used, size;
    if (!PCFile_data_stream::get_free_space(used, size)) return false;
    if (n > size - used) { // a write that does not fit would end the process
        PCFile_data_stream::send_event(PCFile_data_stream::event_full);
        return false;
    }
    PCFile_data_stream file;
    if (file.open_write(name, attempts) != PCFile_data_stream::done) return false;
    const bool written = file._write(reinterpret_cast<const unsigned char*>(text.data()), n) == n;
    // A stream is closed before it goes. A write that failed has closed it already.
    return written && file.close_write() == PCFile_data_stream::done;
}

std::string contents(const char* name) {
    PCFile_data_stream file;
    std::string text;
    if (file.open_read(name, attempts) != PCFile_data_stream::done) return text;
    for (; file.bytes_avail(1); file.drop(1)) text += static_cast<char>(file[0]);
    file.close_read();
    return text;
}

} // namespace

int main() {
    std::string folder = (std::filesystem::temp_directory_path() / "flash-XXXXXX").string();
    if (!mkdtemp(folder.data()) || !Pcf_host::mount(folder.c_str(), 100)) return 1;
    PCFile_data_stream::static_init(Diner_info_list::get());
    waiter_descriptor waiter; // of a diner, as a rule
    waiter.init(&Diner_info_list::get());
    waiter.set_enabled(true);
    PCFile_data_stream::register_waiter(&waiter);

    append("track.txt", "49.20 8.60;");
    append("track.txt", "49.21 8.60");
    append("boom_width.txt", "24.0 m");

    PCFile_data_stream::Iterator file;
    for (; const char* name = file.get_name(); file.next()) printf("\"%s\" %zu bytes\n", name, contents(name).size());
    unsigned used, size;
    PCFile_data_stream::get_free_space(used, size);
    printf("%u of %u bytes used\n", used, size);
    printf("track: %s\n", contents("track.txt").c_str());

    if (!append("photo.bin", std::string(100, 'x'))) {
        waiter_event event;
        waiter.get_event(&event);
        if (PCFile_data_stream::is_event(event) && event.id == PCFile_data_stream::event_full)
            puts("told that the store is full");
    }
    PCFile_data_stream::deregister_waiter(&waiter);
    Pcf_host::unmount();
    std::filesystem::remove_all(folder);
}
