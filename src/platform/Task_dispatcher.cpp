// SPDX-License-Identifier: MIT
#include "platform/Task_dispatcher.h"
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTimerEvent>
#include <algorithm>
#include <climits>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

Task_dispatcher::~Task_dispatcher() {
    const int fd = _wake_fd.exchange(-1);
    if (fd >= 0) close(fd);
}

void Task_dispatcher::wakeUp() {
    // The loop makes its descriptor before it looks whether it was woken: one of the two sides sees the other.
    if (_woken.exchange(true)) return;
    const int fd = _wake_fd;
    if (fd >= 0) eventfd_write(fd, 1);
}

void Task_dispatcher::interrupt() {
    _interrupted = true;
    wakeUp();
}

bool Task_dispatcher::processEvents(QEventLoop::ProcessEventsFlags flags) {
    if (_wake_fd < 0) _wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    _interrupted = false;
    Q_EMIT awake();
    const bool woken = _woken.exchange(false); // before the events are looked for: none is left behind
    eventfd_t count;
    if (_wake_fd >= 0) eventfd_read(_wake_fd, &count);
    QCoreApplication::sendPostedEvents();
    const bool wait = (flags & QEventLoop::WaitForMoreEvents) && !woken && !_interrupted;
    if (wait) Q_EMIT aboutToBlock();
    const bool timers = !(flags & QEventLoop::X11ExcludeTimers);
    bool done = run_notifiers(wait, timers, !(flags & QEventLoop::ExcludeSocketNotifiers));
    if (timers) done |= run_timers();
    return done || woken || _woken;
}

/// How long to wait at most, negative: without limit.
int Task_dispatcher::wait_ms(bool wait, bool timers) const {
    if (!wait || _woken) return 0;
    std::chrono::nanoseconds least = std::chrono::nanoseconds::max();
    if (_wake_fd < 0) least = std::chrono::milliseconds(10);
    const auto now = Clock::now();
    for (const Timer& t : _timers) {
        if (timers && !t.running) least = std::min<std::chrono::nanoseconds>(least, t.due - now);
    }
    if (least == std::chrono::nanoseconds::max()) return -1;
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(least).count();
    return static_cast<int>(std::clamp<int64_t>(ms, 0, INT_MAX));
}

/// Wait, and tell the notifiers whose descriptors are ready.
bool Task_dispatcher::run_notifiers(bool wait, bool timers, bool notifiers) {
    std::vector<QSocketNotifier*> asked;
    if (notifiers) asked = _notifiers;
    std::vector<pollfd> fds;
    for (const QSocketNotifier* n : asked) {
        const auto type = n->type();
        const short events = type == QSocketNotifier::Read    ? POLLIN
                             : type == QSocketNotifier::Write ? POLLOUT
                                                              : POLLPRI;
        fds.push_back({static_cast<int>(n->socket()), events, 0});
    }
    fds.push_back({_wake_fd, POLLIN, 0});
    if (poll(fds.data(), fds.size(), wait_ms(wait, timers)) <= 0) return false;
    bool done = false;
    for (size_t i = 0; i < asked.size(); ++i) {
        // What a handler before it has taken away may be gone.
        if (!fds[i].revents || std::find(_notifiers.begin(), _notifiers.end(), asked[i]) == _notifiers.end()) continue;
        done = true;
        if (fds[i].revents & POLLNVAL) {
            asked[i]->setEnabled(false); // its descriptor is closed: it would keep the loop awake for ever
            continue;
        }
        QEvent ready(QEvent::SockAct);
        QCoreApplication::sendEvent(asked[i], &ready);
    }
    return done;
}

/// Each timer that is due when this begins, once.
bool Task_dispatcher::run_timers() {
    const auto now = Clock::now();
    std::vector<std::pair<Clock::time_point, int>> due;
    for (const Timer& t : _timers) {
        if (!t.running && t.due <= now) due.emplace_back(t.due, t.id);
    }
    std::sort(due.begin(), due.end());
    for (const auto& [instant, id] : due) {
        Timer* t = find(id);
        if (!t || t->running || t->due != instant) continue; // by a handler before it
        const auto step = std::chrono::milliseconds(t->interval);
        t->due = std::max(t->due + step, now); // late by more than one period it does not catch up
        t->running = true;
        QTimerEvent event(id);
        QCoreApplication::sendEvent(t->object, &event);
        if ((t = find(id))) t->running = false;
    }
    return !due.empty();
}

Task_dispatcher::Timer* Task_dispatcher::find(int id) {
    for (Timer& t : _timers) {
        if (t.id == id) return &t;
    }
    return nullptr;
}

void Task_dispatcher::unregisterSocketNotifier(QSocketNotifier* n) {
    _notifiers.erase(std::remove(_notifiers.begin(), _notifiers.end(), n), _notifiers.end());
}

void Task_dispatcher::registerTimer(int id, Interval interval, Qt::TimerType type, QObject* object) {
    _timers.push_back({id, interval, type, object, Clock::now() + std::chrono::milliseconds(interval), false});
}

bool Task_dispatcher::unregisterTimer(int id) {
    const auto end = std::remove_if(_timers.begin(), _timers.end(), [id](const Timer& t) { return t.id == id; });
    const bool found = end != _timers.end();
    _timers.erase(end, _timers.end());
    return found;
}

bool Task_dispatcher::unregisterTimers(QObject* object) {
    const auto of = [object](const Timer& t) { return t.object == object; };
    const auto end = std::remove_if(_timers.begin(), _timers.end(), of);
    const bool found = end != _timers.end();
    _timers.erase(end, _timers.end());
    return found;
}

QList<QAbstractEventDispatcher::TimerInfo> Task_dispatcher::registeredTimers(QObject* object) const {
    QList<TimerInfo> all;
    for (const Timer& t : _timers) {
        if (t.object == object) all.append(TimerInfo(t.id, static_cast<int>(t.interval), t.type));
    }
    return all;
}

int Task_dispatcher::remainingTime(int id) {
    const Timer* t = find(id);
    if (!t) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(t->due - Clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
}
