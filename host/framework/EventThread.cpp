#include "tolvane/EventThread.h"

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "ClockWaiters.h"
#include "tolvane/Logging.h"
#include "tolvane_host/ManualClock.h"

TL_REGISTER_LOGGING(true, 5);

namespace Tolvane {

namespace {

// Completion of one send(): set when its agent has run or was dropped.
struct SendState {
  bool finished = false;
};

struct QueuedAgent {
  SmartPtr<EventAgent> agent;
  std::shared_ptr<SendState> send;  // null for posts
};

// Linux limits thread names to 15 characters.
constexpr size_t kThreadNameMax = 15;

}  // namespace

// Immediate and delayed posts share one timeline ordered by due time, then by
// post order: an immediate post is due when it is made. Hence a send() made
// after the clock has moved runs after every agent that was already due.
class EventQueue final : public host::detail::ClockWaiter {
 public:
  explicit EventQueue(std::string name) : mName(std::move(name)) { host::detail::addClockWaiter(this); }
  ~EventQueue() { host::detail::removeClockWaiter(this); }
  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  const std::string& name() const { return mName; }
  bool isCurrentThread() const { return mThreadId.load(std::memory_order_acquire) == std::this_thread::get_id(); }

  void onClockChanged() override {
    const std::lock_guard<std::mutex> guard(mMutex);
    mWakeup.notify_all();
  }

  // False when the agent was dropped because the queue has stopped.
  bool enqueue(const SmartPtr<EventAgent>& agent, uint64_t delayMs, const std::shared_ptr<SendState>& send) {
    {
      const std::lock_guard<std::mutex> guard(mMutex);
      if (mStopping || agent.isNull()) {
        return false;
      }
      const uint64_t due = host::nowMs() + delayMs;
      mQueue.emplace(Key{due, mNextSequence++}, QueuedAgent{agent, send});
    }
    // Woken while the poster still held the lock, the queue's thread would
    // run only to block on it again: two more context switches per agent
    // when both threads share a core. Only the queue's own thread waits here.
    mWakeup.notify_one();
    return true;
  }

  bool cancel(const SmartPtr<EventAgent>& agent) {
    std::unique_lock<std::mutex> lock(mMutex);
    return dropMatching([&](const QueuedAgent& queued) { return queued.agent == agent; }, lock);
  }

  void removeByReceiver(const void* receiver) {
    std::unique_lock<std::mutex> lock(mMutex);
    dropMatching([receiver](const QueuedAgent& queued) { return queued.agent->getReceiver() == receiver; }, lock);
    if (isCurrentThread()) {
      return;  // the running agent is the caller itself
    }
    mFinished.wait(lock, [&] { return !mRunning || mRunningReceiver != receiver; });
  }

  // Returns when the agent has run, or at once if this queue no longer runs agents.
  void sendAndWait(const SmartPtr<EventAgent>& agent) {
    auto state = std::make_shared<SendState>();
    if (!enqueue(agent, 0, state)) {
      return;
    }
    std::unique_lock<std::mutex> lock(mMutex);
    mFinished.wait(lock, [&] { return state->finished; });
  }

  void stop() {
    std::unique_lock<std::mutex> lock(mMutex);
    mStopping = true;
    dropMatching([](const QueuedAgent&) { return true; }, lock);
    mWakeup.notify_all();
  }

  void run() {
    mThreadId.store(std::this_thread::get_id(), std::memory_order_release);
    pthread_setname_np(pthread_self(), mName.substr(0, kThreadNameMax).c_str());
    std::unique_lock<std::mutex> lock(mMutex);
    while (!mStopping) {
      if (!runNextDue(lock)) {
        waitForWork(lock);
      }
    }
  }

 private:
  struct Key {
    uint64_t dueMs;
    uint64_t sequence;
    bool operator<(const Key& other) const {
      return dueMs != other.dueMs ? dueMs < other.dueMs : sequence < other.sequence;
    }
  };

  // Runs the first agent if it is due. Returns false when nothing was due.
  bool runNextDue(std::unique_lock<std::mutex>& lock) {
    if (mQueue.empty() || mQueue.begin()->first.dueMs > host::nowMs()) {
      return false;
    }
    QueuedAgent next = std::move(mQueue.begin()->second);
    mQueue.erase(mQueue.begin());
    mRunning = true;
    mRunningReceiver = next.agent->getReceiver();
    lock.unlock();
    next.agent->run();
    // The agent's reference goes before the receiver is reported free, so a
    // receiver destroyed right after removeAgentsByReceiver() is not touched.
    next.agent = nullptr;
    lock.lock();
    mRunning = false;
    mRunningReceiver = nullptr;
    if (next.send) {
      next.send->finished = true;
    }
    mFinished.notify_all();
    return true;
  }

  void waitForWork(std::unique_lock<std::mutex>& lock) {
    if (mQueue.empty()) {
      mWakeup.wait(lock);
    } else {
      host::detail::sleepUntil(mWakeup, lock, mQueue.begin()->first.dueMs);
    }
  }

  // Drops queued agents that match; their senders are released. The agents'
  // references are dropped outside the lock, since releasing the last one runs
  // destructors that may post again.
  template <class Predicate>
  bool dropMatching(Predicate matches, std::unique_lock<std::mutex>& lock) {
    std::vector<SmartPtr<EventAgent>> dropped;
    for (auto it = mQueue.begin(); it != mQueue.end();) {
      if (matches(it->second)) {
        if (it->second.send) {
          it->second.send->finished = true;
        }
        dropped.push_back(std::move(it->second.agent));
        it = mQueue.erase(it);
      } else {
        ++it;
      }
    }
    if (dropped.empty()) {
      return false;
    }
    mFinished.notify_all();
    lock.unlock();
    dropped.clear();
    lock.lock();
    return true;
  }

  const std::string mName;
  std::atomic<std::thread::id> mThreadId{};
  std::mutex mMutex;
  std::condition_variable mWakeup;    // work arrived, clock moved, or stop
  std::condition_variable mFinished;  // an agent finished or was dropped
  std::map<Key, QueuedAgent> mQueue;
  uint64_t mNextSequence = 0;
  bool mRunning = false;
  const void* mRunningReceiver = nullptr;
  bool mStopping = false;
};

struct EventThread::Impl {
  std::shared_ptr<EventQueue> queue;
  std::mutex joinMutex;
  std::thread thread;
};

EventThread::EventThread(const std::string& name, int /*flags*/) : mImpl(std::make_unique<Impl>()) {
  mImpl->queue = std::make_shared<EventQueue>(name);
  // The thread keeps the queue alive itself, so that an event thread that is
  // destroyed from one of its own agents does not pull the queue from under it.
  std::shared_ptr<EventQueue> queue = mImpl->queue;
  mImpl->thread = std::thread([queue] { queue->run(); });
}

EventThread::~EventThread() { shutdown(); }

const std::string& EventThread::getName() const { return mImpl->queue->name(); }

void EventThread::post(const SmartPtr<EventAgent>& agent) { mImpl->queue->enqueue(agent, 0, nullptr); }

void EventThread::postDelayed(const SmartPtr<EventAgent>& agent, unsigned delayMs) {
  mImpl->queue->enqueue(agent, delayMs, nullptr);
}

bool EventThread::cancel(const SmartPtr<EventAgent>& agent) { return mImpl->queue->cancel(agent); }

void EventThread::send(const SmartPtr<EventAgent>& agent) {
  if (agent.isNull()) {
    return;
  }
  if (isCurrentThread()) {
    agent->run();
    return;
  }
  mImpl->queue->sendAndWait(agent);
}

bool EventThread::isCurrentThread() const { return mImpl->queue->isCurrentThread(); }

void EventThread::removeAgentsByReceiver(const void* receiver) { mImpl->queue->removeByReceiver(receiver); }

void EventThread::shutdown() {
  mImpl->queue->stop();
  const std::lock_guard<std::mutex> guard(mImpl->joinMutex);
  if (!mImpl->thread.joinable()) {
    return;
  }
  if (isCurrentThread()) {
    TL_LOG(2, "event thread [%s] shut down from its own thread; not joined", getName().c_str());
    mImpl->thread.detach();
  } else {
    mImpl->thread.join();
  }
}

}  // namespace Tolvane
