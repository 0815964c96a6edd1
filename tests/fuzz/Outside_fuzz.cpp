// SPDX-License-Identifier: MIT
// The other things that come from outside: "c" and a checksummed file, "h" and two files of the history of faults (the
// next byte says where they part), "d" and what follows the path in a device argument, "f" and debug filters.
#include "fuzz/checks.h"
#include "glue/data_stream/File_checksummed_data_stream.h"
#include "glue/data_stream/Posix_serial_data_stream.h"
#include "glue/diagnostics/Diagnostics.h"
#include "glue/diner/Diner_info_list.h"
#include "platform/pcf_host.h"
#include "support/Manual_clock.h"
#include "support/Pty.h"
#include "util/Debug_base.h"

namespace {

Temporary_folder folder(Temporary_folder::quick);

void fuzz_checksummed(const std::string& bytes) {
    const std::string path = folder.file("checksummed");
    write_file(path, bytes);
    File_checksummed_data_stream in;
    if (!in.open_read(path.c_str())) return;
    std::string payload;
    for (; in.bytes_avail(1u); in.drop(1)) payload += static_cast<char>(in[0]);
    require(payload.size() + 15 <= bytes.size() && bytes.compare(0, payload.size(), payload) == 0,
            "a reader sees what was written");
}

struct Sink : Diagnostic_history {
    void output(unsigned char, unsigned short, unsigned short, unsigned int time, unsigned short ms) override {
        require(time != 0 && ms < 1024 && ms % 4 == 0, "a record has a time");
    }
    bool check_ready() override { return true; }
};

void fuzz_history(unsigned parted_at, const std::string& bytes) {
    const size_t part = parted_at * bytes.size() / 256;
    require(Pcf_host::mount(folder.path.c_str(), 1 << 20), "the store is mounted");
    write_file(folder.file("H0.dat"), bytes.substr(0, part));
    write_file(folder.file("H1.dat"), bytes.substr(part));
    Sink sink;
    {
        Diagnostics history("H");
        history.init(Diner_info_list::get(), nullptr, 0);
        history.start();
        require(history.request_history(&sink), "the replay is accepted");
        require(wait_until([&] { return sink.is_done(); }), "the replay ends");
    }
    Pcf_host::unmount();
}

} // namespace

void fuzz(Input in) {
    const uint8_t what = in.next(), parted_at = what == 'h' ? in.next() : 0;
    if (what == 'c') fuzz_checksummed(in.rest());
    if (what == 'h') fuzz_history(parted_at, in.rest());
    if (what == 'd') {
        static Pty line;
        Posix_serial_data_stream stream;
        if (stream.open_from_args((line.path + ":" + in.rest()).c_str()))
            require(stream.get_fd() >= 0 && stream.get_baudRate() >= 300, "an open line has a speed");
    }
    if (what == 'f') Debug_filter::set_filters(in.rest().c_str());
    while (Debug_filter::get_num_active_filters() > 0) // one that was named twice goes with the first
        require(Debug_filter::remove_filter(Debug_filter::get_active_filter(0)), "an active filter can be removed");
}
