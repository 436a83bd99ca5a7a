// Worker threads that run web providers on stolen connections.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>

#include "zuna_http/WebServer.h"

namespace zuna_http::host {

class RequestPool {
 public:
  // The process's pool; its workers start on first use.
  static RequestPool& instance();

  // Hands the connection (fd, owned from now on) to provider on a worker.
  // False when the queue is full: the caller still owns fd.
  bool submit(WebServiceProvider* provider, int fd, const std::string& method, const std::string& path);
  // Drops the provider's queued requests and waits until its running ones end.
  void drain(WebServiceProvider* provider);

 private:
  struct Job {
    WebServiceProvider* provider;
    int fd;
    std::string method;
    std::string path;
  };

  RequestPool() = default;
  void work();
  void runJob(const Job& job);

  std::mutex mMutex;
  std::condition_variable mWork;
  std::condition_variable mIdle;
  std::deque<Job> mQueue;
  std::map<WebServiceProvider*, int> mRunning;
  size_t mWorkers = 0;
  size_t mIdleWorkers = 0;
};

}  // namespace zuna_http::host
