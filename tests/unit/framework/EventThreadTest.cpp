#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "tolvane/EventThread.h"
#include "tolvane_host/ManualClock.h"

namespace {

using Tolvane::AsyncEventAgent;
using Tolvane::EventAgent;
using Tolvane::EventThread;
using Tolvane::SmartPtr;
using Tolvane::SyncEventAgent;

// Records what ran, in order; read by the test after a flush of the thread.
class Recorder {
 public:
  void add(int value) {
    const std::lock_guard<std::mutex> guard(mMutex);
    mValues.push_back(value);
  }
  void noop() {}
  std::vector<int> values() {
    const std::lock_guard<std::mutex> guard(mMutex);
    return mValues;
  }

 private:
  std::mutex mMutex;
  std::vector<int> mValues;
};

// One-shot gate between the test and an agent.
class Gate {
 public:
  void open() {
    const std::lock_guard<std::mutex> guard(mMutex);
    mOpen = true;
    mChanged.notify_all();
  }
  bool waitOpen(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, limit, [this] { return mOpen; });
  }

 private:
  std::mutex mMutex;
  std::condition_variable mChanged;
  bool mOpen = false;
};

SmartPtr<EventAgent> addAgent(Recorder* recorder, int value) {
  return SmartPtr<EventAgent>(new AsyncEventAgent(recorder, &Recorder::add, value));
}

// Returns once every agent that was due before the call has run.
void flush(EventThread& thread) {
  Recorder sink;
  thread.send(SmartPtr<EventAgent>(new SyncEventAgent(&sink, &Recorder::noop)));
}

// Sets a flag when destroyed, to see when the framework drops its reference.
class TrackedAgent : public EventAgent {
 public:
  TrackedAgent(const void* receiver, std::atomic<bool>* destroyed) : EventAgent(receiver), mDestroyed(destroyed) {}
  void run() override {}

 protected:
  ~TrackedAgent() override { mDestroyed->store(true); }

 private:
  std::atomic<bool>* mDestroyed;
};

class ManualClockTest : public ::testing::Test {
 protected:
  void SetUp() override { Tolvane::host::setClock(&mClock); }
  void TearDown() override { Tolvane::host::setClock(nullptr); }
  Tolvane::host::ManualClock mClock{1000};
};

using EventThreadTest = ManualClockTest;

TEST_F(EventThreadTest, ImmediatePostsRunInPostOrder) {
  EventThread thread("order", 0);
  Recorder recorder;
  for (int i = 0; i < 100; ++i) {
    thread.post(addAgent(&recorder, i));
  }
  flush(thread);
  std::vector<int> expected;
  for (int i = 0; i < 100; ++i) {
    expected.push_back(i);
  }
  EXPECT_EQ(recorder.values(), expected);
}

TEST_F(EventThreadTest, DelayedPostsRunWhenDueInDueThenPostOrder) {
  EventThread thread("delayed", 0);
  Recorder recorder;
  thread.postDelayed(addAgent(&recorder, 1), 900000);
  thread.postDelayed(addAgent(&recorder, 2), 900000);
  thread.postDelayed(addAgent(&recorder, 3), 1000);
  thread.postDelayed(addAgent(&recorder, 4), 90000);
  mClock.advance(999);
  flush(thread);
  EXPECT_TRUE(recorder.values().empty());
  mClock.advance(1);
  flush(thread);
  EXPECT_EQ(recorder.values(), (std::vector<int>{3}));
  mClock.advance(899000);
  flush(thread);
  EXPECT_EQ(recorder.values(), (std::vector<int>{3, 4, 1, 2}));
}

TEST_F(EventThreadTest, ImmediatePostAfterClockMovedRunsAfterAgentsAlreadyDue) {
  EventThread thread("timeline", 0);
  Recorder recorder;
  thread.postDelayed(addAgent(&recorder, 1), 500);
  mClock.advance(600);
  thread.post(addAgent(&recorder, 2));
  flush(thread);
  EXPECT_EQ(recorder.values(), (std::vector<int>{1, 2}));
}

TEST_F(EventThreadTest, CancelRemovesEveryQueuedPostOfTheAgent) {
  EventThread thread("cancel", 0);
  Recorder recorder;
  SmartPtr<EventAgent> agent = addAgent(&recorder, 7);
  thread.postDelayed(agent, 100);
  thread.postDelayed(agent, 200);
  thread.postDelayed(addAgent(&recorder, 8), 100);
  EXPECT_TRUE(thread.cancel(agent));
  EXPECT_FALSE(thread.cancel(agent));
  mClock.advance(1000);
  flush(thread);
  EXPECT_EQ(recorder.values(), (std::vector<int>{8}));
}

TEST_F(EventThreadTest, QueuedAgentIsKeptAliveUntilItRuns) {
  EventThread thread("refs", 0);
  std::atomic<bool> destroyed{false};
  int receiver = 0;
  thread.postDelayed(SmartPtr<EventAgent>(new TrackedAgent(&receiver, &destroyed)), 50);
  flush(thread);
  EXPECT_FALSE(destroyed.load());
  mClock.advance(50);
  flush(thread);
  EXPECT_TRUE(destroyed.load());
}

class ThreadProbe {
 public:
  explicit ThreadProbe(EventThread* thread) : mThread(thread) {}
  void probe() {
    onThread = mThread->isCurrentThread();
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    threadName = name;
    runs++;
  }
  void sendNested() {
    nestedBefore = runs.load();
    mThread->send(SmartPtr<EventAgent>(new SyncEventAgent(this, &ThreadProbe::probe)));
    nestedAfter = runs.load();
  }

  std::atomic<bool> onThread{false};
  std::atomic<int> runs{0};
  std::string threadName;
  int nestedBefore = -1;
  int nestedAfter = -1;

 private:
  EventThread* mThread;
};

TEST_F(EventThreadTest, SendFromOutsideRunsOnTheThreadNamedAfterTheFirst15Characters) {
  EventThread thread("CM_StatusThread_with_a_long_name", 0);
  EXPECT_EQ(thread.getName(), "CM_StatusThread_with_a_long_name");
  ThreadProbe probe(&thread);
  thread.send(SmartPtr<EventAgent>(new SyncEventAgent(&probe, &ThreadProbe::probe)));
  EXPECT_EQ(probe.runs.load(), 1);
  EXPECT_TRUE(probe.onThread.load());
  EXPECT_EQ(probe.threadName, "CM_StatusThread");
  EXPECT_FALSE(thread.isCurrentThread());
}

TEST_F(EventThreadTest, SendFromTheThreadItselfRunsTheAgentDirectly) {
  EventThread thread("nested", 0);
  ThreadProbe probe(&thread);
  thread.send(SmartPtr<EventAgent>(new SyncEventAgent(&probe, &ThreadProbe::sendNested)));
  EXPECT_EQ(probe.nestedBefore, 0);
  EXPECT_EQ(probe.nestedAfter, 1);
}

class BlockingReceiver {
 public:
  // Posts the blocking agent to thread; true once it runs there and holds it.
  bool occupy(EventThread& thread) {
    thread.post(SmartPtr<EventAgent>(new AsyncEventAgent(this, &BlockingReceiver::block)));
    return started.waitOpen();
  }

  void block() {
    started.open();
    release.waitOpen();
    finished = true;
  }
  Gate started;
  Gate release;
  std::atomic<bool> finished{false};
};

TEST_F(EventThreadTest, RemoveAgentsByReceiverDropsOnlyThatReceiversAgents) {
  EventThread thread("remove", 0);
  // Holds the thread so that nothing queued below can run before the removal.
  BlockingReceiver blocker;
  ASSERT_TRUE(blocker.occupy(thread));
  Recorder kept;
  Recorder removed;
  thread.postDelayed(addAgent(&removed, 1), 10);
  thread.postDelayed(addAgent(&kept, 2), 10);
  thread.post(addAgent(&removed, 3));
  thread.post(addAgent(&kept, 4));
  thread.removeAgentsByReceiver(&removed);
  blocker.release.open();
  mClock.advance(10);
  flush(thread);
  EXPECT_TRUE(removed.values().empty());
  EXPECT_EQ(kept.values(), (std::vector<int>{4, 2}));
}

TEST_F(EventThreadTest, RemoveAgentsByReceiverFromAnotherThreadWaitsForTheRunningAgent) {
  EventThread thread("waitremove", 0);
  BlockingReceiver receiver;
  ASSERT_TRUE(receiver.occupy(thread));
  std::atomic<bool> removed{false};
  std::thread remover([&] {
    thread.removeAgentsByReceiver(&receiver);
    removed = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(removed.load());
  receiver.release.open();
  remover.join();
  EXPECT_TRUE(removed.load());
  EXPECT_TRUE(receiver.finished.load());
}

TEST_F(EventThreadTest, RemoveAgentsByReceiverOfAnotherReceiverDoesNotWait) {
  EventThread thread("nowait", 0);
  BlockingReceiver receiver;
  ASSERT_TRUE(receiver.occupy(thread));
  Recorder other;
  thread.removeAgentsByReceiver(&other);
  thread.removeAgentsByReceiver(nullptr);
  EXPECT_FALSE(receiver.finished.load());
  receiver.release.open();
}

class SelfRemover {
 public:
  explicit SelfRemover(EventThread* thread, Recorder* recorder) : mThread(thread), mRecorder(recorder) {}
  void removeOwnAgents() {
    mThread->post(SmartPtr<EventAgent>(new AsyncEventAgent(this, &SelfRemover::mark)));
    mThread->removeAgentsByReceiver(this);
    mRecorder->add(1);
  }
  void mark() { mRecorder->add(99); }

 private:
  EventThread* mThread;
  Recorder* mRecorder;
};

TEST_F(EventThreadTest, RemoveAgentsByReceiverFromInsideItsOwnAgentDoesNotDeadlock) {
  EventThread thread("selfremove", 0);
  Recorder recorder;
  SelfRemover remover(&thread, &recorder);
  thread.post(SmartPtr<EventAgent>(new AsyncEventAgent(&remover, &SelfRemover::removeOwnAgents)));
  flush(thread);
  EXPECT_EQ(recorder.values(), (std::vector<int>{1}));
}

TEST_F(EventThreadTest, SendOfAnAgentThatIsCancelledWhileQueuedReturnsWithoutRunning) {
  EventThread thread("sendcancel", 0);
  BlockingReceiver blocker;
  ASSERT_TRUE(blocker.occupy(thread));
  Recorder recorder;
  SmartPtr<EventAgent> agent = addAgent(&recorder, 5);
  Gate returned;
  std::thread sender([&] {
    thread.send(agent);
    returned.open();
  });
  // The send sits behind the blocked agent; cancel it once it is queued.
  bool cancelled = false;
  for (int i = 0; i < 5000 && !cancelled; ++i) {
    cancelled = thread.cancel(agent);
    if (!cancelled) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  EXPECT_TRUE(cancelled);
  EXPECT_TRUE(returned.waitOpen());
  blocker.release.open();
  sender.join();
  flush(thread);
  EXPECT_TRUE(recorder.values().empty());
}

TEST_F(EventThreadTest, ShutdownLetsTheRunningAgentFinishAndDropsTheQueue) {
  EventThread thread("shutdown", 0);
  BlockingReceiver blocker;
  Recorder recorder;
  std::atomic<bool> destroyed{false};
  thread.post(SmartPtr<EventAgent>(new AsyncEventAgent(&blocker, &BlockingReceiver::block)));
  thread.post(addAgent(&recorder, 1));
  thread.postDelayed(SmartPtr<EventAgent>(new TrackedAgent(&recorder, &destroyed)), 10);
  ASSERT_TRUE(blocker.started.waitOpen());
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    blocker.release.open();
  });
  thread.shutdown();
  releaser.join();
  EXPECT_TRUE(blocker.finished.load());
  EXPECT_TRUE(recorder.values().empty());
  EXPECT_TRUE(destroyed.load());
}

TEST_F(EventThreadTest, AfterShutdownPostsAreDroppedAndSendReturnsWithoutRunning) {
  EventThread thread("aftershutdown", 0);
  thread.shutdown();
  thread.shutdown();
  Recorder recorder;
  std::atomic<bool> destroyed{false};
  thread.post(addAgent(&recorder, 1));
  thread.postDelayed(SmartPtr<EventAgent>(new TrackedAgent(&recorder, &destroyed)), 0);
  EXPECT_TRUE(destroyed.load());
  ThreadProbe probe(&thread);
  thread.send(SmartPtr<EventAgent>(new SyncEventAgent(&probe, &ThreadProbe::probe)));
  EXPECT_EQ(probe.runs.load(), 0);
  EXPECT_TRUE(recorder.values().empty());
}

TEST(EventThreadRealClockTest, DelayedPostRunsAfterItsDelay) {
  EventThread thread("realclock", 0);
  Gate ran;
  class Opener {
   public:
    explicit Opener(Gate* gate) : mGate(gate) {}
    void open() { mGate->open(); }

   private:
    Gate* mGate;
  } opener(&ran);
  const auto start = std::chrono::steady_clock::now();
  thread.postDelayed(SmartPtr<EventAgent>(new AsyncEventAgent(&opener, &Opener::open)), 30);
  ASSERT_TRUE(ran.waitOpen());
  // The framework clock counts whole milliseconds: up to one of them may be cut off.
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(29));
}

}  // namespace
