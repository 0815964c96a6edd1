// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/Data_stream.h"
#include "util/api.h"
#include <cstdint>

class Vorn_message;

/// Cuts the bytes of a receiver into packets: frames, text replies, and lines of text met while out of step.
///
///     while (int kind = parser.get_packet(packet, sizeof packet, len)) handle(kind, packet, len);
///
/// In step, the parser stands where a frame should begin. Two characters that cannot be an identifier, length digits
/// that are none and a header that the checker refuses put it out of step; then it hunts for the next line end and
/// hands out what lies before as text. Bytes are consumed only when it is decided what they are, so a frame that has
/// come in part costs nothing but its header's look at each call.
///
/// Missing bytes are fetched by the stream's own means. A threaded stream fetches nothing, so get_packet() never waits
/// there. A stream that reads on demand waits up to its read time-out: for the rest of a frame, and behind each packet
/// for a further line end. Set a short time-out there.
///
/// One thread uses a parser and is the only one that consumes from its stream. The stream's lock is held for a packet
/// at a time and released around the checker. No allocation. Cost: the bytes consumed, and those new since the last
/// call.
class KAV_API Vorn_parser {
public:
    /// What get_packet() found.
    enum Kind {
        kind_none = 0,  ///< nothing complete yet, or no stream
        kind_frame = 1, ///< a frame and its one line-end byte; see expect_line_end
        kind_reply = 2, ///< "RE" or "ER" with its line end and, where the buffer has room, two zeros
        kind_text = 3,  ///< a line met out of step with all its line-end bytes; it may consist of those alone
    };

    /// Decides by its header whether a frame is taken. A refused one is no loss of step for long: the hunt goes on from
    /// its second byte to the next line end.
    class KAV_API Checker {
    public:
        /// True to accept. `id`: first character in the low byte; `total_len`: length of the frame with header and
        /// checksum, without line end [bytes]. The frame stands at the front of `stream`, often in part only, and the
        /// same header is asked about at each call until the frame is complete, and once more when its rest came
        /// meanwhile: no frame is taken that was not there whole when it was asked about. The stream is not locked. May
        /// look, but must not consume.
        virtual bool check(Data_stream& stream, unsigned short id, int total_len) = 0;

    protected:
        ~Checker() = default;
    };

    /// Accepts everything.
    class KAV_API Dummy_checker final : public Checker {
    public:
        bool check(Data_stream& stream, unsigned short id, int total_len) override;
    };

    /// Reads from `s`, which is not owned and may be null: then there is never a packet. `flush`: forget what it has
    /// buffered.
    Vorn_parser(Data_stream* s, bool flush);
    Vorn_parser(const Vorn_parser&) = delete;
    Vorn_parser& operator=(const Vorn_parser&) = delete;

    /// Start afresh, in step, and forget what the stream has buffered.
    void init();
    void init(Data_stream* s);

    /// Null checks nothing. Not owned.
    void set_checker(Checker* c) { checker = c; }
    /// The same, and `look` answers for it: through the parser's own look at the stream, whose lock is not given up for
    /// it. It must not call the stream. For what a checker's own type offers, as Vorn_length_checker::serve().
    using Look = bool (*)(Checker& c, Data_stream::Window& window, unsigned short id, int total_len);
    void set_checker(Checker* c, Look look) {
        checker = _looking = c;
        _look = look;
    }

    /// True when the stream holds `i` bytes and the byte with index i is a line end. It asks for i bytes, not for i +
    /// 1: the byte itself is fetched by the look at it.
    bool is_newline(int i);

    /// Take the next packet: its kind, and in `len` the number of bytes placed in `buf`, 0 for kind_none. At most
    /// `buf_size` bytes [bytes] are taken; the rest of a longer packet stays and is met as the start of the next one,
    /// so give at least 4104. A `buf_size` below 1 takes nothing and makes no progress.
    int get_packet(unsigned char* buf, int buf_size, int& len);
    /// The same into the message's bytes. Its size is the room there and stays so: look at the packet through a view of
    /// `len` bytes, since the last byte of the view counts for the checksum.
    int get_packet(Vorn_message& msg, int& len);
    /// `len` of a frame, minus `len` of a text, else 0. A reply is consumed and gives 0 too: a loop that ends at 0
    /// stops behind it although more may wait. Where replies come, use the other forms.
    int get_packet(unsigned char* buf, int buf_size);

    Data_stream* stream;         ///< not owned
    int32_t synced = 1;          ///< 1 in step, 0 hunting for a line end
    bool expect_line_end = true; ///< a frame counts only with a line-end byte behind it; else LF is appended to it
    bool reserved = true;        ///< has no effect
    bool keep_on_reject = false; ///< a refused header stays part of the text; else its first byte is dropped
    Dummy_checker dummy_checker;
    Checker* checker = &dummy_checker; ///< not owned

private:
    struct Output;

    int in_step(Data_stream::Window& window, Output& out);
    bool accepted(Data_stream::Window& window, const unsigned char* id, int total);
    int reject(Data_stream::Window& window);
    int take_reply(Data_stream::Window& window, uint32_t need, Output& out);
    int take_frame(Data_stream::Window& window, uint32_t need, Output& out);
    int hunt(Data_stream::Window& window, Output& out);

    Checker* _looking = nullptr; ///< for whom `_look` answers while it is the checker
    Look _look = nullptr;
    // What `_hunted` has buffered before this position holds no line end.
    const Data_stream* _hunted = nullptr;
    uint64_t _hunted_to = 0;
};
