// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/CDS_responder.h"
#include "platform/Task.h"
#include "util/Mutex.h"
#include "util/api.h"
#include <atomic>
#include <cstdint>

namespace CDS::Remote {

/// Shows a data block to other programs: on a Unix socket, and on serial lines and pseudo-terminals. `cds_view` is such
/// a program, Client the class for others. What travels stands in Frame.
///
///     cds_view --- socket, rights 0600 --.
///     cds_view --- serial line ----------+-- thread "CDS" -- Responder -- head's lock -- block
///
/// One thread serves everybody, with the priority of an ordinary program; it holds the head's lock only while one
/// answer is built. A client takes 4 KB; one that does not read its answers is asked nothing and gets nothing more
/// until it does; one that asks without end gets 1000 answers a second. Bytes that are no request end a connection, and
/// are passed over on a line.
///
/// Everybody who can open the socket or the line sees the whole block. Values can be written where the rule of the
/// application says so, and nowhere without one.
class KAV_API Server {
public:
    static constexpr int max_clients = 8;      ///< at a time, lines included
    static constexpr int idle_ms = 10000;      ///< [ms] of silence after which a client makes room for a new one
    static constexpr int burst = 50;           ///< answers for one client ...
    static constexpr int burst_ms = 50;        ///< [ms] ... in this time
    static constexpr int incomplete_ms = 1000; ///< [ms] after which the beginning of a request on a line is dropped
    static constexpr int retry_ms = 250;       ///< [ms] between looks at a line that hung up

    /// The tree, finished, outlives the server; so does all that the rule uses.
    explicit Server(Lookup_root& root, Write_rule rule = nullptr);
    /// Ends the connections and removes the socket.
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // These belong to one thread. The first that works starts the server's own.

    /// Serve whoever connects to a Unix socket of this path; once. False, with errno as Local_listener::open() has it,
    /// EALREADY at the second time, and EAGAIN when there is no thread to be had.
    bool share(const char* path);
    /// Serve one client on an open line: a serial line that is set up, a pseudo-terminal, a connected socket. The
    /// descriptor is the server's from now on, also when this fails, and does not block any more. A line that hangs up
    /// is tried again and again, until another one is served. False with errno: EBUSY when max_clients are lines.
    bool serve(int fd);

    // Any thread, no lock.

    int num_clients() const { return _num_clients.load(std::memory_order_relaxed); }
    uint32_t num_refused() const { return _num_refused.load(std::memory_order_relaxed); } ///< of connections
    uint32_t num_answers() const { return _num_answers.load(std::memory_order_relaxed); }

private:
    struct Peer;
    struct Waits;
    struct Parts;

    bool start();
    static void* run(void* server);
    void serve_until_stopped();
    bool take_over_new();
    void prepare(Waits& waits, int64_t now);
    bool look(Peer& peer, bool ready, int64_t now);
    bool answer(Peer& peer, int64_t now);
    bool hang_up(Peer& peer, int64_t now);
    void end(int place);
    void accept_client(int64_t now);
    int free_place() const;
    int silent_client() const;
    void wake() const;

    Lookup_root& _root;
    const Write_rule _rule;
    Parts* const _parts; ///< owned
    Task _thread;
    int _wake_fd = -1; ///< set before the thread starts

    Mutex _mutex; ///< a leaf: what is handed over to the thread
    bool _stop KAV_GUARDED_BY(_mutex) = false;
    int _new_listener KAV_GUARDED_BY(_mutex) = -1;
    int _new_lines[max_clients] KAV_GUARDED_BY(_mutex) = {};
    int _num_new KAV_GUARDED_BY(_mutex) = 0;
    int _num_lines KAV_GUARDED_BY(_mutex) = 0; ///< served or to be served

    // Of the server's thread:
    int _listen_fd = -1;
    int64_t _listen_again = 0; ///< [ms] not looked at before

    std::atomic<int> _num_clients{0};
    std::atomic<uint32_t> _num_refused{0}, _num_answers{0};
};

} // namespace CDS::Remote
