// SPDX-License-Identifier: MIT
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner.h"
#include "util/Debug_print.h"
#include "util/try_output.h"
#include <cstdio>

namespace {

constexpr int quiet_passes = 15;
constexpr int pass_ms = 100;

void print_line(bool to_debug, const char* text) {
    if (to_debug) {
        Debug_print::dprint("%s\n", text);
    } else {
        puts(text);
    }
}

void print_position(bool to_debug, int position) {
    if (to_debug) {
        Debug_print::dprint("%2d ", position);
    } else {
        printf("%2d ", position);
    }
}

} // namespace

Diner_info_list& Diner_info_list::get() {
    static Diner_info_list list;
    return list;
}

Diner_info_list::~Diner_info_list() {
    Scoped_lock held(_mutex);
    for (Diner_info& info : _infos) {
        if (info.diner.state < Diner::state_term) info.diner.terminate(false); // who was asked already is only late
    }
    for (int pass = 1;; ++pass) {
        const auto leaving = static_cast<unsigned>(_num_leaving.load(std::memory_order_acquire));
        const unsigned alive = static_cast<unsigned>(num_alive()) + leaving;
        if (alive == 0) break;
        if (pass > quiet_passes) {
            Util::try_printf(stderr, "%u out of %u diners still alive\n", alive,
                             static_cast<unsigned>(_infos.size()) + leaving);
        }
        held.unlock();
        Atime::delay(pass_ms);
        held.lock();
    }
    while (Diner_info* info = _infos.pop()) info->listed = false;
}

int Diner_info_list::num_alive() const {
    int n = 0;
    for (const Diner_info& info : _infos) n += info.diner.terminated() ? 0 : 1;
    return n;
}

void Diner_info_list::add(Diner_info& info) {
    const Scoped_lock held(_mutex), members(_members);
    _infos.push(&info);
    info.listed = true;
}

void Diner_info_list::remove(Diner_info& info) {
    const Scoped_lock held(_mutex), members(_members);
    _infos.remove(&info);
    info.listed = false;
}

void Diner_info_list::begin_leaving(Diner_info& info) {
    const Scoped_lock held(_mutex), members(_members);
    _num_leaving.fetch_add(1, std::memory_order_relaxed);
    _infos.remove(&info);
    info.listed = false;
}

void Diner_info_list::end_leaving() { _num_leaving.fetch_sub(1, std::memory_order_release); }

void Diner_info_list::print(bool to_debug, bool full_path) const {
    static const char heading[] = "\nId      Name State Run   EventCnt ToutCnt Checkpoint";
    const Scoped_lock held(_mutex);
    print_line(to_debug, heading);
    int position = 0;
    for (const Diner_info& info : _infos) {
        print_position(to_debug, position++);
        info.print(to_debug, full_path);
    }
}

void Diner_info_list::print_figures(bool to_debug) const {
    const Scoped_lock held(_mutex);
    print_line(to_debug, "\nId      Name Handl[us] Worst[us]  Wait[us] Worst[us] Late[ms]    Queue");
    int position = 0;
    for (const Diner_info& info : _infos) {
        print_position(to_debug, position++);
        info.print_figures(to_debug);
    }
}

void Diner_info_list::reset_figures() {
    const Scoped_lock held(_mutex);
    for (Diner_info& info : _infos) info.reset_figures();
}

void Diner_info_list::test_lock() {
    const Scoped_lock held(_mutex);
    for (Diner_info& info : _infos) info.test_lock();
}

void Diner_info_list::set_debug_level(int index, unsigned char level) {
    const Scoped_lock held(_mutex);
    if (Diner_info* info = _infos[index]) info->set_debug_level(level);
}

/// With the inner of the two locks alone, which keeps the list as it is: the caller may hold that of a diner. The
/// analysis knows no such choice.
void Diner_info_list::clock_stepped(int32_t seconds, int ms) KAV_NO_THREAD_SAFETY_ANALYSIS {
    const Scoped_lock members(_members);
    for (Diner_info& info : _infos) {
        info.diner._timeouts.clock_stepped(int64_t{seconds} * 1000 + ms);
        info.diner.waiter.send_anonymous_event(); // it may have read the old expiry
    }
}

void Diner_info_list::look_at_all(const std::function<void(Diner_info&)>& look) KAV_NO_THREAD_SAFETY_ANALYSIS {
    const Scoped_lock members(_members);
    for (Diner_info& info : _infos) look(info);
}

int Diner_info_list::print_alive() const {
    const Scoped_lock held(_mutex);
    for (const Diner_info& info : _infos) {
        if (info.diner.terminated()) continue;
        fprintf(stderr, "  %s (%s)\n", info.diner.get_descriptor().name, Diner::state_name(info.diner.state));
    }
    return num_alive();
}
