// SPDX-License-Identifier: MIT
// What a server of a data block does with a client's bytes. "b", the size of the pieces, and bytes as they are; or "f"
// and requests: kind, tag, number of contents, contents; a tag of 255 damages the frame.
#include "cds/Block_fixture.h"
#include "fuzz/checks.h"
#include "glue/cds/CDS_responder.h"
#include <algorithm>

using namespace CDS::Remote;

namespace {

struct Served {
    Served() { Data_item::lookup_max_id = 1; }
    CDS::Head head{nullptr, 0};
    Block block{};
    Block_items items{head, block};
    /// Nobody may write the counter.
    Write_rule rule = [this](const CDS::Lookup_item& item, Receive_buffer value) {
        require(value.remaining >= 1 && value.remaining <= 9, "a value that the rule is asked about has its length");
        return &item != &items.counter;
    };
    Responder responder{items.root, rule};
};

/// Send the answers away, in pieces; each is one frame.
void take_answers(Served& s, Block before) {
    Responder& r = s.responder;
    for (;;) {
        const Responder::Step step = r.step();
        if (step == Responder::waiting) return;
        if (step == Responder::malformed) return r.forget();
        Frame answer;
        require(answer.read(r.pending(), r.num_pending()) == r.num_pending(), "an answer is a frame");
        require(s.block.counter == before.counter, "what nobody may write is as it was");
        const bool wrote = answer.kind == Frame::write && answer.contents[0] == Frame::written;
        require(wrote || memcmp(&before, &s.block, sizeof before) == 0, "what is no write, or fails, changes nothing");
        before = s.block;
        while (r.num_pending() > 0) {
            require(r.step() == Responder::waiting, "one answer at a time");
            r.sent(std::min(r.num_pending(), 100));
        }
    }
}

void feed(Served& s, const std::string& bytes, size_t piece) {
    for (size_t at = 0; at < bytes.size();) {
        require(s.responder.room() > 0, "there is room for a request");
        const size_t n = std::min({piece, bytes.size() - at, static_cast<size_t>(s.responder.room())});
        memcpy(s.responder.place(), &bytes[at], n);
        s.responder.received(static_cast<int>(n));
        at += n;
        take_answers(s, s.block);
    }
}

std::string frames_of(const std::string& script) {
    std::string all;
    for (size_t at = 0; at + 3 <= script.size();) {
        const size_t n = std::min<size_t>(static_cast<unsigned char>(script[at + 2]), script.size() - at - 3);
        Frame f;
        f.kind = script[at], f.tag = static_cast<unsigned char>(script[at + 1]);
        f.contents = &script[at + 3], f.length = static_cast<int>(n);
        char bytes[Frame::max_size];
        const int size = f.write_to(bytes);
        if (f.tag == 255) bytes[size - 1] ^= 1;
        all.append(bytes, static_cast<size_t>(size));
        at += 3 + n;
    }
    return all;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    Served s;
    const std::string rest = text_of(data + 2, size - 2);
    if (data[0] == 'b')
        feed(s, rest, 1 + data[1]);
    else
        feed(s, frames_of(rest), 1 + data[1] * 16u);
    return 0;
}
