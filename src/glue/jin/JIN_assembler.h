// SPDX-License-Identifier: MIT
#pragma once
#include "glue/jin/JIN_message.h"
#include "util/api.h"
#include <functional>

/// Puts whole messages together from the frames of a bus that is only listened to: a recorded log, or a raw socket. It
/// hears both kinds of transport, to all and between two nodes, and needs no answer of anybody.
///
/// Memory is bounded: 64 long messages at a time, the one that waits longest makes room. Bad frames cost what they
/// claim to be a part of. No lock; frames in their order.
class KAV_API JIN_assembler {
public:
    static constexpr unsigned max_sessions = 64;
    static constexpr int patience_ms = 1500; ///< [ms] between two frames of a message, longer than anybody waits

    /// Called with each whole message; its bytes stand until it returns.
    using Sink = std::function<void(const JIN_message&)>;
    explicit JIN_assembler(Sink sink);
    ~JIN_assembler();
    JIN_assembler(const JIN_assembler&) = delete;
    JIN_assembler& operator=(const JIN_assembler&) = delete;

    /// One frame with its 29-bit identifier and up to 8 bytes, and when it came: [ms] of any clock.
    void frame(uint32_t identifier, const unsigned char* bytes, unsigned n, int64_t now);
    /// Long messages that were begun and did not come whole.
    uint32_t incomplete() const { return _incomplete; }

private:
    struct Session;
    Session* find(uint8_t source, uint8_t destination);
    void close(Session& s, bool whole);
    void control(const JIN_message& m, int64_t now);
    void begin(const JIN_message& m, int64_t now);
    void data(const JIN_message& m, int64_t now);

    const Sink _sink;
    Session* const _sessions; ///< owned, as many as there can be
    uint32_t _incomplete = 0;
};
