// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/Data_stream.h"
#include "glue/vorn/Vorn_printer.h"
#include "track_plot/Track_plot.h"
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>

/// Prints and counts packets. Used by one thread at a time.
class Report {
public:
    explicit Report(bool csv) : _printer(!csv), _comma(csv ? "," : " "), _csv(csv) {}

    /// A packet as the parser delivers it; `kind` is one of Vorn_parser::Kind.
    void packet(int kind, unsigned char* bytes, int len);
    /// Why printing failed for the first time (errno): EPIPE when nobody reads any more. 0 when all arrived.
    int output_error() const { return _output_error; }
    /// To standard error. `incomplete` [bytes]: what is left in the stream.
    void summary(const Data_stream& stream, int incomplete) const;
    /// Draw the positions met, marked where bytes were damaged on the line. False when that cannot be: errno.
    bool write_plot(const std::string& path) const { return _plot.write(path.c_str()); }

private:
    void print(int kind, unsigned char* bytes, uint32_t n);
    void line(const std::string& id, const std::string& rest) const;
    void frame(unsigned char* bytes, uint32_t n);
    void reply(unsigned char* bytes, uint32_t n);
    void text(const unsigned char* bytes, uint32_t n);

    Vorn_printer _printer;
    Track_plot _plot;
    const char* _comma;
    bool _csv;
    std::map<uint16_t, unsigned> _frames; ///< by identifier
    int _output_error = 0;
    unsigned _wrong = 0, _replies = 0, _errors = 0, _texts = 0;
    char _line[32 * 1024]; ///< the longest array of a frame needs 25 KB
};
