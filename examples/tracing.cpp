// SPDX-License-Identifier: MIT
// Looks inside a program that runs: a trace of what its diners do, with marks of its own, into a file for trace_view or
// a browser; and the figures that are always measured.
//
// Prints:
//
//     Id      Name Handl[us] Worst[us]  Wait[us] Worst[us] Late[ms]    Queue
//      0      PUMP ...
//     asked for by a signal, it tells of the litres: yes
//     the trace is written
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include "glue/diner/Trace.h"
#include "util/Semaphore.h"
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

class Pump : public Diner::Protection {
public:
    Pump() {
        init(Diner_info_list::get(), Descriptor("PUMP", 1));
        start();
    }
    ~Pump() override { terminate(true); }

    Semaphore done;

private:
    void handle_event(waiter_event& event) override {
        Trace::instant("litres asked for", static_cast<int>(event.data));
        {
            const Trace::Span span("computing the stroke");
            Atime::delay(2); // [ms]; something slow
        }
        done.release();
    }
    void handle_timeout(Timeout&) override {}
    using Diner::handle_timeout;
};

/// Whether the file tells of what the program marked.
bool tells_of_litres(const std::string& path) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
        if (line.find("litres asked for") != std::string::npos) return true;
    return false;
}

} // namespace

int main() {
    std::string folder = (std::filesystem::temp_directory_path() / "tracing-XXXXXX").string();
    if (!mkdtemp(folder.data())) return 1;
    const std::string last = folder + "/last.json", all = folder + "/all.json";

    Trace::start(4096);              // records of 32 bytes; the last ones are kept
    Trace::at_abort(last.c_str());   // should the library abort the process, they go there
    Trace::write_on_signal(SIGUSR1); // and whenever somebody asks for them
    Trace::set_diner("LOG0", false); // not that one

    {
        Pump pump;
        for (unsigned litres = 1; litres <= 3; ++litres) {
            pump.waiter.send_event(waiter_event(2000, 1, litres));
            pump.done.acquire();
        }
        Diner_info_list::get().print_figures(false);
    }
    raise(SIGUSR1); // as `kill -USR1` does
    printf("asked for by a signal, it tells of the litres: %s\n", tells_of_litres(last) ? "yes" : "no");
    Trace::stop();
    const bool written = Trace::write_file(all.c_str()) == 0;
    if (written) puts("the trace is written");
    std::filesystem::remove_all(folder);
    return written ? 0 : 1;
}
