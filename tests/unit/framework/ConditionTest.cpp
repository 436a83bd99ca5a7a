#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "tolvane/Mutex.h"
#include "tolvane_host/ManualClock.h"

namespace {

using Tolvane::Condition;
using Tolvane::Mutex;
using Tolvane::ScopedLock;

// Takes the mutex repeatedly until flag is set under it (the other thread then
// sits inside its wait, having released the mutex), and calls then() still
// holding the mutex. False if the flag never came.
template <class Then>
bool whenSetUnderMutex(Mutex& mutex, const std::atomic<bool>& flag, Then then) {
  for (int i = 0; i < 20000; ++i) {
    {
      ScopedLock lock(mutex);
      if (flag) {
        then();
        return true;
      }
    }
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return false;
}

// Results of one timed wait run on its own thread.
struct TimedWaiter {
  std::atomic<bool> waiting{false};
  std::atomic<bool> returned{false};
  std::atomic<bool> signalled{false};
  std::thread thread;

  void start(Mutex& mutex, Condition& condition, unsigned timeoutMs) {
    thread = std::thread([this, &mutex, &condition, timeoutMs] {
      ScopedLock lock(mutex);
      waiting = true;  // still under the mutex: whoever takes it next finds us inside the wait
      signalled = condition.wait(mutex, timeoutMs);
      returned = true;
    });
  }
  // Takes the mutex once the waiter is inside its wait.
  void awaitWaiting(Mutex& mutex) {
    for (int i = 0; i < 10000; ++i) {
      ScopedLock lock(mutex);
      if (waiting) {
        return;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    FAIL() << "the waiter never began to wait";
  }
  bool awaitReturn() {
    for (int i = 0; i < 10000 && !returned; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return returned;
  }
};

class ConditionTest : public ::testing::Test {
 protected:
  void SetUp() override { Tolvane::host::setClock(&mClock); }
  void TearDown() override { Tolvane::host::setClock(nullptr); }
  Tolvane::host::ManualClock mClock{0};
  Mutex mMutex;
  Condition mCondition;
};

TEST_F(ConditionTest, TimedWaitExpiresExactlyWhenTheClockReachesTheTimeout) {
  TimedWaiter waiter;
  waiter.start(mMutex, mCondition, 5000);
  waiter.awaitWaiting(mMutex);
  mClock.advance(4999);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_FALSE(waiter.returned.load());
  mClock.advance(1);
  EXPECT_TRUE(waiter.awaitReturn());
  EXPECT_FALSE(waiter.signalled.load());
  waiter.thread.join();
}

TEST_F(ConditionTest, TimedWaitSignalledBeforeTheTimeoutReportsTrue) {
  TimedWaiter waiter;
  waiter.start(mMutex, mCondition, 5000);
  waiter.awaitWaiting(mMutex);
  mClock.advance(1000);
  {
    ScopedLock lock(mMutex);
    mCondition.signal();
  }
  EXPECT_TRUE(waiter.awaitReturn());
  EXPECT_TRUE(waiter.signalled.load());
  waiter.thread.join();
}

TEST_F(ConditionTest, SignalBeforeTheWaitBeganIsNotSeen) {
  mCondition.signal();
  mCondition.broadcast();
  TimedWaiter waiter;
  waiter.start(mMutex, mCondition, 100);
  waiter.awaitWaiting(mMutex);
  mClock.advance(100);
  EXPECT_TRUE(waiter.awaitReturn());
  EXPECT_FALSE(waiter.signalled.load());
  waiter.thread.join();
}

TEST_F(ConditionTest, SignalWakesOneWaiterAndBroadcastWakesAll) {
  std::vector<TimedWaiter> waiters(3);
  for (auto& waiter : waiters) {
    waiter.start(mMutex, mCondition, 1000);
    waiter.awaitWaiting(mMutex);
  }
  mCondition.signal();
  auto returnedCount = [&] {
    int count = 0;
    for (auto& waiter : waiters) {
      count += waiter.returned ? 1 : 0;
    }
    return count;
  };
  for (int i = 0; i < 10000 && returnedCount() == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(returnedCount(), 1);
  mCondition.broadcast();
  for (auto& waiter : waiters) {
    EXPECT_TRUE(waiter.awaitReturn());
    EXPECT_TRUE(waiter.signalled.load());
    waiter.thread.join();
  }
}

TEST_F(ConditionTest, UntimedWaitIgnoresClockMovesAndEndsOnSignal) {
  std::atomic<bool> waiting{false};
  std::atomic<bool> returned{false};
  std::thread waiter([&] {
    ScopedLock lock(mMutex);
    waiting = true;
    mCondition.wait(mMutex);
    returned = true;
  });
  ASSERT_TRUE(whenSetUnderMutex(mMutex, waiting, [] {}));
  mClock.advance(100000);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(returned.load());
  mCondition.signal();
  waiter.join();
  EXPECT_TRUE(returned.load());
}

TEST_F(ConditionTest, WaitReleasesEveryLevelOfARecursiveMutex) {
  Mutex recursive(true);
  std::atomic<bool> waiting{false};
  std::atomic<bool> signalled{false};
  std::thread waiter([&] {
    ScopedLock outer(recursive);
    ScopedLock inner(recursive);
    waiting = true;
    signalled = mCondition.wait(recursive, 10000);
    // Both levels are held again: the inner and outer unlocks must balance.
  });
  const bool signalSent = whenSetUnderMutex(recursive, waiting, [this] { mCondition.signal(); });
  if (!signalSent) {
    mClock.advance(10000);  // frees the waiter
  }
  waiter.join();
  EXPECT_TRUE(signalSent);
  EXPECT_TRUE(signalled.load());
  EXPECT_TRUE(recursive.tryLock());
  recursive.unlock();
}

TEST(MutexTest, RecursiveMutexCanBeLockedAgainByItsHolder) {
  Mutex mutex(true);
  mutex.lock();
  EXPECT_TRUE(mutex.tryLock());
  mutex.lock();
  std::atomic<bool> otherGotIt{true};
  std::thread other([&] { otherGotIt = mutex.tryLock(); });
  other.join();
  EXPECT_FALSE(otherGotIt.load());
  mutex.unlock();
  mutex.unlock();
  mutex.unlock();
  std::thread again([&] {
    otherGotIt = mutex.tryLock();
    if (otherGotIt) {
      mutex.unlock();
    }
  });
  again.join();
  EXPECT_TRUE(otherGotIt.load());
}

TEST(MutexTest, PlainMutexExcludesOtherThreads) {
  Mutex mutex;
  int counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10000; ++i) {
        ScopedLock lock(mutex);
        ++counter;
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(counter, 40000);
}

TEST(ConditionRealClockTest, ShortTimedWaitExpires) {
  Mutex mutex;
  Condition condition;
  ScopedLock lock(mutex);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(condition.wait(mutex, 30));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(29));
}

TEST(ConditionRealClockTest, ShortTimedWaitSignalled) {
  Mutex mutex;
  Condition condition;
  std::atomic<bool> waiting{false};
  std::atomic<bool> signalled{false};
  std::thread waiter([&] {
    ScopedLock lock(mutex);
    waiting = true;
    signalled = condition.wait(mutex, 10000);
  });
  EXPECT_TRUE(whenSetUnderMutex(mutex, waiting, [&condition] { condition.signal(); }));
  waiter.join();
  EXPECT_TRUE(signalled.load());
}

TEST(ManualClockTest, AdvanceMovesTheInstalledFrameworkClock) {
  Tolvane::host::ManualClock clock(500);
  Tolvane::host::setClock(&clock);
  EXPECT_EQ(Tolvane::host::nowMs(), 500u);
  clock.advance(900000);
  EXPECT_EQ(Tolvane::host::nowMs(), 900500u);
  EXPECT_EQ(Tolvane::host::getClock(), &clock);
  Tolvane::host::setClock(nullptr);
  EXPECT_NE(Tolvane::host::getClock(), &clock);
  const uint64_t first = Tolvane::host::nowMs();
  EXPECT_GE(Tolvane::host::nowMs(), first);
}

}  // namespace
