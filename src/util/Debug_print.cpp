// SPDX-License-Identifier: MIT
#include "util/Debug_print.h"
#include "util/try_output.h"
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>

namespace {

/// What every formatting function cuts its text to, with the closing zero.
constexpr int line_size = 256;

/// The output, also for static initialisers that run before this file's.
FILE* output() { return Debug_print::debug_file ? Debug_print::debug_file : stderr; }

void vprint(const char* fmt, va_list args) KAV_PRINTF(1, 0);
void vprint(const char* fmt, va_list args) {
    char text[line_size];
    if (vsnprintf(text, sizeof text, fmt, args) < 0) return;
    fputs(text, output());
}

bool printable(unsigned char c) { return c >= 0x20 && c <= 0x7E; }

} // namespace

Debug_print::Dummy_reporter Debug_print::dummy_reporter;
FILE* Debug_print::debug_file = stderr;
Debug_print::Error_reporter_base* Debug_print::reporter = &dummy_reporter;

Debug_print::Error_reporter_base::~Error_reporter_base() = default;

Debug_print::Dummy_reporter::~Dummy_reporter() {
    if (reporter == this) reporter = nullptr;
}

void Debug_print::Dummy_reporter::report(const char*, unsigned, unsigned char, const char*) {
    dprint("Dummy Report\n");
}

void Debug_print::printd(const char* s, int) { fputs(s, output()); }
void Debug_print::printd(IOPortIndex, const char* s, int len) { printd(s, len); }

void Debug_print::dprint(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vprint(fmt, args);
    va_end(args);
}

void Debug_print::dprint(IOPortIndex, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vprint(fmt, args);
    va_end(args);
}

void Debug_print::vdprint(const char* fmt, va_list args) { vprint(fmt, args); }

void Debug_print::cprint(bool flush, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vprint(fmt, args);
    va_end(args);
    if (flush) fflush(output());
}

void Debug_print::bprint(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vprint(fmt, args);
    va_end(args);
    fflush(output());
}

void Debug_print::try_print(const char* fmt, ...) {
    char text[line_size];
    va_list args;
    va_start(args, fmt);
    const int length = vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    if (length >= 0) Util::try_printf(output(), "%s", text);
}

void Debug_print::charput(char c) {
    putchar(c);
    fflush(output());
}

void Debug_print::binprint(const unsigned char* p, unsigned n) {
    for (unsigned i = 0; i < n; ++i) {
        const unsigned byte = p[i];
        if (printable(p[i])) {
            dprint("%02X(%c) ", byte, p[i]);
        } else {
            dprint("%02X ", byte);
        }
    }
}

void Debug_print::printhex(const unsigned char* p, unsigned n, unsigned width) {
    if (width == 0) return;
    // The characters of the row, as many as one print can show; a longer row still counts its places.
    char column[line_size - 1] = "";
    unsigned length = 0;
    for (unsigned i = 0; i < n; ++i) {
        if (i % width == 0) {
            dprint(" %s\n    ", column);
            length = 0;
        }
        dprint("%02lx ", static_cast<unsigned long>(p[i]));
        if (length < sizeof column - 1) {
            column[length] = printable(p[i]) ? static_cast<char>(p[i]) : '.';
            column[length + 1] = '\0';
        }
        ++length;
    }
    for (unsigned missing = width - length; missing > 0; --missing) dprint("   ");
    dprint(" %s\n", column);
}

void Debug_print::dprint_detail(const char* file, unsigned line, const char* fmt, ...) {
    struct timespec now;
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) now = {};
    char thread[24] = "";
    snprintf(thread, sizeof thread, "%p", reinterpret_cast<void*>(pthread_self()));

    // Room for a closing "'\n" is kept free behind header and message, however long they are.
    constexpr int room = line_size - 2;
    char text[line_size];
    int header =
        snprintf(text, sizeof text, "[%5u.%03u%s%s] %s:%u: '", static_cast<unsigned>(now.tv_sec),
                 static_cast<unsigned>(now.tv_nsec / 1000000), thread[0] ? "|ThreadID:" : "", thread, file, line);
    if (header < 0) return;
    if (header >= room) header = room - 1;
    va_list args;
    va_start(args, fmt);
    int message = vsnprintf(text + header, static_cast<size_t>(room - header), fmt, args);
    va_end(args);
    if (message < 0) message = 0;
    int end = header + message;
    if (end >= room) end = room - 1;
    if (end > header && text[end - 1] == '\n') --end;
    memcpy(text + end, "'\n", 3);
    printd(text, -1);
}

void Debug_print::die(const char* file, int line) {
    char digits[12];
    snprintf(digits, sizeof digits, "%d", line);
    try_print("DIE file=%s line=%s\n", file, digits);
    exit(3358);
}

void Debug_print::set_debug_file(const char* path) {
    FILE* file = path ? fopen(path, "w") : nullptr;
    debug_file = file ? file : stderr;
}

bool Debug_print::log_to_file(const char*, IOPortIndex port) {
    if (port != IOPORT_1 && port != IOPORT_2) return false;
    set_debug_port(port);
    return true;
}

void Debug_print::set_debug_port(IOPortIndex) {}
void Debug_print::set_debug_port(const char*) {}
IOPortIndex Debug_print::get_debug_port() { return IOPORT_STDIO; }
const char* Debug_print::get_debug_port_str() { return "stdio"; }
void Debug_print::print_debug_port() { dprint("%s\n", get_debug_port_str()); }

void Debug_print::set_reporter(Error_reporter_base* r) { reporter = r; }

void Debug_print::report(const char* file, unsigned line, unsigned char severity, const char* text) {
    if (reporter) reporter->report(file, line, severity, text);
}
