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
    std::string log;       ///< what was written: s settings, [DR] modem lines
    bool fails = false;    ///< tcsetattr and ioctl
    bool is_fixed = false; ///< tcsetattr alone
} line;

std::string modem_text(int lines) {
    std::string all;
    for (const auto& [bit, letter] :
         {std::pair(TIOCM_DTR, 'D'), {TIOCM_RTS, 'R'}, {TIOCM_CTS, 'C'}, {TIOCM_DSR, 'S'}, {0x2000, '4'}})
        if (lines & bit) all += letter;
    return all;
}

int refuse() { return errno = EIO, -1; }

} // namespace

// Exported, so that the library finds them before the C library's.
extern "C" {

KAV_API int tcgetattr(int fd, struct termios* t) noexcept { return fd == line_fd ? (*t = line.settings, 0) : refuse(); }

KAV_API int tcsetattr(int fd, int when, const struct termios* t) noexcept {
    if (fd != line_fd || line.fails || line.is_fixed || when != TCSANOW) return refuse();
    line.settings = *t;
    return line.log += 's', 0;
}

KAV_API int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    int& word = *static_cast<int*>(va_arg(args, void*));
    va_end(args);
    if (fd != line_fd || line.fails || (request != TIOCMGET && request != TIOCMSET)) return refuse();
    if (request == TIOCMSET) line.log += "[" + modem_text(line.modem = word) + "]";
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
constexpr auto none = Port::handshake_none, hardware = Port::handshake_rts_cts, xon_xoff = Port::handshake_xon_xoff;

class Serial_port : public testing::Test {
protected:
    Serial_port() {
        line = Line();
        EXPECT_VALUES("true true", port.init(), whole.init());
        line.log.clear();
    }
    Port port, whole;
    Port::Status status;
    Port::State state;
};

TEST_F(Serial_port, init_makes_a_raw_line_and_a_second_one_keeps_what_was_saved) {
    line.settings.c_cflag = HUPCL | CS7 | PARENB;
    line.settings.c_lflag = ICANON | ECHO;
    line.settings.c_cc[VMIN] = line.settings.c_cc[VTIME] = 9;
    cfsetspeed(&line.settings, B50);
    const struct termios found = line.settings;
    Port p;
    EXPECT_VALUES("true 2400", p.init(), p.get_baudRate()) << "a speed that is not in the table";
    EXPECT_VALUES(texts(CREAD | CLOCAL | CS8 | B50, 0, 1, 0), line.settings.c_cflag,
                  line.settings.c_lflag & (ICANON | ECHO), line.settings.c_cc[VMIN], line.settings.c_cc[VTIME]);
    EXPECT_VALUES("true true 115200", p.set_baud_rate(115200), p.init(), p.get_baudRate());
    EXPECT_VALUES("true 0", p.restore(), memcmp(&found, &line.settings, sizeof found));
}

TEST_F(Serial_port, does_nothing_while_closed_or_refused_but_to_move_the_modem_lines_of_a_handshake) {
    line.is_fixed = true;
    state.status.dtr = 1;
    EXPECT_VALUES("false false", port.set_handshake(hardware), whole.set_state(state));
    state.status.handshake = hardware;
    EXPECT_VALUES("false [R][D][DR]", whole.set_state(state), line.log);
    whole.fd = -1;
    line.fails = true;
    EXPECT_VALUES("false 0 false", Port().init(), whole.get_baudRate(), port.open_from_args("d::rs485"));
    for (Port* p : {&whole, &port})
        EXPECT_VALUES("false false false false false false false", p->restore(), p->set_baud_rate(9600),
                      p->set_format({}), p->get_status(status), p->set_handshake(none), p->set_state({}),
                      p->set_rts_state(true));
}

TEST_F(Serial_port, settings_are_written_together_or_one_by_one_and_read_back) {
    const struct {
        long asked, got; ///< speed, raised to the next one that a line has
        speed_t code;
        int bits, stop_bits, parity, handshake;
        const char* back; ///< bits, stop bits, parity, handshake
        tcflag_t control, input;
        const char *log, *log_together;
    } cases[] = {
        {-1, 300, B300, 5, 1, 0, none, "5 1 0 0", CS5, 0, "sss", "s[DC]"},
        {301, 600, B600, 6, 2, 1, hardware, "6 2 1 1", CS6 | CSTOPB | PARENB | PARODD | CRTSCTS, 0, "sss[RC]", "s[RC]"},
        // An unknown parity is odd as before, or even as before.
        {9600, 9600, B9600, 7, 1, 3, xon_xoff, "7 1 1 2", CS7 | PARENB | PARODD, IXON | IXOFF, "sss", "s[DC]"},
        {57601, 115200, B115200, 7, 1, 2, 3, "7 1 2 0", CS7 | PARENB, 0, "sss", "s[DC]"},
        {1000000, 460800, B460800, 9, 3, 3, none, "8 1 2 0", CS8 | PARENB, 0, "sss", "s[DC]"},
    };
    state.status.dtr = 7;
    for (const auto& c : cases) {
        const Port::Format asked = {Port::bits_t(c.bits), Port::stop_bits_t(c.stop_bits), Port::parity_t(c.parity)};
        state.baud_rate = c.asked;
        state.format = asked;
        state.status.handshake = Port::handshake_t(c.handshake);
        for (Port* p : {&port, &whole}) {
            line.modem = TIOCM_CTS;
            line.log.clear();
            EXPECT_TRUE(p == &port ? p->set_baud_rate(c.asked) && p->set_format(asked) &&
                                         p->set_handshake(state.status.handshake)
                                   : p->set_state(state));
            EXPECT_VALUES(texts(p == &port ? c.log : c.log_together, c.control, c.input, c.code, c.got), line.log,
                          line.settings.c_cflag & (CSIZE | CSTOPB | PARENB | PARODD | CRTSCTS),
                          line.settings.c_iflag & (IXON | IXOFF), cfgetospeed(&line.settings), p->get_baudRate());
            Port::Format f;
            EXPECT_VALUES("true true", p->get_format(f), p->get_status(status));
            EXPECT_VALUES(c.back, f.bits, f.stop_bits, f.parity, status.handshake);
            EXPECT_EQ(f == asked, texts(c.bits, c.stop_bits, c.parity) == std::string(c.back, 5));
        }
    }
}

TEST_F(Serial_port, modem_lines_are_written_only_when_they_change) {
    line.modem = TIOCM_DTR | TIOCM_CTS;
    state.status.dtr = 1;
    EXPECT_VALUES("true true true s", port.set_dtr_state(true), port.set_rts_state(false), port.set_state(state),
                  line.log);
    EXPECT_VALUES("true true s[DRC][RC]", port.set_rts_state(true), port.set_dtr_state(false), line.log);
    for (int one : {TIOCM_DTR, TIOCM_RTS, TIOCM_CTS, TIOCM_DSR}) {
        line.modem = one;
        EXPECT_TRUE(port.get_status(status));
        EXPECT_EQ(modem_text(one), std::string(status.dtr, 'D') + std::string(status.rts, 'R') +
                                       std::string(status.cts, 'C') + std::string(status.dsr, 'S'));
    }
}

TEST_F(Serial_port, device_arguments_keep_empty_fields_and_switch_the_transceiver) {
    const std::string long_path(300, 'p');
    const std::tuple<std::string, int, std::string, const char*> cases[] = {
        {"/dev/ttyS1:115200:rs485", TIOCM_DTR, "/dev/ttyS1 115200 ss[D4]", ""},
        {"d:19200:rs232", TIOCM_DTR | Port::line_rs485, "d 19200 ss[D]", ""},
        {"d:19200:rs232", TIOCM_DTR, "d 19200 ss[D]", ""}, // written though it reads the same
        {"d::rs485", 0, "d 9600 ss[4]", ""},
        {"d:50000:rs485x:more:fields", 0, "d 57600 ss[4]", "d: no speed 50000, 57600 bit/s are set\n"},
        {"d:abc:rs4", 0, "d 300 ss", "d: no speed abc, 300 bit/s are set\n"},
        {":1200", 0, " 1200 ss", ""},
        {long_path, Port::line_rs485, long_path.substr(0, 256) + " 9600 ss", ""},
    };
    for (const auto& [arguments, modem, done, told] : cases) {
        line = Line();
        line.modem = modem;
        Port p;
        EXPECT_EQ(told, debug_text([&, a = arguments] { p.open_from_args(a.c_str()); }));
        EXPECT_VALUES(done, p.opened, p.get_baudRate(), line.log) << arguments;
    }
}

} // namespace
