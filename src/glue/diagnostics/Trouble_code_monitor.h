// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diagnostics/Identification.h"
#include "glue/diagnostics/Trouble_code_messages.h"
#include "glue/jin/JIN_message.h"
#include "glue/jin/JIN_name.h"
#include "util/api.h"
#include "util/atime.h"
#include <memory>
#include <string>
#include <vector>

/// What the nodes of a bus say about themselves: who they are, and which codes they have. It listens; whoever has it
/// feeds it the messages, from an inbox or a log, with the time at which they came.
///
/// Memory is bounded: a row for each address, and in it what its last messages said. Whatever a node says changes its
/// own row only. No lock.
class KAV_API Trouble_code_monitor {
public:
    static constexpr int silence_ms = 3000;       ///< [ms] without DM1 until codes are doubtful
    static constexpr int slowest_packet_ms = 200; ///< [ms] that each packet of a long DM1 adds to that

    struct Code {
        Trouble_code code;
        Atime first{false}, last{false}; ///< when a DM1 with it came
    };
    struct KAV_API Node {
        JIN_name name;      ///< not set until its claim was heard
        Atime heard{false}; ///< the last time
        uint32_t messages = 0;

        bool has_DM1 = false;
        Atime told{false};         ///< when the last DM1 came
        int patience = silence_ms; ///< [ms] until the next one should have come
        Trouble_code_messages::Lamps lamps = Trouble_code_messages::Lamps::not_used();
        std::vector<Code> active; ///< ordered by SPN and FMI, each once
        bool has_DM2 = false;
        std::vector<Trouble_code> previous; ///< as in its last DM2

        std::vector<std::string> software, product, ECU; ///< fields; empty until they were heard
        bool has_certificate = false, has_protocols = false;
        Identification::Certificate certificate;
        std::vector<Identification::Functionality> functionalities;
        uint8_t protocols = 0;

        /// It had codes and tells them no longer: it was switched off, or they went and it does not say so. A node
        /// without codes may be silent for ever.
        bool silent(const Atime& now) const;
    };

    /// A message that came; false when it says nothing that is kept here but that the node is there.
    bool take(const JIN_message& m, const Atime& now);
    /// The node of an address: null when nothing was heard from it. It stands until the next message.
    const Node* node(unsigned address) const;
    /// The lowest address from this one on that was heard; 254 when there is none.
    unsigned next(unsigned address) const;

private:
    void claim(const JIN_message& m, const Atime& now);
    void take_DM1(Node& n, const JIN_message& m, const Atime& now);
    Node& row(uint8_t address);

    static constexpr unsigned num_rows = JIN::highest_unicast + 1;
    std::unique_ptr<Node> _rows[num_rows];
    std::vector<Code> _next; ///< the codes of a message, before they take the place of those before
};
