// SPDX-License-Identifier: MIT
// What objects of the library take of a machine's memory: themselves, what they get from the heap when they are put to
// work, and how much of their thread's stack everyday work has touched.
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_root.h"
#include "glue/cds/CDS_events.h"
#include "glue/data_stream/File_checksummed_data_stream.h"
#include "glue/data_stream/PCFile_data_stream.h"
#include "glue/data_stream/Posix_serial_data_stream.h"
#include "glue/data_stream/Posix_threaded_serial_data_stream.h"
#include "glue/data_stream/Virtual_pair_data_stream.h"
#include "glue/diner/Buffered_logger.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include "glue/jin/JIN_inbox.h"
#include "glue/jin/JIN_socket_stack.h"
#include "glue/vorn/GNSS_messages.h"
#include "glue/vorn/Vorn_parser.h"
#include "glue/vorn/Vorn_printer.h"
#include "util/Debug_print.h"
#include "util/Semaphore.h"
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <malloc.h>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

size_t heap() {
    const struct mallinfo2 all = mallinfo2();
    return all.uordblks + all.hblkhd;
}

struct Stack {
    size_t reserved = 0, touched = 0; // [bytes]
};

/// Of the calling thread.
Stack own_stack() {
    Stack s;
    pthread_attr_t attributes;
    void* base = nullptr;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) return s;
    pthread_attr_getstack(&attributes, &base, &s.reserved);
    pthread_attr_destroy(&attributes);
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    std::vector<unsigned char> pages(s.reserved / page);
    if (mincore(base, pages.size() * page, pages.data()) != 0) return s;
    for (unsigned char there : pages) s.touched += (there & 1) * page;
    return s;
}

/// What the C library takes of the heap for any thread that uses it.
size_t heap_of_plain_thread() {
    static Semaphore used;
    const size_t before = heap();
    pthread_t thread;
    const auto run = [](void*) -> void* {
        void* volatile used_heap = malloc(1); // volatile: else the compiler leaves it out
        free(used_heap);
        used.release();
        for (;;) pause();
    };
    if (pthread_create(&thread, nullptr, run, nullptr) != 0) return 0;
    used.acquire();
    return heap() - before;
}

/// Prints a message of the receiver, which is the deepest that handlers usually go; at the next event it looks how
/// deep.
class Worker : public Diner::Protection {
public:
    Worker() { init(Diner_info_list::get(), nullptr, Descriptor("WORKER", 1), 0, 256, false, true); }
    ~Worker() override { terminate(true); }
    void work() {
        waiter.send_event(module_man::EVENT_ANONYMOUS, false, false);
        done.acquire();
    }
    Semaphore done;
    Stack stack;

private:
    void handle_event(waiter_event&) override {
        if (_printed) {
            stack = own_stack(); // takes memory of its own
            done.release();
            return;
        }
        unsigned char bytes[35] = {};
        Vorn_message frame(bytes, sizeof bytes);
        frame.setup(GNSS_messages::id_PG, sizeof bytes);
        frame.set_checksum();
        char line[256];
        if (Vorn_printer(true).snprint(frame, line, sizeof line) > 0) Debug_print::dprint("%s\n", line);
        _printed = true;
        done.release();
    }
    void handle_timeout(Timeout&) override {}
    using Diner::handle_timeout;
    bool _printed = false;
};

void row(const char* what, size_t itself, size_t more = 0) { printf("| %s | %zu | %zu |\n", what, itself, more); }

template <class File>
void row_of_open(const char* what) {
    const size_t before = heap();
    File file;
    file.open_write("/dev/null");
    file._write(reinterpret_cast<const unsigned char*>("x"), 1);
    row(what, sizeof file, heap() - before);
}

/// One of many: what the first takes besides is theirs in common.
void row_of_setting() {
    NV_store::NV_root root(nullptr, 1, "root");
    constexpr int n = 100;
    std::vector<std::unique_ptr<NV_store::NV_int32>> settings(n);
    const auto make = [&](int i) {
        settings[static_cast<size_t>(i)] =
            std::make_unique<NV_store::NV_int32>(&root, static_cast<unsigned short>(i), "setting");
    };
    make(0);
    const size_t before = heap();
    for (int i = 1; i < n; ++i) make(i);
    // The object itself came from the heap, too.
    const size_t object = malloc_usable_size(settings[0].get());
    row("number among the settings", sizeof(NV_store::NV_int32), (heap() - before) / (n - 1) - object);
}

/// Ranges until the registry is full, its 24,576 bytes shared among them, and what the heap has of each.
void row_of_registration() {
    static unsigned char block[1 << 16];
    CDS::Head& head = *new CDS::Head(&Diner_info_list::get(), 0);
    static waiter_descriptor waiter;
    waiter.init(&Diner_info_list::get());
    int ranges = 0;
    const size_t before = heap();
    const std::lock_guard<Mutex> guard(head);
    while (head.event_register(&waiter, ranges * 8, 8, CDS::reg_value, ranges, nullptr, nullptr) == 0) ++ranges;
    const size_t n = static_cast<size_t>(ranges);
    row("registration for changes of data, of a range of its own", 24576 / n, (heap() - before) / n);
    printf("| of these as many as the registry holds: %d | | |\n", ranges);
}

} // namespace

int main() {
    mallopt(M_ARENA_MAX, 1); // the heap is asked about the first arena only
    Debug_print::debug_file = fopen("/dev/null", "w");
    Diner_info_list::get();
    printf("| | object [bytes] | heap [bytes] |\n|---|---|---|\n");

    Worker first, second; // take what all diners have in common
    for (Worker* worker : {&first, &second}) {
        worker->start();
        worker->work();
    }
    size_t before = heap();
    auto& worker = *new Worker; // stays, like all that has a thread: threads give back some memory after their end
    worker.start();
    worker.work();
    row("diner, its thread running", sizeof(Diner::Protection), heap() - before - sizeof(Worker));
    row("of this what the C library takes for any thread", 0, heap_of_plain_thread());
    worker.work();
    const Stack stack = worker.stack;

    before = heap();
    auto& serial = *new Posix_threaded_serial_data_stream;
    const int line = posix_openpt(O_RDWR | O_NOCTTY);
    if (line < 0 || grantpt(line) != 0 || unlockpt(line) != 0) return 1;
    serial.init(Diner_info_list::get());
    if (!serial.open(ptsname(line)) || write(line, "x", 1) != 1) return 1;
    while (serial.bytes_avail() == 0) usleep(1000); // the reader has got by then what it needs
    row("threaded serial stream, its reader running", sizeof serial, heap() - before - sizeof serial);

    row("serial stream without a thread", sizeof(Posix_serial_data_stream));
    row("pair of streams in memory", sizeof(Virtual_pair_data_stream));
    row_of_open<File_data_stream>("file stream, open");
    row_of_open<File_checksummed_data_stream>("checksummed file, open");
    row("flash file stream", sizeof(PCFile_data_stream));
    row("event pool and status list, one for the process", sizeof(Diner_info_list));
    row("of these each event that may wait", sizeof(waiter_event_node));
    row("buffered logger", sizeof(Buffered_logger));
    row("timeout", sizeof(Timeout));
    before = heap();
    auto& node =
        *new JIN_socket_stack(Diner_info_list::get(), "none0", JIN_name(1), 128); // ends no more than the line's
    node.start();
    row("node of a CAN bus, its reader running", sizeof node, heap() - before - sizeof node);
    before = heap();
    JIN_inbox inbox(node, nullptr, {JIN::pgn_request});
    row("inbox of a node", sizeof inbox, heap() - before);
    row("parser of the receiver's messages", sizeof(Vorn_parser));
    row_of_setting();
    row_of_registration();
    printf("\nStack of a diner's thread: %zu KiB reserved, %zu KiB touched after it has printed a message.\n",
           stack.reserved / 1024, stack.touched / 1024);
    fflush(stdout);
    _exit(0); // the reader of the line never ends
}
