// Mutexes and conditions of the Tolvane framework.
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
