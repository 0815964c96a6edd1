// SPDX-License-Identifier: MIT
#pragma once
#include "util/Mutex.h"
#include "util/Ring_buffer.h"
#include "util/api.h"
#include <cstdarg>
#include <cstdint>

class Binary_message;

/// A source and sink of bytes with a receive buffer. Consumers peek at buffered bytes, copy them out and drop them once
/// used; a subclass supplies two operations: fetch more bytes, and write.
///
/// One thread reads and one writes. A subclass whose buffer another thread fills sets `stream_lock`; then the buffer,
/// the counters and the name change under it alone, and every operation here takes it by itself. Without a lock all
/// three belong to the thread that uses the stream. None of these operations allocates.
class KAV_API Data_stream {
public:
    static constexpr uint32_t BUFFER_SIZE = 4200; ///< [bytes]
    static constexpr int name_size = 32;          ///< [bytes] with the zero

    /// Out-of-band control of a stream's line.
    class KAV_API Commander {
    public:
        /// Send a break; true when the line did. The duration is the system's own.
        virtual bool send_break(int duration) = 0;

    protected:
        ~Commander() = default;
    };

    Data_stream();
    virtual ~Data_stream();
    Data_stream(const Data_stream&) = delete;
    Data_stream& operator=(const Data_stream&) = delete;

    // The order of the virtual functions is part of the interface, as that of Diner.

    virtual void flush();
    /// Time-outs [ms]. 1, or 0 where the stream does not support them.
    virtual int set_read_timeout(int ms);
    virtual int set_default_read_timeout();
    virtual int set_write_timeout(int ms);
    virtual int set_default_write_timeout();
    /// Fetch at least `n` further bytes into the buffer; true when they arrived. Called with `stream_lock` held.
    virtual bool get_data(int n) = 0;
    /// Write; returns the count written. Failures that are not a short count are -1 and -4 as unsigned.
    virtual unsigned int _write(const unsigned char* data, unsigned int n) = 0;

    /// [bytes] buffered now.
    int bytes_avail();
    /// True when `n` bytes are buffered, after fetching what is missing. More than BUFFER_SIZE fails without fetching.
    bool bytes_avail(unsigned int n);
    /// Copy the first `n` bytes without consuming them, fetching what is missing. True only when all were copied.
    bool get_data(unsigned char* dest, unsigned int n);
    /// The i-th byte, fetching up to it; 0 when it cannot be had.
    unsigned char operator[](unsigned int i);
    /// Consume `n` bytes, fetching what is missing; false, and nothing dropped, when they cannot be had.
    bool drop(unsigned int n);
    void drop_all();

    bool _get_data(int n) { return get_data(n); }
    unsigned int __write(const unsigned char* data, unsigned int n) { return _write(data, n); }

    /// Formatted write; `echo` copies the text to the debug output. A text of 256 characters or more is sent as 255
    /// characters and the zero. True when _write returned non-zero, thus also on a closed stream.
    bool printf(const char* fmt, ...) KAV_PRINTF(2, 3);
    bool vprintf(const char* fmt, va_list args) KAV_PRINTF(2, 0);
    /// Write a message and, if asked for, a line feed. True when all of it was written; else one line on the debug
    /// output.
    bool write(Binary_message const& m, bool newline);
    /// Copy what `src` has buffered; it stays in `src`, to be dropped once the caller knows it was sent. True when
    /// _write returned non-zero.
    bool write(Data_stream& src);

    /// Hooks for a recorder of the bytes read; nothing here.
    void log_data(unsigned char* data, int n);
    void flush_log_data();

    /// The name in place: for the thread that opens and closes, and for streams without a lock. Others copy it.
    const char* get_name() const { return name; }
    void get_name(char (&copy)[name_size]) const; ///< as it is now; any thread

    /// The counters of a moment [bytes]; any thread.
    struct Counts {
        uint32_t lost, read, written;
    };
    Counts counts() const;

    /// A look into the receive buffer under one lock: for parsers, which would otherwise lock for each byte. While it
    /// stands no other operation of the stream may be called by this thread; release() it before calling out.
    class KAV_API Window {
    public:
        explicit Window(Data_stream& s) : _stream(s) { take(); }
        ~Window() {
            if (_held) release();
        }
        Window(const Window&) = delete;
        Window& operator=(const Window&) = delete;

        /// Lock again after a release().
        void take() KAV_NO_THREAD_SAFETY_ANALYSIS {
            if (_stream.stream_lock) _stream.stream_lock->lock();
            _held = true;
        }
        /// Unlock; spans are void afterwards.
        void release() KAV_NO_THREAD_SAFETY_ANALYSIS {
            if (_stream.stream_lock) _stream.stream_lock->unlock();
            _held = false;
        }
        uint32_t used() const { return _stream.buffer.used(); }
        /// True when `n` bytes are buffered, after fetching what is missing, as Data_stream::bytes_avail(n).
        bool ensure(uint32_t n) { return n <= used() || _stream.ensure(n); }
        /// The contiguous run of buffered bytes that begins at `offset`; its length goes to `n`. At most two runs hold
        /// everything. Valid until the next ensure, move, drop or release.
        const unsigned char* span(uint32_t offset, uint32_t& n) const { return _stream.buffer.span(offset, n); }
        /// The i-th byte, 0 when it is not buffered. Fetches nothing.
        unsigned char at(uint32_t i) const {
            return i < used() ? *_stream.buffer.at(i) : static_cast<unsigned char>(0);
        }
        /// Copy up to `n` bytes from the front without dropping them; returns how many.
        uint32_t peek(unsigned char* dest, uint32_t n) const { return _stream.buffer.peek(0, dest, n); }
        /// Number in the stream of the byte at the front, counted from 0: what was said about a byte before holds for
        /// the byte of the same number.
        uint64_t position() const { return _stream.buffer.dropped; }
        /// Copy up to `n` bytes from the front and drop them; returns how many.
        uint32_t move(unsigned char* dest, uint32_t n);
        uint32_t drop(uint32_t n) { return _stream.buffer.drop(n); }

    private:
        Data_stream& _stream;
        bool _held = false;
    };

    // The counters change under `stream_lock`, where there is one: hold it to look at them from another thread, or ask
    // counts().

    uint32_t bytes_lost = 0;    ///< received, but the buffer was full; for the streams that count
    uint32_t bytes_read = 0;    ///< for the streams that count
    uint32_t bytes_written = 0; ///< for the streams that count
    Ring_buffer buffer;

private:
    unsigned char _storage[BUFFER_SIZE];

public:
    bool echo = false; ///< copy what printf writes to the debug output
    /// Guards buffer, counters and name when another thread fills the buffer; not owned. Set before the stream is used.
    Mutex* stream_lock = nullptr;
    char name[name_size]; ///< for debugging: what the stream is connected to. Changes under `stream_lock`, as counters

protected:
    /// Format `name`, cut to its room; called without `stream_lock`.
    void set_name(const char* fmt, ...) KAV_PRINTF(2, 3);

private:
    bool ensure(uint32_t n);
};
