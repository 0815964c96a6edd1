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

bool Vorn_checksum_checker::check(Data_stream& stream, unsigned short id, int total_len) {
    if (!Vorn_length_checker::check(stream, id, total_len)) return false;
    if (!GNSS_messages::has_checksum(id)) return true;
    const auto n = static_cast<unsigned>(total_len);
    unsigned char frame[Vorn_message::header_size + Vorn_message::max_body + 1];
    if (!stream.get_data(frame, n)) return true;
    frame[n] = '\n'; // whether a line end follows on the wire is the parser's business
    return Vorn_message(frame, n + 1).check_checksum();
}
