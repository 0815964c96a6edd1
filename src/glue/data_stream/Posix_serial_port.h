// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <cstdint>
#include <memory>

struct termios;

/// The settings of a serial line: speed, character format, handshake, modem lines, and whether the transceiver speaks
/// RS-232 or RS-485. A stream over such a line derives from it. Operations belong to the thread that opens and closes
/// the stream; there is no lock.
///
/// Every operation returns false (or 0) while the port is not initialised or its stream is closed, and when a system
/// call fails. Settings are kept here and written whole; the getters report what is kept, so they also show what a line
/// cannot do (a pseudo-terminal has neither 7 bits nor parity nor modem lines).
class KAV_API Posix_serial_port {
public:
    enum bits_t : int { bits_5 = 5, bits_6 = 6, bits_7 = 7, bits_8 = 8 }; ///< [bits] of a character
    enum stop_bits_t : int { stop_bits_1 = 1, stop_bits_2 = 2 };
    enum parity_t : int { parity_none = 0, parity_odd = 1, parity_even = 2 };
    enum handshake_t : int { handshake_none = 0, handshake_rts_cts = 1, handshake_xon_xoff = 2 };

    /// How a character looks on the line.
    struct KAV_API Format {
        Format() = default;
        Format(bits_t b, stop_bits_t s, parity_t p) : bits(b), stop_bits(s), parity(p) {}
        bool operator==(Format const& o) const;
        bool operator!=(Format const& o) const { return !(*this == o); }

        bits_t bits = bits_8;
        stop_bits_t stop_bits = stop_bits_1;
        parity_t parity = parity_none;
    };

    /// Handshake and modem lines; a line that is on is not 0.
    struct KAV_API Status {
        bool operator==(Status const& o) const;
        bool operator!=(Status const& o) const { return !(*this == o); }

        handshake_t handshake = handshake_none;
        uint16_t dtr = 0; ///< out: this side is there
        uint16_t rts = 0; ///< out: this side may be sent to
        uint16_t cts = 0; ///< in: the other side may be sent to
        uint16_t dsr = 0; ///< in: the other side is there
    };

    struct KAV_API State {
        bool operator==(State const& o) const;
        bool operator!=(State const& o) const { return !(*this == o); }

        long baud_rate = default_baud_rate; ///< [bit/s]
        Format format;
        Status status;
    };

    static constexpr long default_baud_rate = 9600; ///< [bit/s] of a device argument that names none
    static constexpr int max_args = 256;            ///< [characters] of a device argument that count
    /// The modem line that the board's serial driver uses as a switch: on for RS-485, off for RS-232.
    static constexpr int line_rs485 = 0x2000;

    Posix_serial_port();
    Posix_serial_port(const Posix_serial_port&) = delete;
    Posix_serial_port& operator=(const Posix_serial_port&) = delete;

    // Slot order is part of the interface.

    virtual int get_fd() const = 0;                  ///< of the line, negative while it is closed
    virtual bool open_default(const char* path) = 0; ///< open the device and init() the port

    /// Remember the line's settings and make it a plain byte line: raw, a read returns from one byte on, modem lines
    /// ignored and left on at the close. The speed stays. On a port that is initialised the settings first remembered
    /// stay remembered. False when it is no terminal; the port is not initialised then.
    bool init();
    /// Forget the settings. The line keeps those it has.
    void deinit();
    bool initialised() const { return _current != nullptr; }
    /// Write back the settings that init() remembered. The next change writes this port's own again.
    bool restore();

    /// Open by a device argument "device[:baud[:mode]]", of which 256 characters count: device path, speed [bit/s]
    /// (9600 when missing or empty; a line on the debug output tells when it becomes another one), "rs485" or "rs232"
    /// (anything else leaves the transceiver as it is; text behind the five characters is ignored). False when
    /// open_default() fails or the transceiver cannot be switched.
    bool open_from_args(const char* args);

    /// Whether an opening from now on claims the line for this program: false at first. Then opening fails, with a line
    /// on the debug output, while another program has claimed it, and others cannot open it or are told so until it is
    /// closed. The claim is a lock of the file (flock), which programs respect that ask for one, and the line's own
    /// exclusive mode (TIOCEXCL), which keeps out all but those of the administrator.
    void set_exclusive(bool on) { _exclusive = on; }

    /// A speed [bit/s] from 300 to 460800. Others become the next higher one that a line has, or 460800.
    bool set_baud_rate(long baud);
    /// [bit/s], 2400 when the line has a speed outside that range.
    long get_baudRate() const;
    /// An unknown number of bits becomes 8. An unknown parity is odd or even as before.
    bool set_format(Format const& f);
    bool get_format(Format& f) const;
    /// Hardware handshake also raises RTS, even when the line does not take the setting, which false reports.
    bool set_handshake(handshake_t h);
    /// False when the modem lines cannot be read; they are 0 then, the handshake is right.
    bool get_status(Status& s);
    /// Speed, format and handshake at once; then, whatever became of them, DTR and RTS as given, or RTS raised for
    /// hardware handshake. True when both were done.
    bool set_state(State const& s);

    bool set_rts_state(bool on);
    bool set_dtr_state(bool on);
    /// Raise RTS if `h` is hardware handshake.
    bool switch_rts(handshake_t h);

protected:
    ~Posix_serial_port();

    /// After the opening of `path`: claim the line, if that is wanted, and init(). False with a line on the debug
    /// output when another program has it, `claimed` is false then, or when it is no terminal.
    bool init_opened(const char* path, bool& claimed);
    /// Before the closing: give up what was claimed.
    void release_claim();

private:
    bool usable() const { return initialised() && get_fd() >= 0; }
    void set_speed(const char* device, const char* text);
    bool write_settings();
    bool write_lines(int mask, int value, bool only_changes);

    std::unique_ptr<struct termios> _current; ///< null while not initialised
    std::unique_ptr<struct termios> _saved;   ///< the line as init() found it
    bool _exclusive = false;
    bool _has_claim = false;
};
