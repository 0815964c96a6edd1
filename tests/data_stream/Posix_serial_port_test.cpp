// SPDX-License-Identifier: MIT
// A line of this program's own making: pseudo-terminals have no modem lines and keep neither sizes nor parity, so the
// calls that reach a driver end here.
#include "glue/data_stream/Posix_serial_port.h"
#include "support/test.h"
#include "util/api.h"
#include <sys/ioctl.h>
#include <termios.h>

namespace {

constexpr int line_fd = 12345; ///< no descriptor of the system has this number

struct Line {
    struct termios settings = {};
    int modem = 0;
    int settings_written = 0;
    std::vector<int> modem_written;
    bool fails = false;    ///< tcsetattr and ioctl
    bool is_fixed = false; ///< tcsetattr alone
} line;

int refuse() { return errno = EIO, -1; }

} // namespace

// Exported, so that the library finds them before the C library's.
extern "C" {

KAV_API int tcgetattr(int fd, struct termios* t) noexcept { return fd == line_fd ? (*t = line.settings, 0) : refuse(); }

KAV_API int tcsetattr(int fd, int when, const struct termios* t) noexcept {
    if (fd != line_fd || line.fails || line.is_fixed || when != TCSANOW) return refuse();
    line.settings = *t;
    return ++line.settings_written, 0;
}

KAV_API int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    int& word = *static_cast<int*>(va_arg(args, void*));
    va_end(args);
    if (fd != line_fd || line.fails || (request != TIOCMGET && request != TIOCMSET)) return refuse();
    if (request == TIOCMSET) line.modem_written.push_back(line.modem = word);
    return word = line.modem, 0;
}
}

namespace {

struct Port : Posix_serial_port {
    int get_fd() const override { return fd; }
    bool open_default(char const* path) override { return opened = path, init(); }

    int fd = line_fd;
    std::string opened;
};

Port::Format format(int bits, int stop_bits, int parity) {
    return {Port::bits_t(bits), Port::stop_bits_t(stop_bits), Port::parity_t(parity)};
}

class Serial_port : public testing::Test {
protected:
    Serial_port() {
        line = Line();
        EXPECT_VALUES("true true", port.init(), whole.init());
    }
    Port port, whole;
    Port::Status status;
};

TEST_F(Serial_port, init_makes_a_raw_line_and_a_second_one_keeps_what_was_saved) {
    line.settings.c_cflag = HUPCL | CS7 | PARENB;
    line.settings.c_lflag = ICANON | ECHO;
    line.settings.c_cc[VMIN] = line.settings.c_cc[VTIME] = 9;
    cfsetspeed(&line.settings, B50);
    const struct termios found = line.settings;
    Port p;
    ASSERT_TRUE(p.init());
    EXPECT_VALUES(texts(CREAD | CLOCAL | CS8 | B50, true, 1, 0), line.settings.c_cflag,
                  !(line.settings.c_lflag & (ICANON | ECHO)), line.settings.c_cc[VMIN], line.settings.c_cc[VTIME]);
    EXPECT_EQ(2400, p.get_baudRate()) << "a speed that is not in the table";
    EXPECT_VALUES("true true 115200", p.set_baud_rate(115200), p.init(), p.get_baudRate());
    EXPECT_VALUES("true 0", p.restore(), memcmp(&found, &line.settings, sizeof found));
}

TEST_F(Serial_port, does_nothing_while_closed_or_refused) {
    whole.fd = -1;
    line.fails = true;
    EXPECT_VALUES("false 0 false", Port().init(), whole.get_baudRate(), port.open_from_args("d::rs485"));
    for (Port* p : {&whole, &port})
        EXPECT_VALUES("false false false false false false false", p->restore(), p->set_baud_rate(9600),
                      p->set_format({}), p->get_status(status), p->set_handshake(status.handshake), p->set_state({}),
                      p->set_rts_state(true));
}

TEST_F(Serial_port, moves_the_modem_lines_of_a_handshake_though_the_line_refuses_its_settings) {
    line.is_fixed = true;
    EXPECT_VALUES(texts(false, TIOCM_RTS), port.set_handshake(Port::handshake_rts_cts), line.modem);
    Port::State state;
    state.status.dtr = 1;
    EXPECT_VALUES(texts(false, TIOCM_DTR), whole.set_state(state), line.modem);
    state.status.handshake = Port::handshake_rts_cts;
    EXPECT_VALUES(texts(false, TIOCM_DTR | TIOCM_RTS), whole.set_state(state), line.modem);
}

TEST_F(Serial_port, settings_are_written_together_or_one_by_one_and_read_back) {
    constexpr auto none = Port::handshake_none, hardware = Port::handshake_rts_cts, xon_xoff = Port::handshake_xon_xoff;
    const struct {
        long asked, got; ///< speed, raised to the next one that a line has
        Port::Format format, back;
        Port::handshake_t handshake;
        tcflag_t control, input;
        speed_t code;
    } cases[] = {
        {-1, 300, format(5, 1, 0), format(5, 1, 0), none, CS5, 0, B300},
        {301, 600, format(6, 2, 1), format(6, 2, 1), hardware, CS6 | CSTOPB | PARENB | PARODD | CRTSCTS, 0, B600},
        // An unknown parity is odd as before, or even as before.
        {9600, 9600, format(7, 1, 3), format(7, 1, 1), xon_xoff, CS7 | PARENB | PARODD, IXON | IXOFF, B9600},
        {57601, 115200, format(7, 1, 2), format(7, 1, 2), Port::handshake_t(3), CS7 | PARENB, 0, B115200},
        {1000000, 460800, format(9, 3, 3), format(8, 1, 2), none, CS8 | PARENB, 0, B460800},
    };
    for (const auto& c : cases) {
        for (const bool together : {false, true}) {
            SCOPED_TRACE(testing::Message() << c.asked << together);
            Port::State state;
            state.baud_rate = c.asked;
            state.format = c.format;
            state.status.handshake = c.handshake;
            state.status.dtr = 7;
            line.modem = TIOCM_CTS;
            line.settings_written = 0;
            Port& p = together ? whole : port;
            EXPECT_TRUE(together ? p.set_state(state)
                                 : p.set_baud_rate(c.asked) && p.set_format(c.format) && p.set_handshake(c.handshake));
            EXPECT_EQ(line.settings_written, together ? 1 : 3);
            EXPECT_EQ(line.modem, TIOCM_CTS | (c.handshake == hardware ? TIOCM_RTS : together ? TIOCM_DTR : 0));
            EXPECT_EQ(c.control, line.settings.c_cflag & (CSIZE | CSTOPB | PARENB | PARODD | CRTSCTS));
            EXPECT_EQ(c.input, line.settings.c_iflag & (IXON | IXOFF));
            EXPECT_VALUES(texts(c.code, c.got), cfgetospeed(&line.settings), p.get_baudRate());
            EXPECT_VALUES("true true true", p.get_format(state.format), state.format == c.back, p.get_status(status));
            EXPECT_EQ(status.handshake, c.handshake == 3 ? 0 : c.handshake);
        }
    }
}

TEST_F(Serial_port, modem_lines_are_written_only_when_they_change) {
    line.modem = TIOCM_DTR | TIOCM_CTS;
    Port::State state;
    state.status.dtr = 1;
    EXPECT_VALUES("true true true", port.set_dtr_state(true), port.set_rts_state(false), port.set_state(state));
    EXPECT_EQ(0u, line.modem_written.size());
    EXPECT_VALUES("true true", port.set_rts_state(true), port.set_dtr_state(false));
    EXPECT_EQ(std::vector<int>({TIOCM_DTR | TIOCM_CTS | TIOCM_RTS, TIOCM_CTS | TIOCM_RTS}), line.modem_written);
    for (int one : {TIOCM_DTR, TIOCM_RTS, TIOCM_CTS, TIOCM_DSR}) {
        line.modem = one;
        EXPECT_TRUE(port.get_status(status));
        EXPECT_EQ(one,
                  status.dtr * TIOCM_DTR + status.rts * TIOCM_RTS + status.cts * TIOCM_CTS + status.dsr * TIOCM_DSR);
    }
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
        line = Line();
        line.modem = modem;
        Port p;
        const std::string said = debug_text([&, &arguments = arguments] { p.open_from_args(arguments.c_str()); });
        EXPECT_VALUES(texts(path, baud), p.opened, p.get_baudRate()) << arguments;
        EXPECT_EQ(said, baud == 300     ? "d: no speed abc, 300 bit/s are set\n"
                        : baud == 57600 ? "d: no speed 50000, 57600 bit/s are set\n"
                                        : "");
        EXPECT_EQ(written, line.modem_written) << arguments;
    }
}

} // namespace
