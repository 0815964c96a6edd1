// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/PCFile_data_stream.h"
#include "glue/diagnostics/Diagnostic_history.h"
#include "glue/diagnostics/Trouble_codes.h"
#include "glue/diner/Diner_protection.h"
#include "glue/diner/waiter_ref.h"
#include "util/api.h"
#include <atomic>
#include <cstdint>
#include <memory>

class Diagnostics_bus;
class JIN_stack;
class Request_answers;
class Vorn_parser;
struct Request_answer;
namespace NV_store {
class Safe_text;
enum class Safe_result;
} // namespace NV_store

/// The trouble-code manager: knows which faults are there and which were, tells the machine's bus, keeps them over a
/// power cut, and keeps their history.
///
///     set_active() -> Trouble_codes -> history files
///                                   -> file of codes, 5 s later
///                                   -> DM1 and answers, Diagnostics_bus -> JIN_stack
///
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
    /// bounds a file. `max_codes` is the room for trouble codes, about 100 bytes each.
    explicit Diagnostics(const char* base_name, unsigned max_file_bytes = 4096,
                         unsigned max_codes = Trouble_code_table::default_capacity);
    ~Diagnostics() override;

    using Diner::init;
    /// Give it its thread and obtain its module id; the caller starts it. 0.
    int init(module_man& mm, Diner_selector* s, int thread_priority);

    /// Have an error recorded, with the time at which the manager gets to it. Any thread, no allocation: an event to
    /// itself. Before the first start it waits for that. False when it was refused: the history is off, the manager is
    /// not initialised or stopped, or its queue is full.
    bool log_error(unsigned char src, unsigned short a, unsigned short b);
    // ---- trouble codes. Any thread, no handler is waited for, no allocation; before the first start too.

    /// The condition of a code is there, or gone. Each change is recorded in the history: the second word is the SPN's
    /// bits 0 to 15; of the first word the low byte is the code's third byte on the bus, the high byte the count, with
    /// bit 7 set when the code went inactive. Results as in Trouble_codes.
    bool set_active(uint32_t spn, unsigned fmi, Lamp lamp = {});
    bool set_inactive(uint32_t spn, unsigned fmi);
    /// What DM11 and DM3 ask for. An active code whose condition is set comes back within a second.
    void clear_active();
    void clear_previous();
    /// For looking at them.
    const Trouble_codes& codes() const { return _codes; }

    /// Keep the codes in this file: they are saved 5 s after a change, and loaded now, all as previously active with
    /// their counts. Once, before start(). Of a damaged file the generation before it is taken; when there is no good
    /// one, the table stays empty and a code says so until it is cleared: SPN 524286, FMI 2, a number of the makers'.
    NV_store::Safe_result keep_codes_in(const char* path);
    /// Save now, as before the machine is switched off. Blocks as long as the medium takes.
    NV_store::Safe_result save_codes() KAV_EXCLUDES(this);
    static constexpr int save_ms = 5000;        ///< [ms] from a change to its saving
    static constexpr int save_retry_ms = 60000; ///< [ms] after a save that failed
    static constexpr uint32_t spn_memory_lost = 524286;
    static constexpr unsigned fmi_memory_lost = 2;

    // ---- bus

    /// Speak on this bus, which outlives the manager. Once, after init(), before start().
    void attach(JIN_stack& stack, Trouble_code_messages::Mode mode = Trouble_code_messages::Mode::iso);
    /// Also answer requests for another PGN; see Request_answers.h. The handler runs on the manager's thread with its
    /// lock held.
    bool set_answer(uint32_t pgn, Request_answer answer) KAV_EXCLUDES(this);
    void remove_answer(uint32_t pgn) KAV_EXCLUDES(this);
    /// Whether requests for PGNs that nobody has named here are refused, as they are at first. One part of a program
    /// that listens to requests should do so.
    void set_refuses_others(bool on) KAV_EXCLUDES(this);

    /// Replay the history into `sink`: false when one is running, `sink` is null or in use by another manager, or the
    /// history is off. From a handler of the manager use _request_history(). A sink that wants another replay asks from
    /// an event of its own: until its hooks have returned it is refused.
    bool request_history(Diagnostic_history* sink) KAV_EXCLUDES(this);
    bool _request_history(Diagnostic_history* sink) KAV_REQUIRES(this);

    /// Who is told, by an event_lost of module_id() (one in the queue at a time), of records that could not be stored.
    /// Not owned; null: nobody. One that dies is told no more.
    void set_lost_waiter(waiter_descriptor* w) { _lost_waiter = w; }
    short module_id() const { return _module_id; }
    unsigned records_written() const { return _written; }
    unsigned records_lost() const { return _lost + _codes.changes_lost(); }
    int current_file() const { return _write_file; } ///< number of the file being written
    static int inc_file_num(int n) { return (n + 1) % num_files; }
    /// The file being written: the one that is there while the one behind it is not. None there: 0. When several look
    /// so after damage, or all are there, the one with the newest record, whose time `newest` [ms] tells; of two that
    /// follow each other and have the same, the second. `newest` is asked only then; it is handed `whose`.
    static int find_current(const bool (&there)[num_files], uint64_t (*newest)(void* whose, int n), void* whose);

    enum Progress { progress_finished, progress_paused };
    /// Go on with the replay, as when its timeout fires.
    void process_history() KAV_REQUIRES(this);
    /// Hand the records of one file to the sink, but for those that it has had already. Paused when the sink can take
    /// no more for now: its timeout is submitted, and the file is to be read again from its start. Without a replay
    /// nothing is read and the file is finished.
    Progress process_history(Vorn_parser& parser) KAV_REQUIRES(this);

protected:
    void diner_start() override;
    void handle_event(waiter_event& event) override KAV_REQUIRES(this);
    void handle_timeout(Timeout& t) override KAV_REQUIRES(this);
    using Diner::handle_timeout;

private:
    struct File_name {
        char text[32];
    };

    File_name file_name(int n) const;
    bool exists(int n) const { return PCFile_data_stream::exists(file_name(n).text); }
    void find_current_file() KAV_REQUIRES(this);
    uint64_t newest_record(int n, unsigned& bytes) const;
    void store(unsigned char src, unsigned short a, unsigned short b, const Atime& when) KAV_REQUIRES(this);
    void wake();
    void pass() KAV_REQUIRES(this);
    void store_changes() KAV_REQUIRES(this);
    NV_store::Safe_result save() KAV_REQUIRES(this);
    void tell(const char* what, NV_store::Safe_result result) const;
    unsigned closing_line_feeds() const KAV_REQUIRES(this);
    bool append(const unsigned char* record) KAV_REQUIRES(this);
    bool write(const unsigned char* bytes, unsigned n) KAV_REQUIRES(this);
    bool make_room(unsigned n) KAV_REQUIRES(this);
    bool rotate() KAV_REQUIRES(this);
    bool remove(int n) KAV_REQUIRES(this);
    bool read_file(int n, Progress& progress) KAV_REQUIRES(this);
    void resume_later() KAV_REQUIRES(this);
    void finish_replay() KAV_REQUIRES(this);

    Trouble_codes _codes;
    const std::unique_ptr<Request_answers> _answers KAV_PT_GUARDED_BY(this);
    std::unique_ptr<Diagnostics_bus> _bus KAV_GUARDED_BY(this);
    std::unique_ptr<NV_store::Safe_text> _codes_file; ///< set before the start, or null: they are not kept
    bool _unsaved KAV_GUARDED_BY(this) = false;       ///< changes were not saved yet
    bool _save_failed KAV_GUARDED_BY(this) = false;   ///< the last save did, and that was said
    std::atomic<bool> _awake{false};                  ///< the pass below is submitted, or about to run
    Timeout _pass, _save;

    char _base_name[longest_base_name + 1];
    bool _enabled;
    const unsigned _max_file_bytes;
    short _module_id = 0;
    std::atomic<int> _write_file{0};
    unsigned _file_bytes KAV_GUARDED_BY(this) = 0; ///< [bytes] in the current file
    bool _file_known KAV_GUARDED_BY(this) = false; ///< the current file and its length
    bool _maybe_torn KAV_GUARDED_BY(this) = true;  ///< the current file may end in a part of a record
    std::atomic<unsigned> _written{0};
    std::atomic<unsigned> _lost{0};
    waiter_ref<waiter_ref_base::stream> _lost_waiter;
    Diagnostic_history* _current KAV_GUARDED_BY(this) = nullptr; ///< being replayed
};
