// SPDX-License-Identifier: MIT
#include "glue/data_stream/Posix_serial_port.h"
#include "util/Debug_print.h"
#include "util/number_text.h"
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <new>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>

namespace {

struct Speed {
    long baud;
    speed_t code;
};
constexpr Speed speeds[] = {{300, B300},     {600, B600},       {1200, B1200},     {2400, B2400},
                            {4800, B4800},   {9600, B9600},     {19200, B19200},   {38400, B38400},
                            {57600, B57600}, {115200, B115200}, {230400, B230400}, {460800, B460800}};
constexpr long unknown_baud_rate = 2400;

struct Size {
    Posix_serial_port::bits_t bits;
    tcflag_t code;
};
constexpr Size sizes[] = {{Posix_serial_port::bits_5, CS5},
                          {Posix_serial_port::bits_6, CS6},
                          {Posix_serial_port::bits_7, CS7},
                          {Posix_serial_port::bits_8, CS8}};

void change(tcflag_t& flags, tcflag_t bits, bool on) { flags = on ? flags | bits : flags & ~bits; }

void put_baud_rate(struct termios& t, long baud) {
    const Speed* s = std::begin(speeds);
    while (s->baud < baud && s + 1 != std::end(speeds)) ++s;
    cfsetispeed(&t, s->code);
    cfsetospeed(&t, s->code);
}

void put_format(struct termios& t, Posix_serial_port::Format const& f) {
    tcflag_t size = CS8;
    for (const Size& s : sizes) {
        if (s.bits == f.bits) size = s.code;
    }
    t.c_cflag = (t.c_cflag & ~static_cast<tcflag_t>(CSIZE)) | size;
    change(t.c_cflag, PARENB, f.parity != Posix_serial_port::parity_none);
    if (f.parity == Posix_serial_port::parity_odd) change(t.c_cflag, PARODD, true);
    if (f.parity == Posix_serial_port::parity_even) change(t.c_cflag, PARODD, false);
    change(t.c_cflag, CSTOPB, f.stop_bits == Posix_serial_port::stop_bits_2);
}

void put_handshake(struct termios& t, Posix_serial_port::handshake_t h) {
    change(t.c_cflag, CRTSCTS, h == Posix_serial_port::handshake_rts_cts);
    change(t.c_iflag, IXON | IXOFF, h == Posix_serial_port::handshake_xon_xoff);
}

} // namespace

bool Posix_serial_port::Format::operator==(Format const& o) const {
    return bits == o.bits && stop_bits == o.stop_bits && parity == o.parity;
}

bool Posix_serial_port::Status::operator==(Status const& o) const {
    return handshake == o.handshake && dtr == o.dtr && rts == o.rts && cts == o.cts && dsr == o.dsr;
}

bool Posix_serial_port::State::operator==(State const& o) const {
    return baud_rate == o.baud_rate && format == o.format && status == o.status;
}

Posix_serial_port::Posix_serial_port() = default;

Posix_serial_port::~Posix_serial_port() = default;

bool Posix_serial_port::init() {
    const int fd = get_fd();
    if (fd < 0) return false;
    struct termios found;
    if (tcgetattr(fd, &found) != 0) {
        deinit();
        return false;
    }
    if (!_saved) {
        _saved.reset(new (std::nothrow) struct termios(found));
        _current.reset(new (std::nothrow) struct termios);
    }
    if (!_saved || !_current) {
        deinit();
        return false;
    }
    *_current = found;
    cfmakeraw(_current.get());
    _current->c_cc[VMIN] = 1;
    _current->c_cc[VTIME] = 0;
    change(_current->c_cflag, HUPCL, false);
    change(_current->c_cflag, CREAD | CLOCAL, true);
    if (write_settings()) return true;
    deinit();
    return false;
}

void Posix_serial_port::deinit() {
    _current.reset();
    _saved.reset();
}

bool Posix_serial_port::init_opened(const char* path, bool& claimed) {
    // What has no locks, or no exclusive mode, is opened all the same.
    claimed = !_exclusive || flock(get_fd(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
    if (!claimed) {
        Debug_print::dprint("%s is in use by another program\n", path);
        return false;
    }
    _has_claim = _exclusive && ioctl(get_fd(), TIOCEXCL) == 0;
    if (init()) return true;
    Debug_print::dprint("%s is no serial line: %s\n", path, strerror(errno));
    return false;
}

void Posix_serial_port::release_claim() {
    if (get_fd() >= 0) {
        // A pseudo-terminal would stay exclusive as long as its other end is open, and the lock be held for the moment
        // in which a reader thread that was woken still waits for the descriptor.
        if (_has_claim) ioctl(get_fd(), TIOCNXCL);
        if (_exclusive || _has_claim) flock(get_fd(), LOCK_UN);
    }
    _has_claim = false;
}

bool Posix_serial_port::restore() { return usable() && tcsetattr(get_fd(), TCSANOW, _saved.get()) == 0; }

bool Posix_serial_port::write_settings() { return tcsetattr(get_fd(), TCSANOW, _current.get()) == 0; }

bool Posix_serial_port::open_from_args(const char* args) {
    if (!args) return false;
    char text[max_args + 1];
    snprintf(text, sizeof text, "%.*s", max_args, args);
    // Device, speed, mode; an empty field keeps its place.
    enum { device, speed, mode, num_fields };
    char* fields[num_fields] = {};
    char* rest = text;
    for (char*& f : fields) f = strsep(&rest, ":");

    if (!open_default(fields[device])) return false;
    set_speed(fields[device], fields[speed]);
    const auto is_mode = [&](const char* name) { return fields[mode] && strncmp(fields[mode], name, 5) == 0; };
    // Written even if it reads the same: not every driver reports this switch.
    if (is_mode("rs485")) return write_lines(line_rs485, line_rs485, false);
    if (is_mode("rs232")) return write_lines(line_rs485, 0, false);
    return true;
}

/// Set the speed that a device argument gives, and tell when the line has another one then.
void Posix_serial_port::set_speed(const char* device, const char* text) {
    const char* end = "";
    const long wanted = text && *text ? Util::to_long32(text, 10, &end) : default_baud_rate;
    if (!set_baud_rate(wanted) || (*end == 0 && get_baudRate() == wanted)) return;
    Debug_print::dprint("%s: no speed %s, %ld bit/s are set\n", device, text, get_baudRate());
}

bool Posix_serial_port::set_baud_rate(long baud) {
    if (!usable()) return false;
    put_baud_rate(*_current, baud);
    return write_settings();
}

long Posix_serial_port::get_baudRate() const {
    if (!usable()) return 0;
    const speed_t code = cfgetispeed(_current.get());
    for (const Speed& s : speeds) {
        if (s.code == code) return s.baud;
    }
    return unknown_baud_rate;
}

bool Posix_serial_port::set_format(Format const& f) {
    if (!usable()) return false;
    put_format(*_current, f);
    return write_settings();
}

bool Posix_serial_port::get_format(Format& f) const {
    if (!usable()) return false;
    const tcflag_t flags = _current->c_cflag;
    f.bits = bits_8;
    for (const Size& s : sizes) {
        if (s.code == (flags & CSIZE)) f.bits = s.bits;
    }
    f.stop_bits = flags & CSTOPB ? stop_bits_2 : stop_bits_1;
    f.parity = !(flags & PARENB) ? parity_none : flags & PARODD ? parity_odd : parity_even;
    return true;
}

bool Posix_serial_port::set_handshake(handshake_t h) {
    if (!usable()) return false;
    put_handshake(*_current, h);
    const bool written = write_settings(); // RTS is raised whatever became of it
    return switch_rts(h) && written;
}

bool Posix_serial_port::get_status(Status& s) {
    if (!usable()) return false;
    s = Status();
    if (_current->c_cflag & CRTSCTS) {
        s.handshake = handshake_rts_cts;
    } else if (_current->c_iflag & (IXON | IXOFF)) {
        s.handshake = handshake_xon_xoff;
    }
    int lines = 0;
    if (ioctl(get_fd(), TIOCMGET, &lines) != 0) return false;
    const auto is_on = [lines](int line) { return static_cast<uint16_t>(lines & line ? 1 : 0); };
    s.dtr = is_on(TIOCM_DTR);
    s.rts = is_on(TIOCM_RTS);
    s.cts = is_on(TIOCM_CTS);
    s.dsr = is_on(TIOCM_DSR);
    return true;
}

bool Posix_serial_port::set_state(State const& s) {
    if (!usable()) return false;
    put_baud_rate(*_current, s.baud_rate);
    put_format(*_current, s.format);
    put_handshake(*_current, s.status.handshake);
    const bool written = write_settings(); // the modem lines follow whatever became of it
    if (s.status.handshake == handshake_rts_cts) return switch_rts(s.status.handshake) && written;
    const int lines = (s.status.dtr ? TIOCM_DTR : 0) | (s.status.rts ? TIOCM_RTS : 0);
    return write_lines(TIOCM_DTR | TIOCM_RTS, lines, true) && written;
}

bool Posix_serial_port::set_rts_state(bool on) { return usable() && write_lines(TIOCM_RTS, on ? TIOCM_RTS : 0, true); }

bool Posix_serial_port::set_dtr_state(bool on) { return usable() && write_lines(TIOCM_DTR, on ? TIOCM_DTR : 0, true); }

bool Posix_serial_port::switch_rts(handshake_t h) {
    return usable() && (h != handshake_rts_cts || set_rts_state(true));
}

/// Give the modem lines of `mask` the state that they have in `value`.
bool Posix_serial_port::write_lines(int mask, int value, bool only_changes) {
    int lines = 0;
    if (ioctl(get_fd(), TIOCMGET, &lines) != 0) return false;
    const int wanted = (lines & ~mask) | value;
    return (only_changes && wanted == lines) || ioctl(get_fd(), TIOCMSET, &wanted) == 0;
}
