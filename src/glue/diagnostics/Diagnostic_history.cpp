// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Diagnostic_history.h"
#include "util/Debug_print.h"

Diagnostic_history::Diagnostic_history() : time(true) {}
Diagnostic_history::~Diagnostic_history() = default;

bool Diagnostic_history::check_ready() { return time < Atime::now(); }
void Diagnostic_history::history_finished() {}
void Diagnostic_history::history_started() {}

void Diagnostic_history::set_filter(unsigned char src, unsigned short err, unsigned int from, unsigned int to) {
    _filter_source = src;
    _filter_error = err;
    _filter_from = from;
    _filter_to = to;
}

void Diagnostic_history::_output(unsigned char src, unsigned short a, unsigned short b, unsigned int t,
                                 unsigned short ms) {
    if (t < _filter_from || t >= _filter_to) return;
    if (_filter_source != 0 && _filter_source != src) return;
    if (_filter_error != 0 && _filter_error != b) return;
    output(src, a, b, t, ms);
}

void Debug_print_diagnostic_history::output(unsigned char src, unsigned short a, unsigned short b, unsigned int t,
                                            unsigned short ms) {
    Debug_print::bprint("ERR,%d:%d,%d,%d.%03d\n", static_cast<int>(src), static_cast<int>(b), static_cast<int>(a),
                        static_cast<int>(t), static_cast<int>(ms));
}
