// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/PCFile_data_stream.h"
#include "glue/diagnostics/Diagnostic_history.h"
#include "glue/diner/Diner_protection.h"
#include "util/api.h"
#include <atomic>
#include <functional>

class Vorn_parser;

/// Keeps the history of error events in ten rotating files of the flash store, "BASE0.dat" to "BASE9.dat", and replays
/// it.
///
/// A record is appended with open, write, close, so power failing costs one record at most. The file behind the current
/// one never exists: that is how the current one is found again at start, and the file that a replay leaves out. When a
/// record would pass the limit of a file, or the store is full, the oldest file makes room; a replay that stands there
/// goes on behind it.
///
/// A replay holds the manager's lock while it reads: files are small, and sinks pace themselves through check_ready().
/// It survives stop() and start(). While debug category 61 is on, each replay is repeated on the debug output.
class KAV_API Diagnostics : public Diner::Protection {
public:
    static constexpr int num_files = 10;
    static constexpr int longest_base_name = 26;  ///< [characters]
    static constexpr int resume_ms = 100;         ///< [ms] until a paused replay is tried again
    static constexpr unsigned store_reserve = 64; ///< [bytes] of the store that records leave free
    /// Event id of what waiters are told: a record could not be stored.
    enum Event { event_lost = 1 };

    /// `base_name` is copied; with more than 26 characters the history is off and says so. `max_file_bytes` [bytes]
    /// bounds a file.
    explicit Diagnostics(const char* base_name, unsigned max_file_bytes = 4096);
    ~Diagnostics() override;

    using Diner::init;
    /// Give it its thread and obtain its module id; the caller starts it. 0.
    int init(module_man& mm, Diner_selector* s, int thread_priority);

    /// Have an error recorded, with the time at which the manager gets to it. Any thread, no allocation: an event to
    /// itself. Before the first start it waits for that. False when it was refused: the history is off, the manager is
    /// not initialised or stopped, or its queue is full.
    bool log_error(unsigned char src, unsigned short a, unsigned short b);
    /// Replay the history into `sink`: false when one is running, `sink` is null or in use by another manager, or the
    /// history is off. Takes the lock; from a handler of the manager use _request_history(). A sink that wants another
    /// replay asks from an event of its own: until its hooks have returned it is refused.
    bool request_history(Diagnostic_history* sink);
    bool _request_history(Diagnostic_history* sink); ///< the same, lock held

    /// Who is told, by an event_lost of module_id() (one in the queue at a time), of records that could not be stored.
    /// Not owned; null: nobody.
    void set_lost_waiter(waiter_descriptor* w) { _lost_waiter = w; }
    short module_id() const { return _module_id; }
    unsigned records_written() const { return _written; }
    unsigned records_lost() const { return _lost; }
    int current_file() const { return _write_file; } ///< number of the file being written
    static int inc_file_num(int n) { return (n + 1) % num_files; }
    /// The file being written: the one that is there while the one behind it is not. None there: 0. When several look
    /// so after damage, or all are there, the one with the newest record, which `newest` [s] tells.
    static int find_current(const bool (&there)[num_files], const std::function<unsigned(int)>& newest);

    /// Go on with the replay, as when its timeout fires; lock held.
    void process_history();

protected:
    void diner_start() override;
    void handle_event(waiter_event& event) override;
    void handle_timeout(Timeout& t) override;
    using Diner::handle_timeout;

private:
    enum Progress { progress_finished, progress_paused };
    struct File_name {
        char text[32];
    };

    File_name file_name(int n) const;
    bool exists(int n) const { return PCFile_data_stream::exists(file_name(n).text); }
    void find_current_file();
    unsigned newest_record(int n, unsigned& bytes);
    void store(const waiter_event& event);
    bool append(const unsigned char* record);
    bool write(const unsigned char* bytes, unsigned n);
    bool make_room(unsigned n);
    bool rotate();
    bool remove(int n);
    bool read_file(int n, Progress& progress);
    Progress process_history(Vorn_parser& parser);
    void resume_later();
    void finish_replay();

    char _base_name[longest_base_name + 1];
    bool _enabled;
    const unsigned _max_file_bytes;
    short _module_id = 0;
    int _write_file = 0;
    unsigned _file_bytes = 0; ///< [bytes] in the current file
    bool _file_known = false; ///< the current file and its length
    bool _maybe_torn = true;  ///< the current file may end in a part of a record
    std::atomic<unsigned> _written{0};
    std::atomic<unsigned> _lost{0};
    std::atomic<waiter_descriptor*> _lost_waiter{nullptr};
    Diagnostic_history* _current = nullptr; ///< being replayed
};
