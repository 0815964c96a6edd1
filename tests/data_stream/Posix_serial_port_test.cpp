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
#include <tuple>
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

int refuse() { return errno = EIO, -1; }

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
    if (line.fails || (request != TIOCMGET && request != TIOCMSET)) return refuse();
    int& word = *static_cast<int*>(argument);
    if (request == TIOCMSET) line.modem_written.push_back(line.modem = word);
    word = line.modem;
    return 0;
}
}

namespace {

struct Port : Posix_serial_port {
    int get_fd() const override { return fd; }
    bool open_default(char const* path) override { return opened = path, init(); }

    int fd = line_fd;
    std::string opened;
};

class Serial_port : public testing::Test {
protected:
    Serial_port() {
        line = Line();
        EXPECT_TRUE(port.init());
    }

    Port port;
    Port::Status status;
};

TEST_F(Serial_port, init_makes_a_raw_line_and_a_second_one_keeps_what_was_saved) {
    line.settings.c_cflag = HUPCL | CS7 | PARENB;
    line.settings.c_lflag = ICANON | ECHO;
    line.settings.c_cc[VMIN] = line.settings.c_cc[VTIME] = 9;
    const struct termios found = line.settings;
    Port p;
    ASSERT_TRUE(p.init());
    EXPECT_EQ(static_cast<tcflag_t>(CREAD | CLOCAL | CS8), line.settings.c_cflag);
    EXPECT_EQ(0u, line.settings.c_lflag & (ICANON | ECHO));
    EXPECT_TRUE(line.settings.c_cc[VMIN] == 1 && line.settings.c_cc[VTIME] == 0);
    EXPECT_TRUE(p.set_baud_rate(115200) && p.init());
    EXPECT_EQ(115200, p.get_baudRate()) << "the line's speed stays";
    EXPECT_TRUE(p.restore());
    EXPECT_EQ(0, memcmp(&found, &line.settings, sizeof found));
}

TEST_F(Serial_port, does_nothing_while_not_initialised_closed_or_refused) {
    const auto works = [&](Port& p) {
        return p.restore() || p.set_baud_rate(9600) || p.set_format({}) || p.set_handshake(status.handshake) ||
               p.get_status(status) || p.set_state({}) || p.set_rts_state(true) || p.set_dtr_state(true);
    };
    const auto answers = [](Port& p) {
        Port::Format f;
        return p.get_format(f) || p.get_baudRate() != 0 || p.switch_rts(Port::handshake_none);
    };
    Port fresh;
    EXPECT_FALSE(works(fresh) || answers(fresh));
    line.settings_fail = true;
    EXPECT_FALSE(fresh.init() || fresh.initialised());
    line.settings_fail = false;
    line.fails = true;
    EXPECT_FALSE(fresh.init() || fresh.initialised() || works(port));
    line.fails = false;
    port.fd = -1;
    EXPECT_FALSE(works(port) || answers(port) || port.init()) << "closed";
    EXPECT_EQ(0u, line.modem_written.size());
}

TEST_F(Serial_port, speeds_are_raised_to_the_next_one) {
    const std::tuple<long, speed_t, long> cases[] = {
        {-1, B300, 300},       {301, B600, 600},         {9600, B9600, 9600},
        {9601, B19200, 19200}, {57601, B115200, 115200}, {1000000, B460800, 460800},
    };
    for (const auto& [asked, code, got] : cases) {
        EXPECT_TRUE(port.set_baud_rate(asked));
        EXPECT_TRUE(cfgetispeed(&line.settings) == code && cfgetospeed(&line.settings) == code) << asked;
        EXPECT_EQ(got, port.get_baudRate());
    }
    cfsetspeed(&line.settings, B50);
    ASSERT_TRUE(port.init());
    EXPECT_EQ(2400, port.get_baudRate()) << "a speed that is not in the table";
}

TEST_F(Serial_port, formats_set_size_parity_and_stop_bits) {
    const auto format = [](int bits, int stop_bits, int parity) {
        return Port::Format{static_cast<Port::bits_t>(bits), static_cast<Port::stop_bits_t>(stop_bits),
                            static_cast<Port::parity_t>(parity)};
    };
    const std::tuple<Port::Format, tcflag_t, Port::Format> cases[] = {
        {format(5, 1, 0), CS5, format(5, 1, 0)},
        {format(6, 2, 1), CS6 | CSTOPB | PARENB | PARODD, format(6, 2, 1)},
        {format(7, 1, 3), CS7 | PARENB | PARODD, format(7, 1, 1)}, // unknown parity: odd as before
        {format(7, 1, 2), CS7 | PARENB, format(7, 1, 2)},
        {format(9, 3, 3), CS8 | PARENB, format(8, 1, 2)},
    };
    for (const auto& [asked, flags, expected] : cases) {
        Port::Format back;
        EXPECT_TRUE(port.set_format(asked) && port.get_format(back) && back == expected) << flags;
        EXPECT_EQ(flags, line.settings.c_cflag & (CSIZE | CSTOPB | PARENB | PARODD));
    }
}

TEST_F(Serial_port, handshakes_exclude_each_other_and_hardware_raises_rts) {
    const std::tuple<int, int, tcflag_t, tcflag_t, int> cases[] = {
        {Port::handshake_xon_xoff, Port::handshake_xon_xoff, 0, IXON | IXOFF, 0},
        {Port::handshake_rts_cts, Port::handshake_rts_cts, CRTSCTS, 0, TIOCM_RTS},
        {3, Port::handshake_none, 0, 0, 0},
    };
    for (const auto& [asked, back, control, input, modem] : cases) {
        line.modem = 0;
        EXPECT_TRUE(port.set_handshake(static_cast<Port::handshake_t>(asked)) && port.get_status(status));
        EXPECT_TRUE(status.handshake == back && line.modem == modem) << asked;
        EXPECT_TRUE((line.settings.c_cflag & CRTSCTS) == control) << asked;
        EXPECT_TRUE((line.settings.c_iflag & (IXON | IXOFF)) == input) << asked;
    }
}

TEST_F(Serial_port, modem_lines_are_written_only_when_they_change) {
    line.modem = TIOCM_DTR | TIOCM_CTS;
    EXPECT_TRUE(port.set_dtr_state(true) && port.set_rts_state(false));
    EXPECT_EQ(0u, line.modem_written.size());
    EXPECT_TRUE(port.set_rts_state(true) && port.set_dtr_state(false));
    EXPECT_EQ(std::vector<int>({TIOCM_DTR | TIOCM_CTS | TIOCM_RTS, TIOCM_CTS | TIOCM_RTS}), line.modem_written);
    for (int one : {TIOCM_DTR, TIOCM_RTS, TIOCM_CTS, TIOCM_DSR}) {
        line.modem = one;
        EXPECT_TRUE(port.get_status(status));
        EXPECT_EQ(std::vector<int>({one == TIOCM_DTR, one == TIOCM_RTS, one == TIOCM_CTS, one == TIOCM_DSR}),
                  std::vector<int>({status.dtr, status.rts, status.cts, status.dsr}));
    }
}

TEST_F(Serial_port, a_whole_state_is_written_once) {
    Port::State state;
    state.baud_rate = 4800;
    state.format = {Port::bits_7, Port::stop_bits_2, Port::parity_even};
    state.status.dtr = 7;
    line.settings_written = 0;
    line.modem = TIOCM_RTS | TIOCM_CTS;
    EXPECT_TRUE(port.set_state(state));
    EXPECT_EQ(1, line.settings_written);
    EXPECT_EQ(B4800, cfgetospeed(&line.settings));
    EXPECT_EQ(static_cast<tcflag_t>(CS7 | CSTOPB | PARENB), line.settings.c_cflag & (CSIZE | CSTOPB | PARENB));
    EXPECT_TRUE(port.set_state(state)) << "nothing changes";
    EXPECT_EQ(std::vector<int>({TIOCM_DTR | TIOCM_CTS}), line.modem_written) << "both lines at once, and once";
    state.status.handshake = Port::handshake_rts_cts;
    state.status.dtr = 0;
    EXPECT_TRUE(port.set_state(state));
    EXPECT_EQ(TIOCM_DTR | TIOCM_CTS | TIOCM_RTS, line.modem) << "RTS is raised, the given lines do not count";
}

TEST_F(Serial_port, device_arguments_keep_empty_fields_and_switch_the_transceiver) {
    constexpr int rs485 = 0x2000;
    const std::string long_path(300, 'p');
    const std::tuple<std::string, std::string, long, int, std::vector<int>> cases[] = {
        {"/dev/ttyS1:115200:rs485", "/dev/ttyS1", 115200, TIOCM_DTR, {TIOCM_DTR | rs485}},
        {"d:19200:rs232", "d", 19200, TIOCM_DTR | rs485, {TIOCM_DTR}},
        {"d:19200:rs232", "d", 19200, TIOCM_DTR, {TIOCM_DTR}}, // written though it reads the same
        {"d::rs485", "d", 9600, 0, {rs485}},
        {"d:50000:rs485x:more:fields", "d", 57600, 0, {rs485}},
        {"d:abc:rs4", "d", 300, 0, {}},
        {":1200", "", 1200, 0, {}},
        {long_path, long_path.substr(0, 256), 9600, rs485, {}},
    };
    for (const auto& [arguments, path, baud, modem, written] : cases) {
        SCOPED_TRACE(arguments);
        line = Line();
        line.modem = modem;
        Port p;
        EXPECT_TRUE(p.open_from_args(arguments.c_str()));
        EXPECT_EQ(path, p.opened);
        EXPECT_EQ(baud, p.get_baudRate());
        EXPECT_EQ(written, line.modem_written);
    }
    line.fails = true;
    EXPECT_FALSE(port.open_from_args("d::rs485") || port.open_from_args(nullptr));
}

} // namespace
