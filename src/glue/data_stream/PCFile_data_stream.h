// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/Data_stream.h"
#include "glue/diner/waiter_list.h"
#include "platform/pcf.h"
#include "util/Mutex.h"
#include "util/api.h"

class module_man;
class waiter_descriptor;
class waiter_event;

/// A stream over the controller's flash file store (platform/pcf.h), which has one slot for reading and one for
/// writing, shared by all streams of the process. A stream that is open must not be destroyed: that ends the process
/// with exit(-155).
///
/// Diners may register to be notified when the store is full or a write failed. The class keeps its own count of free
/// bytes, refreshed when a file is opened for writing.
class KAV_API PCFile_data_stream : public Data_stream {
public:
    enum events_t { event_write_failed = 0, event_full = 1 };

    /// Results of open and close; others are passed on from the store.
    enum Result {
        done = 0,
        gave_up = 1,     ///< writing: the attempts are used up
        not_mounted = 3, ///< or, for reading, no such file
        wrong_state = 4  ///< also: no space, reading attempts used up, close failed
    };

    // What all streams of the process share.

    static Mutex& mutex;
    static waiter_list& waiters;
    /// The store as it was last asked about, less what was written since.
    static PcfInfo pcf_info KAV_GUARDED_BY(mutex);

    PCFile_data_stream();
    ~PCFile_data_stream() override;

    /// Obtain the module id of the events; once, before waiters are used. False, with one line on the debug output,
    /// when there is none left: events carry 0 then, and is_event() knows none of them.
    static bool static_init(module_man& mm);
    static int register_waiter(waiter_descriptor* w) { return waiters.add(w); }      ///< 0; -1 when full, null or there
    static int deregister_waiter(waiter_descriptor* w) { return waiters.remove(w); } ///< 0; -1 when not there
    /// Notify every registered waiter.
    static void send_event(events_t e);
    static bool is_event(waiter_event const& e); ///< one of this class's; none is before static_init()

    static bool mounted();
    static bool exists(const char* path);
    static bool remove(const char* path);
    /// [bytes] used and in all; false, and both 0, when the store does not tell.
    static bool get_free_space(unsigned int& used, unsigned int& size);
    /// Copy a file over another, in pieces; false when nothing could be copied, and when a read or write failed: what
    /// was copied until then stays. Without room for the rest it stops, notifies the waiters, and returns true.
    static bool copy(const char* to, const char* from);

    /// Open with up to `retries` attempts 100 ms apart while the store is busy. 0 means for ever for reading and not at
    /// all for writing.
    int open_read(const char* path, int retries);
    int open_write(const char* path, int retries); ///< at the end of an existing file
    int close_read();
    int close_write();

    using Data_stream::get_data;
    bool get_data(int n) override;
    /// The count written; -4 when not open or when there is no room, which closes the file. Aborts when a write does
    /// not fit although more than 10 bytes are counted as free: the bookkeeping is broken then.
    unsigned int _write(const unsigned char* data, unsigned int n) override;

    bool is_open_read() const { return _read_open; }
    bool is_open_write() const { return _write_open; }

    /// The names of the files in the store.
    class KAV_API Iterator {
    public:
        Iterator();
        void reset();
        unsigned int next();    ///< step on; the new index
        const char* get_name(); ///< null at the end; valid until the next call
    private:
        unsigned int _index = 0;
        unsigned int _count = 0;
        char _name[PCF_NAME_SIZE];
    };

private:
    static void deliver(events_t e) KAV_REQUIRES(mutex);

    bool _read_open = false;
    bool _write_open = false;
    uint32_t _bytes_since_open = 0;
};
