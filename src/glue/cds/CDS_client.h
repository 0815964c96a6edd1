// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/CDS_frame.h"
#include "glue/data_stream/Data_stream.h"
#include "util/api.h"
#include <string>

namespace CDS::Remote {

/// Asks a Server about its data block. What it answers may be anything: read_structure() and the Receive_buffer stand
/// that. One thread at a time.
class KAV_API Client {
public:
    enum Result {
        done = 0,
        no_answer = 1, ///< none in time, or the line has ended
        busy = 2,      ///< the server has as many clients as it takes, and has hung up
        refused = 3,   ///< it does not know the request, or answers nonsense
        locked = 4     ///< the block's lock cannot be had: one of the controller's threads keeps it
    };
    static constexpr int attempts = 3;              ///< for each request; a line may lose bytes
    static constexpr int max_description = 4 << 20; ///< [bytes] above which a description is nonsense

    /// `line` outlives the client. Its read time-out, set by the caller, is the wait for the rest of an answer; without
    /// one a server that is silent is waited for for ever.
    explicit Client(Data_stream& line) : _line(line) {}

    /// The whole description, page by page.
    Result description(std::string& text);
    /// Values of an item, from `start` inside it on (0: from its own start), as many as fit into an answer; cut behind
    /// any byte. None when there is no such item.
    Result values(unsigned short item, unsigned short start, std::string& bytes);
    /// Give an item this value, an array's with the number of elements in front.
    Result write(unsigned short item, const std::string& value, Frame::Write_result& result);

private:
    Result ask(Frame::Kind kind, const std::string& contents, std::string& answer);
    Result receive(unsigned char tag, Frame::Kind kind, std::string& answer);

    Data_stream& _line;
    unsigned char _tag = 0;
};

} // namespace CDS::Remote
