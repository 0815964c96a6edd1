// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <cstdarg>
#include <cstdio>

/// Output ports of the board. Here there is one, "stdio", and every port argument is accepted and ignored.
enum IOPortIndex { IOPORT_STDIO = 0, IOPORT_1 = 1, IOPORT_2 = 2 };

/// The library's one diagnostic output: printf-style functions on one stream, standard error unless another file is
/// chosen. All members are static; there are no instances.
///
/// Every formatting function cuts its text to 255 characters and writes it with one call, so that lines of different
/// threads mix only at call boundaries. Output errors are ignored. No locks of its own; the file and the reporter are
/// meant to be set at start-up.
class KAV_API Debug_print {
public:
    /// Receiver of error reports; slot order is part of the interface.
    class KAV_API Error_reporter_base {
    public:
        virtual ~Error_reporter_base();
        /// One report: source file, line, severity (0..255, meaning is the application's) and text.
        virtual void report(const char* file, unsigned line, unsigned char severity, const char* text) = 0;
    };

    /// The reporter until the application sets its own: prints "Dummy Report\n" whatever the report.
    class KAV_API Dummy_reporter : public Error_reporter_base {
    public:
        /// Static objects that die later may still report: they must not find a dead reporter.
        ~Dummy_reporter() override;
        void report(const char* file, unsigned line, unsigned char severity, const char* text) override;
    };
    static Dummy_reporter dummy_reporter;

    /// The output stream; standard error at start. Null counts as standard error.
    static FILE* debug_file;
    /// Where report() goes; `dummy_reporter` at start. Not owned.
    static Error_reporter_base* reporter;

    /// Write a text as it stands. `len` is ignored (callers pass -1); the text ends at its zero.
    static void printd(const char* s, int len);
    static void printd(IOPortIndex port, const char* s, int len);

    /// Formatted output without a flush.
    static void dprint(const char* fmt, ...) KAV_PRINTF(1, 2);
    static void dprint(IOPortIndex port, const char* fmt, ...) KAV_PRINTF(2, 3);
    /// Formatted output, flushed when asked for.
    static void cprint(bool flush, const char* fmt, ...) KAV_PRINTF(2, 3);
    /// Formatted output, always flushed.
    static void bprint(const char* fmt, ...) KAV_PRINTF(1, 2);
    /// bprint for a thread that must not wait: dropped when the output is stalled (see util/try_output.h). What
    /// precedes the end of the process is printed by it, so that the end comes.
    static void try_print(const char* fmt, ...) KAV_PRINTF(1, 2);
    /// dprint with a started argument list.
    static void vdprint(const char* fmt, va_list args) KAV_PRINTF(1, 0);

    /// One character on *standard output*, while the flush goes to the debug output: users redirect the two apart and
    /// rely on it.
    static void charput(char c);

    /// Each byte as "%02X(%c) " when printable (0x20..0x7E), else "%02X "; no line breaks.
    static void binprint(const unsigned char* p, unsigned n);
    /// Hex dump in rows of `width` bytes, each indented by four blanks and closed by its characters. Width 0 prints
    /// nothing.
    static void printhex(const unsigned char* p, unsigned n, unsigned width);

    /// One line "[seconds.millis|ThreadID:id] file:line: 'text'\n" of at most 255 characters, with the monotonic time.
    /// A newline that ends the text is left out.
    static void dprint_detail(const char* file, unsigned line, const char* fmt, ...) KAV_PRINTF(3, 4);

    /// Prints "DIE file=%s line=%s\n" and ends the process with exit(3358), which a parent sees as 30.
    [[noreturn]] static void die(const char* file, int line);

    /// Open `path` for writing and make it the output; standard error when that fails. The old file stays open, since
    /// another thread may just be writing to it.
    static void set_debug_file(const char* path);
    /// True for ports 1 and 2 only. The path is not used: on this platform every port is "stdio".
    static bool log_to_file(const char* path, IOPortIndex port);
    static void set_debug_port(IOPortIndex port);
    static void set_debug_port(const char* port);
    static IOPortIndex get_debug_port();
    static const char* get_debug_port_str(); ///< "stdio"
    static void print_debug_port();

    /// Replace the reporter; null switches reports off. The caller keeps it alive.
    static void set_reporter(Error_reporter_base* r);
    /// Hand a report to the reporter, if there is one.
    static void report(const char* file, unsigned line, unsigned char severity, const char* text);
};
