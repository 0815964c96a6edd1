// SPDX-License-Identifier: MIT
#pragma once
#include "glue/vorn/Vorn_parser.h"

/// Accepts what the catalogue lists, at lengths that it can have. A length damaged on the line then costs its frame; a
/// parser without a checker waits for up to 4100 bytes and swallows the frames among them.
///
/// Messages outside the catalogue are refused: where the receiver sends others, derive from this class and accept them
/// first. No lock, no allocation.
class KAV_API Vorn_length_checker : public Vorn_parser::Checker {
public:
    virtual ~Vorn_length_checker() = default;
    bool check(Data_stream& stream, unsigned short id, int total_len) override;
    /// As parser.set_checker(this), but the parser keeps its stream's lock while it asks: two locks less for a frame.
    /// What a derived class makes of check() is not asked then; such a one uses set_checker().
    void serve(Vorn_parser& parser);
    /// True when the catalogue has the message and it can be so long, header and checksum included [bytes].
    bool possible(unsigned short id, int total_len) const;

    /// Longest frames accepted [bytes] of the messages whose length the catalogue leaves open: one element per
    /// satellite, and text.
    int longest_array = 160;
    int longest_text = 300;
};

/// Accepts likewise, and of a frame that can be had whole only when its checksum is right, in either form. Texts carry
/// none. So what looks like a frame in noise or in the rest of a cut one does not swallow the sound frame that begins
/// in it.
///
/// A stream that reads on demand is asked for the frame, and so may wait its read time-out here.
class KAV_API Vorn_checksum_checker : public Vorn_length_checker {
public:
    bool check(Data_stream& stream, unsigned short id, int total_len) override;
    void serve(Vorn_parser& parser); ///< as Vorn_length_checker::serve()
};
