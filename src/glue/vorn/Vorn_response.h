// SPDX-License-Identifier: MIT
#pragma once
#include "glue/vorn/Vorn_message.h"

/// A text reply of the receiver to a command: "RE" with the value asked for, "ER" with the reason for the refusal. It
/// has no checksum and ends in CR LF.
class KAV_API Vorn_response : public Vorn_message {
public:
    Vorn_response(void* bytes, uint32_t n) : Vorn_message(bytes, n) {}
    explicit Vorn_response(const Binary_message& m) : Vorn_message(m) {}
    Vorn_response(const Vorn_response&) = default;
    Vorn_response& operator=(const Vorn_response&) = default;
    ~Vorn_response() override;

    /// True for "RE", false for everything else.
    bool get_response_status() const;
    /// The body with its line end; "" when it is empty or when the view does not hold 4 bytes behind it, with a zero
    /// among them: the parser delivers CR, LF and two zeros.
    const char* get_response_string() const;
    /// True when the reply begins with all of `expected`.
    bool check_response_string(const char* expected) const;
    /// Rewrite the length digits in lower case; `size` stays as it is. False, and nothing written, above 4095.
    bool set_msg_len(uint32_t body_len);

    /// Take off what stands before the text of a reply to a command that carried an identifier, "...%id%text": returns
    /// the text, its length [bytes] in `len`, without white space around it and without its line end. The view then
    /// begins at the text and is no frame any more; it ends at a zero byte or where it ended before. Null, `len` 0 and
    /// the view as it was when there are no two "%" or no text.
    const char* strip_identifier(int& len);
};
