// SPDX-License-Identifier: MIT
#include "glue/jin/JIN_socket_stack.h"
#include "util/Debug_print.h"
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <net/if.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

/// Of the board's task layer.
constexpr int reader_stack_kib = 1024;
constexpr int reader_priority = 51;

/// [ms] The kernel counts the contention time too, from when the claim comes back to it, and complains in its log about
/// what is sent before.
constexpr int kernel_lag_ms = 30;

/// [ms] What a transfer leaves behind may arrive so much later than the report of its end.
constexpr int echo_ms = 1000;

/// Messages read before the other sockets and the timers are looked at.
constexpr int at_a_time = 64;

/// [ms] of a clock that nobody sets.
int64_t now_ms() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return int64_t{t.tv_sec} * 1000 + t.tv_nsec / 1000000;
}

/// What an error of opening or using an interface means, and what is to be done. "%s" is the interface.
struct Advice {
    int error;
    JIN_socket_stack::Trouble trouble;
    const char* text;
};
constexpr Advice advices[] = {
    {EAFNOSUPPORT, JIN_socket_stack::no_kernel_support, "the kernel has no CAN: modprobe can-j1939"},
    {EPROTONOSUPPORT, JIN_socket_stack::no_kernel_support, "the kernel has no J1939: modprobe can-j1939"},
    {EPERM, JIN_socket_stack::not_permitted, "no right to open CAN sockets: let the service use AF_CAN"},
    {EACCES, JIN_socket_stack::not_permitted, "no right to open CAN sockets: let the service use AF_CAN"},
    {ENXIO, JIN_socket_stack::no_interface,
     "there is no such interface: plug it in, or choose one that 'ip link' shows"},
    {ENODEV, JIN_socket_stack::no_can_interface, "is no CAN interface: choose one that 'ip -d link' shows as can"},
    {ENETDOWN, JIN_socket_stack::interface_down, "the interface is down: ip link set %s up type can bitrate 250000"},
};

const Advice* advice_for(int error) {
    const Advice* const end = std::end(advices);
    const Advice* const a = std::find_if(advices, end, [=](const Advice& x) { return x.error == error; });
    return a == end ? nullptr : a;
}

/// The interface has gone, which ends its sockets; other errors are of single messages.
bool ends_the_bus(int error) { return error == ENETDOWN || error == ENODEV || error == ENXIO || error == EBADFD; }

} // namespace

JIN_socket_stack::JIN_socket_stack(module_man& mm, const char* interface, JIN_name name, uint8_t preferred)
    : JIN_stack(mm), _claim(*this, name, preferred, kernel_lag_ms), _reader("JIN", reader_stack_kib, true) {
    snprintf(_interface, sizeof _interface, "%s", interface);
}

JIN_socket_stack::~JIN_socket_stack() {
    {
        const Scoped_lock held(lock);
        _stop = true;
    }
    wake_reader();
    _reader.join();
    if (_wake_fd >= 0) ::close(_wake_fd);
}

bool JIN_socket_stack::start() {
    if (_wake_fd >= 0) return true;
    _wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (_wake_fd < 0) return false;
    if (_reader.start(reader_priority, run, this) == 0) return true;
    ::close(_wake_fd);
    _wake_fd = -1;
    return false;
}

JIN_stack::Result JIN_socket_stack::send(const JIN_message& m) {
    const Scoped_lock held(lock);
    if (!m.is_sendable() || !name().is_set()) return refused;
    uint8_t own;
    if (!_there || !_claim.address(own)) return say_busy();
    if (m.size > 8) return send_with(m.destination == JIN::global ? _for_all : _for_one, m, own);
    JIN_message sent = m;
    if (!JIN::is_addressable(m.pgn)) sent.destination = JIN::global;
    return result_of(_main.send(sent));
}

JIN_stack::Result JIN_socket_stack::send_with(Carrier& c, const JIN_message& m, uint8_t own) {
    if (c.under_way) return say_busy();
    const Result r = result_of(c.socket.send(m));
    if (r != taken) return r;
    c.under_way = true;
    c.given_up_at = now_ms() + longest_ms;
    c.before = c.last;
    c.last = {m.pgn, m.size, own, INT64_MAX};
    wake_reader();
    return taken;
}

/// The kernel refuses what it will never take with EINVAL; the rest is for a while. It lets a NAME send a moment after
/// the claim, which may be later than here.
JIN_stack::Result JIN_socket_stack::result_of(int error) {
    if (error == 0) return taken;
    if (error == EINVAL) return refused;
    _room_at = std::min(_room_at, now_ms() + room_ms);
    wake_reader();
    return say_busy();
}

bool JIN_socket_stack::address(uint8_t& own) const {
    const Scoped_lock held(lock);
    return _claim.address(own);
}

bool JIN_socket_stack::bus_is_there() const {
    const Scoped_lock held(lock);
    return _there;
}

bool JIN_socket_stack::name_of(uint8_t address, JIN_name& name) const {
    const Scoped_lock held(lock);
    const JIN_name holder = _claim.holder(address);
    if (holder.is_set()) name = holder;
    return holder.is_set();
}

JIN_address_claim::State JIN_socket_stack::claim_state() const {
    const Scoped_lock held(lock);
    return _claim.state();
}

JIN_socket_stack::Trouble JIN_socket_stack::trouble() const {
    const Scoped_lock held(lock);
    return _trouble;
}

void* JIN_socket_stack::run(void* stack) {
    static_cast<JIN_socket_stack*>(stack)->read_until_stopped();
    return nullptr;
}

void JIN_socket_stack::read_until_stopped() {
    for (;;) {
        struct pollfd waits[] = {{_wake_fd, POLLIN, 0}, {-1, POLLIN, 0}, {-1, 0, 0}, {-1, 0, 0}};
        int64_t wait;
        {
            const Scoped_lock held(lock);
            if (_stop) return;
            const int64_t now = now_ms();
            open_when_due(now);
            run_what_is_due(now);
            waits[1].fd = _main.fd();
            waits[2].fd = _for_all.socket.fd();
            waits[3].fd = _for_one.socket.fd();
            wait = std::max<int64_t>(due() - now, 0);
        }
        if (poll(waits, 4, static_cast<int>(std::min<int64_t>(wait, 60000))) < 0) continue;
        if (waits[0].revents) {
            eventfd_t count;
            eventfd_read(_wake_fd, &count);
        }
        if (waits[1].revents) receive_some();
        if (waits[2].revents) look_after(_for_all);
        if (waits[3].revents) look_after(_for_one);
    }
}

void JIN_socket_stack::run_what_is_due(int64_t now) {
    if (!_there) return;
    _claim.run(now);
    for (Carrier* c : {&_for_all, &_for_one}) {
        if (c->under_way && c->given_up_at <= now) end(*c);
    }
    if (_room_at > now) return;
    _room_at = INT64_MAX;
    tell_room();
}

int64_t JIN_socket_stack::due() const {
    if (!_there) return _open_at;
    int64_t next = std::min(_claim.due(), _room_at);
    for (const Carrier* c : {&_for_all, &_for_one}) {
        if (c->under_way) next = std::min(next, c->given_up_at);
    }
    return next;
}

void JIN_socket_stack::open_when_due(int64_t now) {
    if (_there || now < _open_at) return;
    const int error = open();
    if (error) return bus_gone(error);
    if (_error) Debug_print::bprint("JIN %s: the bus is there\n", _interface);
    _error = 0;
    _trouble = none;
    _there = true;
    set_filter();
    _claim.begin(now);
    tell(event_bus_back);
}

int JIN_socket_stack::open() {
    const unsigned index = if_nametoindex(_interface);
    for (JIN_socket* s : {&_main, &_for_all.socket, &_for_one.socket}) {
        int error = s->open(index, name());
        // The kernel's own checks come first: without its modules no interface would help.
        if (s->is_open() && index == 0) error = ENXIO;
        if (error) return error;
        s->want_reports(s != &_main);
        if (s != &_main) s->filter_all_out();
    }
    return 0;
}

/// Told once for each reason, however often it is tried.
void JIN_socket_stack::bus_gone(int error) {
    close();
    _open_at = now_ms() + retry_ms;
    const bool was_there = _there;
    _there = false;
    for (Carrier* c : {&_for_all, &_for_one}) {
        if (!c->under_way) continue;
        c->under_way = false;
        c->last.until = c->before.until = 0;
        transfer_failed();
    }
    _claim.quit();
    if (was_there || _error == 0) tell(event_bus_gone);
    if (error == _error) return;
    _error = error;
    const Advice* const a = advice_for(error);
    _trouble = a ? a->trouble : other_trouble;
    char text[160];
    snprintf(text, sizeof text, a ? a->text : "%s: see dmesg", a ? _interface : strerror(error));
    Debug_print::bprint("JIN %s: %s\n", _interface, text);
}

void JIN_socket_stack::close() {
    for (JIN_socket* s : {&_main, &_for_all.socket, &_for_one.socket}) s->close();
}

void JIN_socket_stack::receive_some() {
    for (int i = 0; i < at_a_time; ++i) {
        JIN_message m(0, _bytes, sizeof _bytes);
        const int error = _main.receive(m);
        if (error == EAGAIN) break;
        const Scoped_lock held(lock);
        if (error) {
            failed(error);
            if (!_there) return;
        } else {
            received(m, now_ms());
        }
    }
    for (JIN_socket::Report r; (r = _main.next_report()) != JIN_socket::nothing;) {
        if (r == JIN_socket::reception_given_up) _receptions_failed.fetch_add(1, std::memory_order_relaxed);
    }
}

bool JIN_socket_stack::is_echo(const JIN_message& m, int64_t now) const {
    if (m.size <= 8) return false;
    for (const Carrier* c : {&_for_all, &_for_one}) {
        if (c->last.is(m, now) || c->before.is(m, now)) return true;
    }
    return false;
}

void JIN_socket_stack::received(const JIN_message& m, int64_t now) {
    if (is_echo(m, now)) return;
    uint8_t own = JIN::global;
    _claim.address(own);
    deliver(m, m.destination == JIN::global || m.destination == own);
    _claim.heard(m, now);
}

void JIN_socket_stack::failed(int error) {
    if (ends_the_bus(error)) {
        bus_gone(error == ENODEV ? ENXIO : error);
    } else if (error == EMSGSIZE) {
        _receptions_failed.fetch_add(1, std::memory_order_relaxed);
    } else {
        transfer_failed();
    }
}

/// What became of the long message that is under way.
void JIN_socket_stack::look_after(Carrier& c) {
    const Scoped_lock held(lock);
    if (!c.socket.is_open()) return;
    bool has_ended = false;
    for (JIN_socket::Report r; (r = c.socket.next_report()) != JIN_socket::nothing;) {
        if (r == JIN_socket::given_up && c.under_way) transfer_failed();
        has_ended |= r == JIN_socket::given_up || r == JIN_socket::delivered;
    }
    const int error = c.socket.take_error();
    if (ends_the_bus(error)) return bus_gone(error == ENODEV ? ENXIO : error);
    if (has_ended) end(c);
}

void JIN_socket_stack::end(Carrier& c) {
    c.under_way = false;
    c.last.until = now_ms() + echo_ms;
    tell_room();
}

/// What the stack itself hears comes through whatever the inboxes want.
void JIN_socket_stack::set_filter() {
    if (!_main.is_open()) return;
    uint32_t pgns[48] = {JIN::pgn_address_claimed, JIN::pgn_request, JIN::pgn_commanded_address};
    const int n = wishes(pgns + 3, 48 - 3);
    uint8_t own = JIN::global;
    _claim.address(own);
    _main.filter(pgns, n < 0 ? -1 : n + 3, own);
    _main.set_promiscuous(everything_wished());
}

void JIN_socket_stack::wishes_changed() { set_filter(); }

void JIN_socket_stack::wake_reader() const {
    if (_wake_fd >= 0) eventfd_write(_wake_fd, 1);
}

bool JIN_socket_stack::send_claim(uint8_t from) {
    unsigned char bytes[JIN_name::num_bytes];
    name().to_bytes(bytes);
    const JIN_message m(JIN::pgn_address_claimed, bytes, sizeof bytes);
    return _main.bind(from) == 0 && _main.send(m) == 0;
}

bool JIN_socket_stack::send_request_for_claims() {
    unsigned char bytes[3];
    JIN_message m(JIN::pgn_request, bytes, sizeof bytes);
    m.set_uint24_le(0, JIN::pgn_address_claimed);
    return _main.send(m) == 0;
}

void JIN_socket_stack::claimed_address() {
    set_filter();
    tell(event_claimed);
    tell_room();
}

void JIN_socket_stack::lost_address() {
    set_filter();
    tell(event_address_lost);
}

void JIN_socket_stack::cannot_claim() { tell(event_no_address); }
void JIN_socket_stack::address_violated() { tell(event_violation); }
