#include "tolvane/Mutex.h"

#include <condition_variable>
#include <list>
#include <mutex>

#include "ClockWaiters.h"
#include "tolvane_host/ManualClock.h"

namespace Tolvane {

// A recursive mutex counts its depth so that a condition wait can release it
// completely and restore it afterwards. The depth is touched only by the
// thread that holds the mutex.
struct Mutex::Impl {
  explicit Impl(bool isRecursive) : recursive(isRecursive) {}

  const bool recursive;
  std::mutex plain;
  std::recursive_mutex nested;
  int depth = 0;

  void lock() {
    if (recursive) {
      nested.lock();
    } else {
      plain.lock();
    }
    ++depth;
  }
  void unlock() {
    --depth;
    if (recursive) {
      nested.unlock();
    } else {
      plain.unlock();
    }
  }
  bool tryLock() {
    const bool locked = recursive ? nested.try_lock() : plain.try_lock();
    if (locked) {
      ++depth;
    }
    return locked;
  }
  // Releases every level held by the calling thread; returns how many.
  int releaseAll() {
    const int held = depth;
    for (int i = 0; i < held; ++i) {
      unlock();
    }
    return held;
  }
  void reacquire(int levels) {
    for (int i = 0; i < levels; ++i) {
      lock();
    }
  }
};

Mutex::Mutex(bool recursive) : mImpl(std::make_unique<Impl>(recursive)) {}
Mutex::~Mutex() = default;
void Mutex::lock() { mImpl->lock(); }
void Mutex::unlock() { mImpl->unlock(); }
bool Mutex::tryLock() { return mImpl->tryLock(); }

// Each wait enqueues a ticket; signal() marks the oldest unmarked ticket and
// broadcast() marks them all. A waiter returns only when its own ticket is
// marked or its time is up, so wake-ups of the underlying primitive never
// reach the caller.
struct Condition::Impl final : host::detail::ClockWaiter {
  struct Ticket {
    bool signalled = false;
  };

  std::mutex internal;
  std::condition_variable wakeup;
  std::list<Ticket*> tickets;

  Impl() { host::detail::addClockWaiter(this); }
  ~Impl() { host::detail::removeClockWaiter(this); }

  void onClockChanged() override {
    const std::lock_guard<std::mutex> guard(internal);
    wakeup.notify_all();
  }

  bool wait(Mutex& mutex, bool timed, unsigned timeoutMs) {
    const uint64_t dueMs = timed ? host::nowMs() + timeoutMs : 0;
    Ticket ticket;
    std::unique_lock<std::mutex> lock(internal);
    tickets.push_back(&ticket);
    // Taking the internal lock before releasing the caller's mutex means a
    // signal sent under that mutex after the wait began cannot be missed.
    const int levels = mutex.mImpl->releaseAll();
    while (!ticket.signalled && (!timed || host::nowMs() < dueMs)) {
      if (timed) {
        host::detail::sleepUntil(wakeup, lock, dueMs);
      } else {
        wakeup.wait(lock);
      }
    }
    tickets.remove(&ticket);
    lock.unlock();
    mutex.mImpl->reacquire(levels);
    return ticket.signalled;
  }

  void mark(bool all) {
    const std::lock_guard<std::mutex> guard(internal);
    for (Ticket* ticket : tickets) {
      if (!ticket->signalled) {
        ticket->signalled = true;
        if (!all) {
          break;
        }
      }
    }
    wakeup.notify_all();
  }
};

Condition::Condition() : mImpl(std::make_unique<Impl>()) {}
Condition::~Condition() = default;
void Condition::wait(Mutex& mutex) { mImpl->wait(mutex, false, 0); }
bool Condition::wait(Mutex& mutex, unsigned timeoutMs) { return mImpl->wait(mutex, true, timeoutMs); }
void Condition::signal() { mImpl->mark(false); }
void Condition::broadcast() { mImpl->mark(true); }

}  // namespace Tolvane
