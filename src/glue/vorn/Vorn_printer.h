// SPDX-License-Identifier: MIT
#pragma once
#include "glue/vorn/GNSS_messages.h"
#include "util/api.h"

/// Turns a receiver message into one line of text. No lock, no allocation; numbers look the same in every locale.
class KAV_API Vorn_printer {
public:
    explicit Vorn_printer(bool v = true) : verbose(v) {}

    /// Print a message by its identifier into `buf` of `size` [bytes], cut to what fits with the zero.
    ///
    /// Messages of the catalogue: the length of the text in `buf`; 0, with `buf` unchanged and a line on standard
    /// output, when an array message is too short for its rule. Text messages (replies): the text as it stands, and
    /// the length that it has without the cut. Any other: a hex dump of the whole view in `buf`, a line on standard
    /// error, and 0. A `size` of 0 and less: nothing and 0.
    int snprint(const Vorn_message& msg, char* buf, int size) const;

    // The same for a message that is known to be of a class, whatever its identifier.
#define GNSS_EACH(name, wire) int snprint(const GNSS_messages::Msg_##name& m, char* buf, int size) const;
#define GNSS_TEXT(...)
#include "glue/vorn/GNSS_catalogue.h"

    bool verbose; ///< labelled form for people, else comma-separated for logs
};
