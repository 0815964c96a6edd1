// SPDX-License-Identifier: MIT
#include "util/Semaphore.h"
#include "util/tsan.h"
#include <QMutex>
#include <QSemaphore>
#include <algorithm>
#include <limits>

Semaphore::Semaphore(int count, bool at_most_one) : _semaphore(count), _at_most_one(at_most_one) {}
Semaphore::~Semaphore() = default;

void Semaphore::release() {
    Util::tsan::release(this);
    if (!_at_most_one) {
        _semaphore->release();
        return;
    }
    // One releaser at a time: two that each saw the other's token too many would take both back and lose the wake-up.
    _releasing->lock();
    if (_semaphore->available() == 0) _semaphore->release();
    _releasing->unlock();
}

void Semaphore::acquire() {
    _semaphore->acquire();
    Util::tsan::acquire(this);
}

bool Semaphore::try_acquire(int ticks) {
    constexpr int max_ticks = std::numeric_limits<int>::max() / 10;
    if (ticks < 0) {
        acquire();
        return true;
    }
    const bool taken = _semaphore->tryAcquire(1, std::min(ticks, max_ticks) * 10);
    if (taken) Util::tsan::acquire(this);
    return taken;
}

int Semaphore::available() const { return _semaphore->available(); }
