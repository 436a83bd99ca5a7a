#include "zuna_http_host/RequestPool.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "RawConnection.h"
#include "tolvane_host/ThreadSignals.h"

namespace zuna_http::host {

namespace {

// Log files are fetched one or two at a time; a few workers and a short queue
// bound the threads and memory a burst of requests can take.
constexpr size_t kMaxWorkers = 4;
constexpr size_t kMaxQueued = 32;

}  // namespace

RequestPool& RequestPool::instance() {
  // Never destroyed: workers may still be blocked in a provider at exit.
  static RequestPool* pool = new RequestPool();
  return *pool;
}

bool RequestPool::submit(WebServiceProvider* provider, int fd, const std::string& method, const std::string& path) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mQueue.size() >= kMaxQueued) {
    return false;
  }
  mQueue.push_back(Job{provider, fd, method, path});
  if (mIdleWorkers == 0 && mWorkers < kMaxWorkers) {
    ++mWorkers;
    std::thread([this] { work(); }).detach();
  }
  mWork.notify_one();
  return true;
}

void RequestPool::drain(WebServiceProvider* provider) {
  std::unique_lock<std::mutex> lock(mMutex);
  auto dropped = std::remove_if(mQueue.begin(), mQueue.end(), [provider](const Job& job) {
    if (job.provider == provider) {
      ::close(job.fd);
      return true;
    }
    return false;
  });
  mQueue.erase(dropped, mQueue.end());
  mIdle.wait(lock, [this, provider] { return mRunning.count(provider) == 0; });
}

void RequestPool::work() {
  pthread_setname_np(pthread_self(), "WebRequest");
  Tolvane::host::blockProcessSignals();
  std::unique_lock<std::mutex> lock(mMutex);
  for (;;) {
    ++mIdleWorkers;
    mWork.wait(lock, [this] { return !mQueue.empty(); });
    --mIdleWorkers;
    Job job = mQueue.front();
    mQueue.pop_front();
    ++mRunning[job.provider];
    lock.unlock();
    runJob(job);
    lock.lock();
    if (--mRunning[job.provider] == 0) {
      mRunning.erase(job.provider);
      mIdle.notify_all();
    }
  }
}

void RequestPool::runJob(const Job& job) {
  RawConnection connection(job.fd);
  WebRequest request(job.method, job.path);
  job.provider->handleRequest(&connection, &request);
  connection.close();
}

}  // namespace zuna_http::host
