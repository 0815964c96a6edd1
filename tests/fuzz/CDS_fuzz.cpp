// SPDX-License-Identifier: MIT
// What another party sends to whoever has a data block. "v", a byte that picks the item to begin at, and values for a
// block; "s", a byte that says where to cut, and a structure description; "b", the size of the pieces, and a client's
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

/// What is told of a description, written as one again.
class Reading : public Structure_visitor {
public:
    explicit Reading(const std::string& text) : _bytes(text.begin(), text.end()) {
        result = read_structure(_bytes.data(), static_cast<int>(text.size()), *this);
        again += std::string(static_cast<size_t>(_deepest), '}');
    }
    bool item(const Described_item& i) override {
        const char* const end = _bytes.data() + _bytes.size();
        require(i.name >= _bytes.data() && i.name_length >= 0 && i.name + i.name_length <= end,
                "names lie in the text");
        require(i.depth >= 0 && i.depth <= _deepest, "only a container has items one deeper");
        const bool first = again.empty() || (again.back() == '{' && i.depth == _deepest);
        char numbers[16];
        snprintf(numbers, sizeof numbers, "%x:%x:", unsigned{Data_item::get_type_byte(i.shape, i.type)},
                 unsigned{i.id});
        again += std::string(static_cast<size_t>(_deepest - i.depth), '}') + (first ? "" : ",") + numbers +
                 std::string(i.name, static_cast<size_t>(i.name_length)) + (i.container ? "{" : "");
        _deepest = i.depth + i.container;
        return true;
    }
    Structure_result result;
    std::string again;

private:
    const std::vector<char> _bytes; // so that a read behind them is seen
    int _deepest = 0;               ///< depth that the next item may have
};

void fuzz_structure(const std::string& text, unsigned char cut) {
    const Reading plain(text);
    if (plain.result != structure_complete) return;
    const Reading again(plain.again), head(plain.again.substr(0, cut * plain.again.size() / 256));
    require(again.result == structure_complete && again.again == plain.again, "what is written again reads the same");
    require(head.result == structure_cut || head.result == structure_complete, "a description that ends early is cut");
}

struct Served {
    Served() { Data_item::lookup_max_id = 1; } // the same identifiers each time
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

void fuzz_values(const std::vector<char>& values, unsigned char begin) {
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

    // What was taken in goes out as the same bytes, whatever the bytes were.
    char out_bytes[2][64];
    for (char* page : out_bytes) {
        Send_buffer out(page, 0, sizeof out_bytes[0]);
        unsigned short all = 0;
        root.serialise(out, all);
        Receive_buffer back(page, static_cast<int>(out.position - page));
        require(root.deserialise(back, all).ok() && back.remaining == 0, "its own stream is read whole");
    }
    require(memcmp(out_bytes[0], out_bytes[1], 30) == 0, "values survive the way out and in");
}

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

void fuzz_requests(const std::string& bytes, size_t piece) {
    Served s;
    for (size_t at = 0; at < bytes.size();) {
        require(s.responder.room() > 0, "there is room for a request");
        const size_t n = bytes.copy(s.responder.place(), std::min(piece, size_t(s.responder.room())), at);
        s.responder.received(static_cast<int>(n));
        at += n;
        take_answers(s, s.block);
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
    if (what == 'v') {
        const std::string values = in.rest();
        fuzz_values({values.begin(), values.end()}, how);
    };
    if (what == 's') fuzz_structure(in.rest(), how);
    if (what == 'b') fuzz_requests(in.rest(), 1u + how);
    if (what == 'f') fuzz_requests(frames_of(in), 1 + how * 16u);
}
