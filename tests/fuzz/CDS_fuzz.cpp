// SPDX-License-Identifier: MIT
// What another party sends to whoever has a data block. "v", a byte that picks the item to begin at, and values for a
// block; "s", a byte, and a structure description; "b", the size of the pieces, and a client's
// bytes as they are; or "f", the size of the pieces, and requests: kind, tag, number of contents, contents; a tag of
// 255 damages the frame.
#include "cds/Block_fixture.h"
#include "fuzz/checks.h"
#include "glue/cds/CDS_remote.h"
#include "glue/cds/CDS_responder.h"
#include "glue/cds/CDS_structure.h"
#include <vector>

using namespace CDS::Remote;

namespace {

struct Reading : Structure_visitor {
    explicit Reading(const std::string& text) : bytes(text.begin(), text.end()) {
        read_structure(bytes.data(), static_cast<int>(text.size()), *this);
    }
    bool item(const Described_item& i) override {
        require(i.name >= bytes.data() && i.name_length >= 0 && i.name + i.name_length <= bytes.data() + bytes.size(),
                "names lie in the text");
        require(i.depth >= 0 && i.depth <= deepest, "only a container has items one deeper");
        deepest = i.depth + i.container;
        return true;
    }
    const std::vector<char> bytes; // so that a read behind them is seen
    int deepest = 0;               ///< depth that the next item may have
};

struct Served : Described_block {
    /// Nobody may write the counter.
    Write_rule rule = [this](const CDS::Lookup_item& item, Receive_buffer value) {
        require(value.remaining >= 1 && value.remaining <= 9, "a value that the rule is asked about has its length");
        return &item != &items.counter;
    };
    Responder responder{items.root, rule};
};

void fuzz_values(const std::string& bytes, unsigned char begin) {
    const std::vector<char> values(bytes.begin(), bytes.end());
    Served s;
    CDS::Root& root = s.items.root;
    std::lock_guard<Mutex> guard(s.head);
    const int size = static_cast<int>(values.size());
    Receive_buffer in(values.data(), size);
    unsigned short start = begin % 12;
    const Data_item::Serial_ret result = root.deserialise(in, start);
    require(in.remaining >= 0 && in.position + in.remaining == values.data() + size, "the reader stays in the bytes");
    require(result.ok() || root.find_item(result.stop()), "a failure names an item");
    require(!result.next_set() || root.find_item(result.next()), "a place to resume is an item");
}

void fuzz_requests(const std::string& bytes, size_t piece) {
    Served s;
    Responder& r = s.responder;
    Block before = s.block;
    for (size_t at = 0; at < bytes.size();) {
        require(r.room() > 0, "there is room for a request");
        const size_t n = bytes.copy(r.place(), std::min(piece, size_t(r.room())), at);
        r.received(static_cast<int>(n));
        at += n;
        for (Responder::Step step; (step = r.step()) != Responder::waiting; before = s.block) {
            if (step == Responder::malformed) {
                r.forget();
                break;
            }
            Frame answer;
            require(answer.read(r.pending(), r.num_pending()) == r.num_pending(), "an answer is a frame");
            require(s.block.counter == before.counter, "what nobody may write is as it was");
            const bool wrote = answer.kind == Frame::write && answer.contents[0] == Frame::written;
            require(wrote || memcmp(&before, &s.block, sizeof before) == 0, "what fails or reads changes nothing");
            for (; r.num_pending() > 0; r.sent(std::min(r.num_pending(), 100)))
                require(r.step() == Responder::waiting, "one answer at a time");
        }
    }
}

std::string frames_of(Input in) {
    std::string all;
    while (!in.is_empty()) {
        Frame f;
        f.kind = static_cast<char>(in.next()), f.tag = in.next();
        const std::string contents = in.next(in.next());
        f.contents = contents.data(), f.length = static_cast<int>(contents.size());
        char bytes[Frame::max_size];
        const int size = f.write_to(bytes);
        if (f.tag == 255) bytes[size - 1] ^= 1;
        all.append(bytes, static_cast<size_t>(size));
    }
    return all;
}

} // namespace

void fuzz(Input in) {
    const char what = static_cast<char>(in.next());
    const uint8_t how = in.next();
    if (what == 'v') fuzz_values(in.rest(), how);
    if (what == 's') Reading(in.rest());
    if (what == 'b') fuzz_requests(in.rest(), 1u + how);
    if (what == 'f') fuzz_requests(frames_of(in), 1 + how * 16u);
}
