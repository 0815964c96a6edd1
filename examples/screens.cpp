// SPDX-License-Identifier: MIT
// Several diners of one role, of which one runs: the screens of a terminal.
//
// Prints:
//     WORK, CAMERA, SETUP
//     WORK comes up
//     WORK shows 8 km/h
//     WORK goes
//     SETUP comes up
//     SETUP shows 9 km/h
//     SETUP goes
//     2 screens are left, none of them is selected
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include "glue/diner/Diner_selector.h"
#include "util/Semaphore.h"
#include <cstdio>

namespace {

class Screen : public Diner::Protection {
public:
    Screen(Diner_selector& screens, const char* name, int id) {
        Options options;
        options.selector = &screens;
        init(Diner_info_list::get(), Descriptor(name, id), options); // parked: the selector starts it
    }
    ~Screen() override { terminate(true); }
    Semaphore shown;

private:
    // On the thread that selects.
    void diner_start() override { printf("%s comes up\n", descriptor.name); }
    void diner_stop() override { printf("%s goes\n", descriptor.name); }
    // On the thread of the screen.
    void handle_event(waiter_event& event) override {
        printf("%s shows %u km/h\n", descriptor.name, static_cast<unsigned>(event.data));
        shown.release();
    }
    void handle_timeout(Timeout&) override {}
    using Diner::handle_timeout;
};

} // namespace

int main() {
    Diner_selector screens; // outlives them
    Screen setup(screens, "SETUP", 7), work(screens, "WORK", 1), camera(screens, "CAMERA", 2);
    Diner::Descriptor all[3];
    screens.get_descriptors(all, 3); // by their numbers
    printf("%s, %s, %s\n", all[0].name, all[1].name, all[2].name);

    screens.select_diner(0);
    screens.get_selected()->waiter.send_event(waiter_event(2000, 1, 8));
    work.shown.acquire();
    screens.select_diner(Diner::Descriptor("SETUP", 7));
    screens.get_selected()->waiter.send_event(waiter_event(2000, 1, 9));
    setup.shown.acquire();

    setup.set_selector(nullptr); // who leaves is stopped
    printf("%d screens are left, %s of them is selected\n", screens.num_diners(),
           screens.get_selected() ? "one" : "none");
}
