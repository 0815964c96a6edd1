// SPDX-License-Identifier: MIT
// A data block that another process reads and writes. The machine describes its block as items and has a server answer
// for them on a line. The visitor fetches the description, lists the items, reads their values and writes one, which
// wakes a diner of the machine that watches just those bytes. Another one may not be written. What the machine prints
// stands last, unless the output is a terminal.
//
//     block <- items <- Server --- pseudo-terminal --- Visitor
//       '-> Watcher
//
// Prints:
//     visitor: the description is "1:1:machine{1:2:engine{5:3:speed,a:4:load},2b:5:position,...}"
//     visitor: struct machine
//     visitor:     struct engine
//     visitor:         unsigned short speed = 1450
//     visitor: which is not for us to change
//     visitor:         float load = 0.62
//     visitor:     double position[] = 49.2, 8.6
//     visitor:     char driver[] = "A. Driver"
//     visitor:     int wanted_speed = 1500
//     visitor: wrote 1800, now wanted_speed = 1800
//     machine: woken, somebody wants 1800 revolutions per minute
#include "Visitor.h"
#include "Watcher.h"
#include "glue/cds/CDS_server.h"
#include "glue/cds/CDS_value_text.h"
#include "glue/data_stream/Posix_data_stream.h"
#include <cstdio>
#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

static int visit(int fd) {
    Posix_data_stream line(fd, fd);
    line.set_read_timeout(3000);
    Visitor visitor(line);

    const std::string description = visitor.fetch_description();
    printf("visitor: the description is \"%s\"\n", description.c_str());
    const Remote_item* wanted_speed = nullptr;
    const std::vector<Remote_item> items = Visitor::items_of(description);
    for (const Remote_item& item : items) {
        const bool array = item.described.shape == Data_item::class_array;
        printf("visitor: %*s%s %s%s", 4 * item.described.depth, "", CDS::Remote::type_name(item.described.type),
               item.name.c_str(), array ? "[]" : "");
        if (item.described.container)
            puts("");
        else
            printf(" = %s\n", visitor.read(item).c_str());
        if (item.name == "wanted_speed") wanted_speed = &item;
        if (item.name == "speed" && !visitor.write(item, "0")) printf("visitor: which is not for us to change\n");
    }
    if (!wanted_speed || !visitor.write(*wanted_speed, "1800")) {
        fprintf(stderr, "visitor: the wanted speed cannot be written\n");
        return 1;
    }
    printf("visitor: wrote 1800, now wanted_speed = %s\n", visitor.read(*wanted_speed).c_str());
    return 0;
}

static void run_machine(const char* device, pid_t visitor) {
    Block block = {{1450, 0.62f}, {49.2, 8.6}, "A. Driver", 1500};
    CDS::Head head(&Diner_info_list::get(), 0);
    Block_items items(head, block);
    Watcher watcher(items);
    // A diner that is ended before its thread has begun drops what is queued.
    while (watcher.get_state() != Diner::state_run) Atime::delay(10);
    CDS::Remote::Server server(items.root, [&](const CDS::Lookup_item& item, CDS::Remote::Receive_buffer value) {
        int speed = 0;
        return &item == &items.wanted_speed && value.pop_INT32(speed) && speed >= 0 && speed <= 2200;
    });
    if (!server.serve(open(device, O_RDWR | O_NOCTTY))) perror("machine: the block is not served");
    siginfo_t ended;
    waitid(P_PID, static_cast<id_t>(visitor), &ended, WEXITED | WNOWAIT);
}

int main() {
    struct termios raw = {};
    cfmakeraw(&raw);
    int visitors_end, machines_end;
    char path[64];
    if (openpty(&visitors_end, &machines_end, path, &raw, nullptr) != 0) {
        perror("cds_remote: no pseudo-terminal");
        return 1;
    }
    const pid_t visitor = fork(); // before this process has threads
    if (visitor < 0) {
        perror("cds_remote: no second process");
        return 1;
    }
    if (visitor == 0) {
        ::close(machines_end);
        return visit(visitors_end);
    }
    ::close(visitors_end);
    run_machine(path, visitor);
    ::close(machines_end);
    int status;
    waitpid(visitor, &status, 0);
    return status == 0 ? 0 : 1;
}
