// SPDX-License-Identifier: MIT
#include "glue/vorn/Vorn_checkers.h"
#include "glue/vorn/GNSS_messages.h"
#include <algorithm>

bool Vorn_length_checker::check(Data_stream&, unsigned short id, int total_len) { return possible(id, total_len); }

bool Vorn_length_checker::possible(unsigned short id, int total_len) const {
    const GNSS_messages::Info* known = GNSS_messages::find(id);
    if (!known) return false;
    int longest = known->max_length;
    if (known->form == GNSS_messages::Form::array) longest = std::min(longest, longest_array);
    if (known->form == GNSS_messages::Form::text) longest = std::min(longest, longest_text);
    return total_len >= known->min_length && total_len <= longest;
}

void Vorn_length_checker::serve(Vorn_parser& parser) {
    parser.set_checker(this, [](Vorn_parser::Checker& c, Data_stream::Window&, unsigned short id, int total_len) {
        return static_cast<Vorn_length_checker&>(c).possible(id, total_len);
    });
}

namespace {

/// `get(dest, n)` copies the frame that the front of a stream holds; false when it is not there.
template <class Get>
bool sound(const Vorn_checksum_checker& c, unsigned short id, int total_len, Get get) {
    if (!c.possible(id, total_len)) return false;
    if (!GNSS_messages::has_checksum(id)) return true;
    const auto n = static_cast<unsigned>(total_len);
    unsigned char frame[Vorn_message::header_size + Vorn_message::max_body + 1];
    if (!get(frame, n)) return true;
    frame[n] = '\n'; // whether a line end follows on the wire is the parser's business
    return Vorn_message(frame, n + 1).check_checksum();
}

} // namespace

bool Vorn_checksum_checker::check(Data_stream& stream, unsigned short id, int total_len) {
    return sound(*this, id, total_len, [&](unsigned char* dest, unsigned n) { return stream.get_data(dest, n); });
}

void Vorn_checksum_checker::serve(Vorn_parser& parser) {
    parser.set_checker(this, [](Vorn_parser::Checker& c, Data_stream::Window& w, unsigned short id, int total_len) {
        return sound(static_cast<Vorn_checksum_checker&>(c), id, total_len,
                     [&](unsigned char* dest, unsigned n) { return w.ensure(n) && w.peek(dest, n) == n; });
    });
}
