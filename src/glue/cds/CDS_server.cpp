// SPDX-License-Identifier: MIT
#include "glue/cds/CDS_server.h"
#include "util/clock.h"
#include "util/local_socket.h"
#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace CDS::Remote {
namespace {

constexpr int stack_kib = 256;
constexpr int priority = 0; // whoever looks shall not hold up what he looks at

int64_t now_ms() {
    struct timespec t;
    Util::boot_clock(t);
    return int64_t{t.tv_sec} * 1000 + t.tv_nsec / 1000000;
}

/// As write(), but a socket whose other end has gone sends no signal.
ssize_t put(int fd, const char* bytes, int n) {
    const ssize_t done = ::send(fd, bytes, static_cast<size_t>(n), MSG_NOSIGNAL | MSG_DONTWAIT);
    return done < 0 && errno == ENOTSOCK ? ::write(fd, bytes, static_cast<size_t>(n)) : done;
}

bool later(int reason) { return reason == EAGAIN || reason == EINTR; }

} // namespace

/// Whoever is served.
struct Server::Peer {
    Peer(int descriptor, bool is_a_line, Server& server, int64_t now)
        : responder(server._root, server._rule), fd(descriptor), line(is_a_line), active(now) {}
    ~Peer() { ::close(fd); }
    Peer(const Peer&) = delete;

    Responder responder;
    const int fd;
    const bool line;
    bool hung_up = false;  ///< a line may come back
    int64_t active;        ///< [ms] when bytes went either way
    int64_t again = 0;     ///< [ms] not looked at before; 0: looked at when poll() says so
    int64_t burst_end = 0; ///< [ms]
    int left = 0;          ///< answers until then
};

/// What the thread waits for.
struct Server::Waits {
    void until(int64_t instant, int64_t now) {
        const int64_t ms = std::clamp<int64_t>(instant - now, 0, INT_MAX);
        if (timeout < 0 || ms < timeout) timeout = static_cast<int>(ms);
    }
    struct pollfd fds[2 + max_clients]; ///< the eventfd, the listener, the clients; -1 is passed over
    int timeout = -1;                   ///< [ms]
};

/// What has large headers of its own.
struct Server::Parts {
    Util::Local_listener listener;            ///< of the thread that calls share()
    std::unique_ptr<Peer> peers[max_clients]; ///< of the server's thread
};

Server::Server(Lookup_root& root, Write_rule rule)
    : _root(root), _rule(std::move(rule)), _parts(new Parts), _thread("CDS", stack_kib, true) {}

Server::~Server() {
    {
        const Scoped_lock held(_mutex);
        _stop = true;
    }
    wake();
    _thread.join();
    const Scoped_lock held(_mutex);
    for (int i = 0; i < _num_new; ++i) ::close(_new_lines[i]);
    if (_wake_fd >= 0) ::close(_wake_fd);
    delete _parts;
}

bool Server::start() {
    if (_wake_fd >= 0) return true;
    _wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (_wake_fd < 0) return false;
    if (_thread.start(priority, run, this) == 0) return true;
    ::close(_wake_fd);
    _wake_fd = -1;
    errno = EAGAIN;
    return false;
}

bool Server::share(const char* path) {
    Util::Local_listener& listener = _parts->listener;
    if (listener.fd() >= 0) {
        errno = EALREADY;
        return false;
    }
    if (!listener.open(path)) return false;
    if (!start()) {
        const int reason = errno;
        listener.close();
        errno = reason;
        return false;
    }
    {
        const Scoped_lock held(_mutex);
        _new_listener = listener.fd();
    }
    wake();
    return true;
}

bool Server::serve(int fd) {
    bool room = start();
    if (room) {
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        const Scoped_lock held(_mutex);
        room = _num_lines < max_clients && _num_new < max_clients;
        if (room) {
            _new_lines[_num_new++] = fd;
            ++_num_lines;
        } else {
            errno = EBUSY;
        }
    }
    const int reason = errno;
    if (room)
        wake();
    else
        ::close(fd);
    errno = reason;
    return room;
}

void* Server::run(void* server) {
    static_cast<Server*>(server)->serve_until_stopped();
    return nullptr;
}

void Server::serve_until_stopped() {
    while (take_over_new()) {
        Waits waits;
        prepare(waits, now_ms());
        if (poll(waits.fds, 2 + max_clients, waits.timeout) < 0) continue;
        const int64_t now = now_ms();
        if (waits.fds[0].revents) {
            eventfd_t count;
            eventfd_read(_wake_fd, &count);
        }
        for (int i = 0; i < max_clients; ++i)
            if (_parts->peers[i] && !look(*_parts->peers[i], waits.fds[2 + i].revents != 0, now)) end(i);
        if (waits.fds[1].revents) accept_client(now);
    }
    for (auto& peer : _parts->peers) peer.reset();
}

/// What share() and serve() left for the thread; false at the end.
bool Server::take_over_new() {
    const Scoped_lock held(_mutex);
    if (_stop) return false;
    if (_new_listener >= 0) _listen_fd = _new_listener;
    const int64_t now = now_ms();
    for (int i = 0; i < _num_new; ++i) {
        for (auto& peer : _parts->peers) {
            if (!peer || !peer->hung_up) continue;
            peer.reset();
            --_num_lines;
            _num_clients.fetch_sub(1, std::memory_order_relaxed);
        }
        // There are fewer lines than places, so a connection stands in the way, if anything does.
        int place = free_place();
        if (place < 0) end(place = silent_client());
        _parts->peers[place] = std::make_unique<Peer>(_new_lines[i], true, *this, now);
        _num_clients.fetch_add(1, std::memory_order_relaxed);
    }
    _num_new = 0;
    return true;
}

/// -1 when there is none.
int Server::free_place() const {
    for (int i = 0; i < max_clients; ++i)
        if (!_parts->peers[i]) return i;
    return -1;
}

/// The connection that has been silent longest; -1 when all are lines.
int Server::silent_client() const {
    int found = -1;
    for (int i = 0; i < max_clients; ++i) {
        const Peer* const peer = _parts->peers[i].get();
        if (peer && !peer->line && (found < 0 || peer->active < _parts->peers[found]->active)) found = i;
    }
    return found;
}

void Server::prepare(Waits& waits, int64_t now) {
    waits.fds[0] = {_wake_fd, POLLIN, 0};
    waits.fds[1] = {-1, POLLIN, 0};
    if (now >= _listen_again)
        waits.fds[1].fd = _listen_fd;
    else
        waits.until(_listen_again, now);
    for (int i = 0; i < max_clients; ++i) {
        struct pollfd& wait = waits.fds[2 + i];
        wait = {-1, 0, 0};
        if (!_parts->peers[i]) continue;
        const Peer& peer = *_parts->peers[i];
        if (peer.again > 0) { // also when that is over already: what was asked before is there, and poll() silent
            waits.until(peer.again, now);
            continue;
        }
        wait.fd = peer.fd;
        wait.events = peer.responder.num_pending() > 0 ? POLLOUT : POLLIN;
        if (peer.line && peer.responder.num_received() > 0) waits.until(peer.active + incomplete_ms, now);
    }
}

/// Go on with a client; false at its end.
bool Server::look(Peer& peer, bool ready, int64_t now) {
    if (peer.again > now) return true;
    const bool paused = peer.again > 0;
    peer.again = 0;
    Responder& responder = peer.responder;
    if ((ready || paused) && responder.num_pending() == 0 && responder.room() > 0) {
        const ssize_t got = ::read(peer.fd, responder.place(), static_cast<size_t>(responder.room()));
        if (got == 0 || (got < 0 && !later(errno))) return hang_up(peer, now);
        peer.hung_up = false;
        if (got > 0) {
            responder.received(static_cast<int>(got));
            peer.active = now;
        }
    }
    if (peer.line && now >= peer.active + incomplete_ms && responder.num_pending() == 0) responder.forget();
    return answer(peer, now);
}

/// A line is tried again, and not before, as poll() would return at once; what was pending is for nobody. False: the
/// end.
bool Server::hang_up(Peer& peer, int64_t now) {
    peer.responder.sent(peer.responder.num_pending());
    peer.hung_up = peer.line;
    peer.again = now + retry_ms;
    return peer.line;
}

/// Answer what has been asked, as long as the client takes it and its share lasts; false at its end.
bool Server::answer(Peer& peer, int64_t now) {
    Responder& responder = peer.responder;
    for (;;) {
        while (responder.num_pending() > 0) {
            const ssize_t done = put(peer.fd, responder.pending(), responder.num_pending());
            if (done <= 0) return later(errno) || hang_up(peer, now);
            responder.sent(static_cast<int>(done));
            peer.active = now;
        }
        if (now >= peer.burst_end) {
            peer.burst_end = now + burst_ms;
            peer.left = burst;
        }
        if (peer.left == 0) {
            peer.again = peer.burst_end;
            return true;
        }
        const Responder::Step step = responder.step();
        if (step == Responder::waiting) return true;
        if (step == Responder::malformed) {
            responder.forget();
            return peer.line;
        }
        --peer.left;
        _num_answers.fetch_add(1, std::memory_order_relaxed);
    }
}

void Server::end(int place) {
    _parts->peers[place].reset();
    _num_clients.fetch_sub(1, std::memory_order_relaxed);
}

void Server::accept_client(int64_t now) {
    const int fd = accept4(_listen_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        if (!later(errno)) _listen_again = now + retry_ms; // no descriptor is free, for instance
        return;
    }
    int place = free_place();
    if (place < 0) {
        place = silent_client();
        if (place >= 0 && now < _parts->peers[place]->active + idle_ms) place = -1;
        if (place >= 0) end(place);
    }
    auto peer = std::make_unique<Peer>(fd, false, *this, now);
    if (place >= 0) {
        _parts->peers[place] = std::move(peer);
        _num_clients.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    peer->responder.refuse(Frame::too_many_clients);
    put(fd, peer->responder.pending(), peer->responder.num_pending());
    _num_refused.fetch_add(1, std::memory_order_relaxed);
    _listen_again = now + burst_ms; // who tries without end does not keep the others waiting
}

void Server::wake() const {
    if (_wake_fd >= 0) eventfd_write(_wake_fd, 1);
}

} // namespace CDS::Remote
