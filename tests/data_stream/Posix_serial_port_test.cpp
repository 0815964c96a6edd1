// SPDX-License-Identifier: MIT
// A line of this program's own making: pseudo-terminals have no modem lines and keep neither sizes nor parity, so the
// calls that reach a driver end here.
#include "glue/data_stream/Posix_serial_port.h"
#include "util/api.h"
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int line_fd = 12345; ///< no descriptor of the system has this number

struct Line {
    struct termios settings = {};
    int modem = 0;
    int settings_written = 0;
    std::vector<int> modem_written;
    bool fails = false;         ///< every call
    bool settings_fail = false; ///< tcsetattr only
} line;

int refuse() {
    errno = EIO;
    return -1;
}

} // namespace

// Exported, so that the library finds them before the C library's.
extern "C" {

KAV_API int tcgetattr(int fd, struct termios* t) noexcept {
    if (fd != line_fd || line.fails) return refuse();
    *t = line.settings;
    return 0;
}

KAV_API int tcsetattr(int fd, int when, const struct termios* t) noexcept {
    if (fd != line_fd || line.fails || line.settings_fail || when != TCSANOW) return refuse();
    line.settings = *t;
    ++line.settings_written;
    return 0;
}

KAV_API int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    void* argument = va_arg(args, void*);
    va_end(args);
    if (fd != line_fd) return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
    int& word = *static_cast<int*>(argument);
    if (!line.fails && request == TIOCMGET) {
        word = line.modem;
        return 0;
    }
    if (line.fails || request != TIOCMSET) return refuse();
    line.modem_written.push_back(line.modem = word);
    return 0;
}
}

namespace {

class Port : public Posix_serial_port {
public:
    int get_fd() const override { return fd; }
    bool open_default(char const* path) override {
        opened = path;
        return init();
    }

    int fd = line_fd;
    std::string opened;
};

class Serial_port : public testing::Test {
protected:
    Serial_port() { line = Line(); }

    Port port;
};

tcflag_t control_flags(tcflag_t mask) { return line.settings.c_cflag & mask; }

TEST_F(Serial_port, init_makes_a_raw_line_and_a_second_one_keeps_what_was_saved) {
    line.settings.c_cflag = HUPCL | CS7 | PARENB;
    line.settings.c_lflag = ICANON | ECHO;
    line.settings.c_cc[VMIN] = line.settings.c_cc[VTIME] = 9;
    const struct termios found = line.settings;
    ASSERT_TRUE(port.init());
    EXPECT_EQ(static_cast<tcflag_t>(CREAD | CLOCAL | CS8), line.settings.c_cflag);
    EXPECT_EQ(0u, line.settings.c_lflag & (ICANON | ECHO));
    EXPECT_EQ(1, line.settings.c_cc[VMIN]);
    EXPECT_EQ(0, line.settings.c_cc[VTIME]);
    EXPECT_TRUE(port.set_baud_rate(115200) && port.init());
    EXPECT_EQ(115200, port.get_baudRate()) << "the line's speed stays";
    EXPECT_TRUE(port.restore());
    EXPECT_EQ(0, memcmp(&found, &line.settings, sizeof found));
}

TEST_F(Serial_port, does_nothing_while_not_initialised_closed_or_refused) {
    const auto any_works = [&] {
        Posix_serial_port::Status s;
        return port.restore() || port.set_baud_rate(9600) || port.set_format({}) || port.set_handshake(s.handshake) ||
               port.get_status(s) || port.set_state({}) || port.set_rts_state(true) || port.set_dtr_state(true);
    };
    const auto any_answers = [&] {
        Posix_serial_port::Format f;
        return port.get_format(f) || port.get_baudRate() != 0 || port.switch_rts(Port::handshake_none);
    };
    EXPECT_FALSE(any_works() || any_answers());
    for (bool* refused : {&line.fails, &line.settings_fail}) {
        *refused = true;
        EXPECT_FALSE(port.init() || port.initialised());
        *refused = false;
    }
    ASSERT_TRUE(port.init());
    port.fd = -1;
    EXPECT_FALSE(any_works() || any_answers() || port.init()) << "closed";
    port.fd = line_fd;
    line.fails = true;
    EXPECT_FALSE(any_works());
    EXPECT_EQ(0u, line.modem_written.size());
}

TEST_F(Serial_port, speeds_are_raised_to_the_next_one) {
    const struct {
        long asked;
        speed_t code;
        long got;
    } cases[] = {{-1, B300, 300},           {300, B300, 300},          {301, B600, 600},
                 {1200, B1200, 1200},       {2400, B2400, 2400},       {4800, B4800, 4800},
                 {9600, B9600, 9600},       {14400, B19200, 19200},    {38400, B38400, 38400},
                 {57600, B57600, 57600},    {100000, B115200, 115200}, {230400, B230400, 230400},
                 {460800, B460800, 460800}, {1000000, B460800, 460800}};
    ASSERT_TRUE(port.init());
    for (const auto& c : cases) {
        EXPECT_TRUE(port.set_baud_rate(c.asked));
        EXPECT_EQ(c.code, cfgetispeed(&line.settings)) << c.asked;
        EXPECT_EQ(c.code, cfgetospeed(&line.settings)) << c.asked;
        EXPECT_EQ(c.got, port.get_baudRate());
    }
    cfsetspeed(&line.settings, B50);
    ASSERT_TRUE(port.init());
    EXPECT_EQ(2400, port.get_baudRate()) << "a speed that is not in the table";
}

TEST_F(Serial_port, formats_set_size_parity_and_stop_bits) {
    using P = Posix_serial_port;
    constexpr tcflag_t odd = PARENB | PARODD;
    const struct {
        int bits, stop_bits, parity;
        tcflag_t flags;
        P::Format back;
    } cases[] = {
        {5, 1, 0, CS5, {P::bits_5, P::stop_bits_1, P::parity_none}},
        {6, 2, 1, CS6 | CSTOPB | odd, {P::bits_6, P::stop_bits_2, P::parity_odd}},
        {7, 1, 3, CS7 | odd, {P::bits_7, P::stop_bits_1, P::parity_odd}}, // unknown parity: odd as before
        {7, 1, 2, CS7 | PARENB, {P::bits_7, P::stop_bits_1, P::parity_even}},
        {9, 3, 3, CS8 | PARENB, {P::bits_8, P::stop_bits_1, P::parity_even}},
        {8, 1, 0, CS8, P::Format()},
    };
    ASSERT_TRUE(port.init());
    P::Format last;
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.bits << c.stop_bits << c.parity);
        EXPECT_TRUE(port.set_format({static_cast<P::bits_t>(c.bits), static_cast<P::stop_bits_t>(c.stop_bits),
                                     static_cast<P::parity_t>(c.parity)}));
        EXPECT_EQ(c.flags, control_flags(CSIZE | CSTOPB | PARENB | PARODD));
        P::Format back;
        EXPECT_TRUE(port.get_format(back) && back == c.back && back != last);
        last = back;
    }
}

TEST_F(Serial_port, handshakes_exclude_each_other_and_hardware_raises_rts) {
    ASSERT_TRUE(port.init());
    const struct {
        Port::handshake_t handshake, back;
        tcflag_t control, input;
        int modem;
    } cases[] = {{Port::handshake_xon_xoff, Port::handshake_xon_xoff, 0, IXON | IXOFF, TIOCM_CTS},
                 {Port::handshake_rts_cts, Port::handshake_rts_cts, CRTSCTS, 0, TIOCM_CTS | TIOCM_RTS},
                 {static_cast<Port::handshake_t>(3), Port::handshake_none, 0, 0, TIOCM_CTS}};
    for (const auto& c : cases) {
        line.modem = TIOCM_CTS;
        EXPECT_TRUE(port.set_handshake(c.handshake));
        EXPECT_EQ(c.control, control_flags(CRTSCTS));
        EXPECT_EQ(c.input, line.settings.c_iflag & (IXON | IXOFF));
        EXPECT_EQ(c.modem, line.modem);
        Posix_serial_port::Status s;
        EXPECT_TRUE(port.get_status(s));
        EXPECT_EQ(c.back, s.handshake);
    }
}

TEST_F(Serial_port, modem_lines_are_written_only_when_they_change) {
    ASSERT_TRUE(port.init());
    line.modem = TIOCM_DTR | TIOCM_CTS;
    EXPECT_TRUE(port.set_dtr_state(true) && port.set_rts_state(false));
    EXPECT_EQ(0u, line.modem_written.size());
    EXPECT_TRUE(port.set_rts_state(true) && port.set_dtr_state(false));
    EXPECT_EQ(std::vector<int>({TIOCM_DTR | TIOCM_CTS | TIOCM_RTS, TIOCM_CTS | TIOCM_RTS}), line.modem_written);
    const int lines[] = {TIOCM_DTR, TIOCM_RTS, TIOCM_CTS, TIOCM_DSR};
    for (int i = 0; i < 4; ++i) {
        line.modem = lines[i];
        Posix_serial_port::Status s;
        EXPECT_TRUE(port.get_status(s));
        const std::vector<uint16_t> got = {s.dtr, s.rts, s.cts, s.dsr};
        EXPECT_EQ(1, got[static_cast<size_t>(i)]);
        EXPECT_EQ(1, s.dtr + s.rts + s.cts + s.dsr);
    }
}

TEST_F(Serial_port, a_whole_state_is_written_once) {
    ASSERT_TRUE(port.init());
    Posix_serial_port::State state;
    state.baud_rate = 4800;
    state.format = {Port::bits_7, Port::stop_bits_2, Port::parity_even};
    state.status.dtr = 7;
    line.settings_written = 0;
    line.modem = TIOCM_RTS | TIOCM_CTS;
    EXPECT_TRUE(port.set_state(state));
    EXPECT_EQ(1, line.settings_written);
    EXPECT_EQ(B4800, cfgetospeed(&line.settings));
    EXPECT_EQ(static_cast<tcflag_t>(CS7 | CSTOPB | PARENB), control_flags(CSIZE | CSTOPB | PARENB | CRTSCTS));
    EXPECT_EQ(std::vector<int>({TIOCM_DTR | TIOCM_CTS}), line.modem_written) << "both lines at once";
    EXPECT_TRUE(port.set_state(state));
    EXPECT_EQ(1u, line.modem_written.size()) << "nothing changed";
    const Posix_serial_port::State before = state;
    state.status.handshake = Port::handshake_rts_cts;
    state.status.dtr = 0;
    EXPECT_TRUE(port.set_state(state));
    EXPECT_EQ(TIOCM_DTR | TIOCM_CTS | TIOCM_RTS, line.modem) << "RTS is raised, the given lines do not count";
    EXPECT_TRUE(state == state && state != before && state.format == before.format);
}

TEST_F(Serial_port, device_arguments_keep_empty_fields_and_switch_the_transceiver) {
    constexpr int rs485 = 0x2000;
    const std::string long_path(300, 'p');
    const struct {
        std::string args, path;
        long baud;
        int before; ///< modem lines
        std::vector<int> written;
    } cases[] = {
        {"/dev/ttyS0", "/dev/ttyS0", 9600, rs485, {}},
        {"/dev/ttyS1:115200:rs485", "/dev/ttyS1", 115200, TIOCM_DTR, {TIOCM_DTR | rs485}},
        {"/dev/ttyS0:19200:rs232", "/dev/ttyS0", 19200, TIOCM_DTR | rs485, {TIOCM_DTR}},
        {"/dev/ttyS0:19200:rs232", "/dev/ttyS0", 19200, TIOCM_DTR, {TIOCM_DTR}}, // written though it reads the same
        {"d::rs485", "d", 9600, 0, {rs485}},
        {"d:50000:rs485x:more:fields", "d", 57600, 0, {rs485}},
        {"d:1200:rs4", "d", 1200, 0, {}},
        {"d:abc", "d", 300, 0, {}},
        {":1200", "", 1200, 0, {}},
        {long_path, long_path.substr(0, 256), 9600, 0, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        line = Line();
        cfsetspeed(&line.settings, B50);
        line.modem = c.before;
        Port p;
        EXPECT_TRUE(p.open_from_args(c.args.c_str()));
        EXPECT_EQ(c.path, p.opened);
        EXPECT_EQ(c.baud, p.get_baudRate());
        EXPECT_EQ(c.written, line.modem_written);
    }
    line.fails = true;
    EXPECT_FALSE(port.open_from_args("d::rs485") || port.open_from_args(nullptr));
}

} // namespace
