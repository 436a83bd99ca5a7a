// Mutexes and conditions of the Tolvane framework.
//
// Contract: the usual ones of a mutex and a condition variable. A Mutex is
// locked and unlocked by the same thread; unlocking one that the thread does
// not hold is undefined. Objects are created and destroyed by their owner
// while no thread uses them. Nothing fails: lock() blocks, tryLock() says
// false. The daemon waits on a Condition in two places: the main thread until
// SIGTERM (signal() is then called without the mutex held, so the wait may
// also end only with the process) and SetValues, at most 5000 ms.
#pragma once

#include <memory>

namespace Tolvane {

class Condition;

class Mutex {
 public:
  // A recursive mutex may be locked again by the thread that holds it.
  explicit Mutex(bool recursive = false);
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock();
  void unlock();
  bool tryLock();

 private:
  friend class Condition;
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

class ScopedLock {
 public:
  explicit ScopedLock(Mutex& mutex) : mMutex(mutex) { mMutex.lock(); }
  ~ScopedLock() { mMutex.unlock(); }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  Mutex& mMutex;
};

// Condition variable used with a Mutex held by the waiting thread.
//
// A wait ends only when signal() or broadcast() is called after the wait
// began (no spurious wake-ups reach the caller), or when the time-out expires.
// Time-outs are measured on the framework clock, which tests may drive.
class Condition {
 public:
  Condition();
  ~Condition();
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  void wait(Mutex& mutex);
  // True when signalled, false when the time-out expired first.
  bool wait(Mutex& mutex, unsigned timeoutMs);
  void signal();
  void broadcast();

 private:
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

}  // namespace Tolvane
