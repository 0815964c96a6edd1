// SPDX-License-Identifier: MIT
// The library in a Qt program: a QCoreApplication that gets the library's events in its own loop, talks to a diner from
// slots, sees settings change, and ends cleanly on SIGTERM, which it sends to itself here.
//
// Prints:
//     settings: started from defaults
//     main thread: the Qt timer asks for 2 litres
//     pump's thread: a litre
//     pump's thread: a litre
//     pump's thread: slot without a context, pumped changed
//     main thread: slot with a context, machine changed
//     main thread: slot with a context, pumped is 2
//     main thread: the pump has done 2 litres
//     main thread: asked to end
//     settings: saved
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_root.h"
#include "glue/NV_store/NV_safe_store.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include <QCoreApplication>
#include <QEvent>
#include <QSocketNotifier>
#include <QTimer>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

struct Machine : NV_store::NV_root {
    explicit Machine(module_man& modules) : NV_root(&modules, 1, "machine") {}
    NV_store::NV_uint32 pumped{this, 1, "pumped"}; ///< [l]
};

/// Works on a thread of its own. Its timeout is the library's: it runs there, not in the Qt loop.
class Pump : public Diner::Protection {
public:
    enum Event { event_fill = 1, event_full };

    Pump(Machine& machine, waiter_descriptor& reports) : _machine(machine), _reports(reports) {
        Diner_info_list& modules = Diner_info_list::get();
        modules.init_module(&module, false);
        init(modules, nullptr, Descriptor("PUMP", 1), 0, 256, false, false);
        start();
    }
    ~Pump() override { terminate(true); }

    /// Any thread, and so any slot: the work is posted, nothing is waited for.
    void fill(unsigned litres) {
        if (waiter.send_event(waiter_event(module, event_fill, litres), false, false) != 0)
            puts("too many events wait");
    }
    short module = 0; ///< of its events, in both directions

private:
    void handle_event(waiter_event& event) override {
        if (event.module_id != module) return;
        _to_go = _asked = static_cast<unsigned>(event.data);
        _stroke.period = 20; // [ms]
        submit_timeout(_stroke, 20);
    }
    void handle_timeout(Timeout& timeout) override {
        puts("pump's thread: a litre");
        if (--_to_go > 0) return;
        timeout.invalidate(); // no further period
        {
            const std::lock_guard<Machine> guard(_machine);
            _machine.pumped.set(_machine.pumped.get() + _asked);
        }
        _reports.send_event(waiter_event(module, event_full, _asked), false, false);
    }
    using Diner::handle_timeout;

    Machine& _machine;
    waiter_descriptor& _reports;
    Timeout _stroke;
    unsigned _to_go = 0, _asked = 0;
};

/// Lives on the main thread. Each post to its inbox wakes the Qt loop with an event of its own.
class Front_end : public QObject {
public:
    Front_end() : _type(QEvent::registerEventType()) { inbox.init(&Diner_info_list::get(), this, _type); }
    ~Front_end() override { inbox.deinit(); } // from here on nothing is posted to this object

    bool event(QEvent* event) override {
        if (event->type() != _type) return QObject::event(event);
        waiter_event what; // one Qt event, one to take; the time that has passed means: do not wait
        if (inbox.get_event(&what, Atime(false)) == 0 && what.id == Pump::event_full) {
            printf("main thread: the pump has done %u litres\n", static_cast<unsigned>(what.data));
            kill(getpid(), SIGTERM); // as systemd would
        }
        return true;
    }
    waiter_descriptor inbox;

private:
    const int _type;
};

/// Ends the application when the signal comes, in the loop, where everything may be done. The signal is blocked before
/// there is any other thread, since threads inherit that.
class Stop_signal : public QSocketNotifier {
public:
    Stop_signal() : QSocketNotifier(descriptor(), Read) {}
    ~Stop_signal() override { close(static_cast<int>(socket())); }

    bool event(QEvent* event) override {
        if (event->type() != QEvent::SockAct) return QSocketNotifier::event(event);
        setEnabled(false);
        puts("main thread: asked to end");
        QCoreApplication::quit();
        return true;
    }

private:
    static int descriptor() {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        return signalfd(-1, &set, SFD_CLOEXEC);
    }
};

int run(QCoreApplication& app, const std::string& path) {
    using NV_store::NV_item;
    Machine machine(Diner_info_list::get());
    NV_store::NV_safe_store store(machine, path.c_str());
    printf("settings: %s\n", to_text(store.load()));

    Front_end front_end;
    // One setting. Without a context the slot runs on the thread that sets it, with the lock that it holds...
    QObject::connect(&machine.pumped, &NV_item::value_changed, [](NV_item* item) {
        printf("pump's thread: slot without a context, %s changed\n", item->get_name());
    });
    // ...and with one on the context's thread, later, without a lock.
    QObject::connect(&machine.pumped, &NV_item::value_changed, &front_end, [&machine](NV_item*) {
        const std::lock_guard<Machine> guard(machine);
        printf("main thread: slot with a context, pumped is %u\n", machine.pumped.get());
    });
    // Whatever is below a container. The item is the container, not the setting.
    QObject::connect(&machine, &NV_item::value_changed, &front_end, [&machine](NV_item* item) {
        const std::lock_guard<Machine> guard(machine); // waits until the setter has done what belongs together
        printf("main thread: slot with a context, %s changed\n", item->get_name());
    });

    int status;
    {
        Pump pump(machine, front_end.inbox);
        QTimer::singleShot(10, &front_end, [&pump] {
            puts("main thread: the Qt timer asks for 2 litres");
            pump.fill(2);
        });
        status = app.exec();
    } // the pump's thread is gone: nobody sets a setting or posts to the front end any more
    printf("settings: %s\n", to_text(store.save()));
    return status;
}

} // namespace

int main(int argc, char** argv) {
    const QCoreApplication app(argc, argv);
    std::string folder = (std::filesystem::temp_directory_path() / "qt-XXXXXX").string();
    if (!mkdtemp(folder.data())) return 1;
    const Stop_signal stop;
    const int status = run(*qApp, folder + "/settings");
    std::filesystem::remove_all(folder);
    return status;
}
