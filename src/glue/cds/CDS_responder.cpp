// SPDX-License-Identifier: MIT
#include "glue/cds/CDS_responder.h"
#include "glue/cds/CDSLookup.h"
#include "glue/cds/CDS_events.h"
#include <climits>
#include <cstring>

namespace CDS::Remote {
namespace {

/// A short array would leave half of its elements changed and nobody told, so a value is looked at before it is taken.
/// `own` is the item as it is now.
bool is_a_value(const Lookup_item& item, const Receive_buffer& value, Receive_buffer own) {
    if (value.remaining == 0) return false;
    Data_item::class_type_t shape;
    Data_item::item_type_t type;
    Data_item::decode_type_byte(shape, type, item.get_type_byte());
    if (shape != Data_item::class_array) return value.remaining == own.remaining;
    unsigned char capacity = 0, count = 0;
    own.pop_UINT8(capacity);
    Receive_buffer elements = value;
    elements.pop_UINT8(count);
    return capacity > 0 && count <= capacity && elements.remaining == count * (own.remaining / capacity);
}

} // namespace

Responder::Step Responder::step() {
    if (num_pending() > 0) return waiting;
    Frame request;
    const int size = request.read(_in, _num_in);
    if (size <= 0) return size < 0 ? malformed : waiting;
    Frame reply = request;
    Send_buffer out(_out + Frame::head_size, 0, Frame::max_contents);
    answer(request, reply, out);
    reply.contents = _out + Frame::head_size;
    reply.length = static_cast<int>(out.position - reply.contents);
    _num_out = reply.write_to(_out);
    _num_sent = 0;
    _num_in -= size;
    memmove(_in, _in + size, static_cast<size_t>(_num_in));
    return answered;
}

void Responder::refuse(Frame::Refusal reason) {
    Frame reply;
    reply.kind = Frame::refusal;
    const char contents = static_cast<char>(reason);
    reply.contents = &contents;
    reply.length = 1;
    _num_out = reply.write_to(_out);
    _num_sent = 0;
}

void Responder::answer(const Frame& request, Frame& reply, Send_buffer& out) {
    const bool known = request.kind == Frame::values || request.kind == Frame::write;
    if (request.kind == Frame::description) return describe(Receive_buffer(request.contents, request.length), out);
    Head& head = *_root.get_head();
    if (known && head.try_lock(lock_ms)) {
        answer_locked(request, out);
        head.unlock();
        return;
    }
    reply.kind = Frame::refusal;
    out.append_UINT8(known ? Frame::block_locked : Frame::bad_request);
}

void Responder::answer_locked(const Frame& request, Send_buffer& out) {
    const Receive_buffer in(request.contents, request.length);
    if (request.kind == Frame::values) return read_values(in, out);
    const Frame::Write_result result = write_value(in, out.position);
    out.append_UINT8(result);
}

/// The tree does not change, so this needs no lock.
void Responder::describe(Receive_buffer in, Send_buffer& out) {
    unsigned int skip = 0;
    in.pop_UINT32(skip);
    if (skip > INT_MAX) return;
    out.skip = static_cast<int>(skip);
    _root.serialise_structure(out, 255);
}

void Responder::read_values(Receive_buffer in, Send_buffer& out) {
    unsigned short id = 0, start = 0;
    if (!in.pop_UINT16(id) || !in.pop_UINT16(start)) return;
    Lookup_item* const item = _root.find_item(id);
    if (item) item->serialise(out, start);
}

Frame::Write_result Responder::write_value(Receive_buffer in, char* scratch) {
    unsigned short id = 0, from_its_start = 0;
    Lookup_item* const item = in.pop_UINT16(id) ? _root.find_item(id) : nullptr;
    if (!item || item->as_struct()) return Frame::no_such_item;
    Send_buffer own(scratch, 0, Frame::max_contents);
    item->serialise(own, from_its_start);
    if (!is_a_value(*item, in, Receive_buffer(scratch, static_cast<int>(own.position - scratch))))
        return Frame::wrong_length;
    if (!_rule || !_rule(*item, in)) return Frame::not_allowed;
    from_its_start = 0;
    return item->deserialise(in, from_its_start).ok() ? Frame::written : Frame::wrong_length;
}

} // namespace CDS::Remote
