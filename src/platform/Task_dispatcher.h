// SPDX-License-Identifier: MIT
#pragma once
#include <QAbstractEventDispatcher>
#include <atomic>
#include <chrono>
#include <vector>

/// What a loop of Qt on a task's thread runs on. Hardly any task has one, yet Qt makes its own kind of this for every
/// thread at once, with some 4 KB and a descriptor, and aborts the process where there is no descriptor left. This one
/// takes neither before a loop really runs, as a QEventLoop in a handler does. Then it does what such a loop needs:
/// posted events, timers, socket notifiers. Timers are all precise ones; without a free descriptor a wake-up by another
/// thread comes up to 10 ms late.
///
/// Of the thread that it belongs to, except wakeUp() and interrupt(): any thread.
class Task_dispatcher : public QAbstractEventDispatcher {
public:
    ~Task_dispatcher() override;

    bool processEvents(QEventLoop::ProcessEventsFlags flags) override;
    void registerSocketNotifier(QSocketNotifier* n) override { _notifiers.push_back(n); }
    void unregisterSocketNotifier(QSocketNotifier* n) override;
#if QT_VERSION >= 0x060000
    using Interval = qint64;
#else
    using Interval = int;
    bool hasPendingEvents() override { return _woken; }
    void flush() override {}
#endif
    void registerTimer(int id, Interval interval, Qt::TimerType type, QObject* object) override;
    bool unregisterTimer(int id) override;
    bool unregisterTimers(QObject* object) override;
    QList<TimerInfo> registeredTimers(QObject* object) const override;
    int remainingTime(int id) override; ///< [ms], -1 when there is no such timer
    void wakeUp() override;
    void interrupt() override;

private:
    using Clock = std::chrono::steady_clock;
    struct Timer {
        int id;
        Interval interval; ///< [ms]
        Qt::TimerType type;
        QObject* object;
        Clock::time_point due;
        bool running; ///< its event is being handled, perhaps by a loop of its own
    };
    Timer* find(int id);
    int wait_ms(bool wait, bool timers) const;
    bool run_timers();
    bool run_notifiers(bool wait, bool timers, bool notifiers);

    std::vector<Timer> _timers;
    std::vector<QSocketNotifier*> _notifiers;
    std::atomic<int> _wake_fd{-1}; ///< made by the first loop
    std::atomic<bool> _woken{false};
    std::atomic<bool> _interrupted{false};
};
