// SPDX-License-Identifier: MIT
// Settings that survive a power cut: loaded at start, changed, told to those whom they concern, and saved. The program
// plays two starts of a machine; the second finds what the first saved.
//
// Prints:
//     started from defaults
//     slot: wheel changed
//     odometer: the radius is 0.84 m now
//     saved
//     loaded
//     slot: wheel changed
//     odometer: the radius is 0.83 m now
//     saved
//     wheel/pulses=98
//     wheel/radius=0.83
//     metric=true
//     starts=2
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_root.h"
#include "glue/NV_store/NV_safe_store.h"
#include "glue/NV_store/NV_text.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include "util/Semaphore.h"
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>

namespace {

/// The identifiers stand in the file for ever; names may change.
struct Wheel : NV_store::NV_container {
    explicit Wheel(NV_store::NV_root* root) : NV_container(root, root, 1, "wheel") {}
    NV_store::NV_uint16 pulses{this, 1, "pulses", 98};
    NV_store::NV_float radius{this, 2, "radius", 0.85f}; ///< [m]
};

struct Machine : NV_store::NV_root {
    explicit Machine(module_man& modules) : NV_root(&modules, 1, "machine") {}
    Wheel wheel{this};
    NV_store::NV_bool metric{this, 2, "metric", true};
    NV_store::NV_uint32 starts{this, 3, "starts"};
};

/// A component that wants to know when the wheel changes. Its handler runs on its own thread.
class Odometer : public Diner::Protection {
public:
    explicit Odometer(Machine& machine) : _machine(machine) {}
    ~Odometer() override {
        _machine.wheel.radius.autounreg_waiter(&waiter, false);
        terminate(true);
    }
    using Diner::init;
    void init(module_man& modules) {
        init(modules, Descriptor("ODOMETER", 3));
        _machine.wheel.radius.autoreg_waiter(&waiter, false);
    }
    Semaphore told;

private:
    void handle_event(waiter_event& event) override {
        if (!_machine.wheel.radius.is_event(event)) return;
        {
            const std::lock_guard<Machine> guard(_machine);
            printf("odometer: the radius is %g m now\n", static_cast<double>(_machine.wheel.radius.get()));
        }
        told.release();
    }

    void handle_timeout(Timeout&) override {}
    using Diner::handle_timeout;

    Machine& _machine;
};

bool run(const std::string& path, std::string& text) {
    module_man& modules = Diner_info_list::get();
    Machine machine(modules);
    NV_store::NV_safe_store store(machine, path.c_str());
    // It may also have fallen back to the generation before, or found damage.
    puts(to_text(store.load()));

    // A slot is called by whoever sets the value, on the same thread and with the lock that it holds.
    QObject::connect(&machine.wheel, &NV_store::NV_item::value_changed,
                     [](NV_store::NV_item* item) { printf("slot: %s changed\n", item->get_name()); });
    Odometer odometer(machine);
    odometer.init(modules);
    odometer.start();
    {
        const std::lock_guard<Machine> guard(machine); // both values change at once for all who lock
        machine.starts.set(machine.starts.get() + 1);
        machine.wheel.radius.set(machine.starts.get() == 1 ? 0.84f : 0.83f);
    }
    odometer.told.acquire();

    const NV_store::Safe_result saved = store.save();
    puts(to_text(saved));
    text = export_text(machine); // for a backup or another machine; import_text() reads it
    return is_good(saved);
}

} // namespace

int main() {
    std::string folder = (std::filesystem::temp_directory_path() / "settings-XXXXXX").string(), text;
    if (!mkdtemp(folder.data())) return 1;
    const bool good = run(folder + "/settings", text) && run(folder + "/settings", text);
    fputs(text.c_str(), stdout);
    std::filesystem::remove_all(folder);
    return good ? 0 : 1;
}
