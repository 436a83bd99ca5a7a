// The framework part of the stub platform: logging, reference counting, event
// threads, mutexes and conditions, files and sockets, commands, text
// conversions, the component manager and the platform settings.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <future>
#include <limits>
#include <map>
#include <mutex>
#include <thread>

#include "StubPlatform.h"
#include "tolvane/EventThread.h"
#include "tolvane/File.h"
#include "tolvane/Logging.h"
#include "tolvane/Mutex.h"
#include "tolvane/PlatformSettings.h"
#include "tolvane/Process.h"
#include "tolvane/TLCOM.h"
#include "zuna_localui/ISettingsManager.h"
#include "zuna_util/StringUtil.h"

// -- logging: errors and warnings to standard error, observers see everything.
namespace {
std::mutex gObserverMutex;
std::map<int, LogObserver> gObservers;
int gLastObserver = 0;
}  // namespace

void register_logging(const char* /*file*/, bool /*enable*/, int /*level*/) {}

void tl_log_print(int level, const char* /*function*/, const char* file, int line, const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (level <= 2) {
    std::fprintf(stderr, "%d %s:%d %s\n", level, file, line, text);
  }
  std::map<int, LogObserver> observers;
  {
    const std::lock_guard<std::mutex> guard(gObserverMutex);
    observers = gObservers;
  }
  for (auto& entry : observers) {
    entry.second(level, file, text);
  }
}

bool tl_log_enabled(int level, const char* /*file*/) { return level <= 2; }
void logging_enable_syslog(int /*enable*/) {}

int logging_add_observer(LogObserver observer) {
  const std::lock_guard<std::mutex> guard(gObserverMutex);
  gObservers[++gLastObserver] = std::move(observer);
  return gLastObserver;
}

void logging_remove_observer(int id) {
  const std::lock_guard<std::mutex> guard(gObserverMutex);
  gObservers.erase(id);
}

namespace Tolvane {

Tracer::Tracer(const char* function, const char* file, int line) : mFunction(function), mFile(file), mLine(line) {}
Tracer::~Tracer() = default;

void RefCount::destroy() const { delete this; }

// -- mutexes and conditions on std::recursive_mutex (a plain one is recursive too here).
struct Mutex::Impl {
  std::recursive_mutex mutex;
};
Mutex::Mutex(bool /*recursive*/) : mImpl(std::make_unique<Impl>()) {}
Mutex::~Mutex() = default;
void Mutex::lock() { mImpl->mutex.lock(); }
void Mutex::unlock() { mImpl->mutex.unlock(); }
bool Mutex::tryLock() { return mImpl->mutex.try_lock(); }

struct Condition::Impl {
  std::condition_variable_any condition;
  unsigned long generation = 0;  // guarded by the caller's Mutex
};
Condition::Condition() : mImpl(std::make_unique<Impl>()) {}
Condition::~Condition() = default;
void Condition::wait(Mutex& mutex) {
  const unsigned long start = mImpl->generation;
  mImpl->condition.wait(mutex.mImpl->mutex, [&] { return mImpl->generation != start; });
}
bool Condition::wait(Mutex& mutex, unsigned timeoutMs) {
  const unsigned long start = mImpl->generation;
  return mImpl->condition.wait_for(mutex.mImpl->mutex, std::chrono::milliseconds(timeoutMs),
                                   [&] { return mImpl->generation != start; });
}
// Callers signal with or without the mutex; the count only has to change.
void Condition::signal() {
  ++mImpl->generation;
  mImpl->condition.notify_one();
}
void Condition::broadcast() {
  ++mImpl->generation;
  mImpl->condition.notify_all();
}

template <class Container, class Predicate>
void eraseIf(Container& items, Predicate matches) {
  items.erase(std::remove_if(items.begin(), items.end(), matches), items.end());
}

// -- event threads: one std::thread, a FIFO and a list of delayed agents.
struct EventThread::Impl {
  using Clock = std::chrono::steady_clock;
  struct Delayed {
    Clock::time_point due;
    unsigned long order;
    SmartPtr<EventAgent> agent;
  };
  std::string name;
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<SmartPtr<EventAgent>> queue;
  std::deque<Delayed> delayed;
  unsigned long nextOrder = 0;
  const void* running = nullptr;
  bool stopping = false;
  std::thread thread;

  SmartPtr<EventAgent> next(std::unique_lock<std::mutex>& lock) {
    while (!stopping) {
      if (!queue.empty()) {
        SmartPtr<EventAgent> agent = queue.front();
        queue.pop_front();
        return agent;
      }
      auto due = delayed.begin();
      for (auto it = delayed.begin(); it != delayed.end(); ++it) {
        if (it->due < due->due || (it->due == due->due && it->order < due->order)) {
          due = it;
        }
      }
      if (due != delayed.end() && due->due <= Clock::now()) {
        SmartPtr<EventAgent> agent = due->agent;
        delayed.erase(due);
        return agent;
      }
      if (due != delayed.end()) {
        changed.wait_until(lock, due->due);
      } else {
        changed.wait(lock);
      }
    }
    return nullptr;
  }

  void loop() {
    std::unique_lock<std::mutex> lock(mutex);
    while (SmartPtr<EventAgent> agent = next(lock)) {
      running = agent->getReceiver();
      lock.unlock();
      agent->run();
      agent = nullptr;
      lock.lock();
      running = nullptr;
      changed.notify_all();
    }
  }
};

EventThread::EventThread(const std::string& name, int /*flags*/) : mImpl(std::make_unique<Impl>()) {
  mImpl->name = name;
  mImpl->thread = std::thread([this] { mImpl->loop(); });
}
EventThread::~EventThread() { shutdown(); }
const std::string& EventThread::getName() const { return mImpl->name; }

void EventThread::post(const SmartPtr<EventAgent>& agent) {
  const std::lock_guard<std::mutex> guard(mImpl->mutex);
  if (!mImpl->stopping) {
    mImpl->queue.push_back(agent);
    mImpl->changed.notify_all();
  }
}

void EventThread::postDelayed(const SmartPtr<EventAgent>& agent, unsigned delayMs) {
  const std::lock_guard<std::mutex> guard(mImpl->mutex);
  if (!mImpl->stopping) {
    mImpl->delayed.push_back(
        Impl::Delayed{Impl::Clock::now() + std::chrono::milliseconds(delayMs), mImpl->nextOrder++, agent});
    mImpl->changed.notify_all();
  }
}

bool EventThread::cancel(const SmartPtr<EventAgent>& agent) {
  const std::lock_guard<std::mutex> guard(mImpl->mutex);
  const size_t before = mImpl->queue.size() + mImpl->delayed.size();
  eraseIf(mImpl->queue, [&](const SmartPtr<EventAgent>& queued) { return queued == agent; });
  eraseIf(mImpl->delayed, [&](const Impl::Delayed& d) { return d.agent == agent; });
  return mImpl->queue.size() + mImpl->delayed.size() != before;
}

void EventThread::send(const SmartPtr<EventAgent>& agent) {
  if (isCurrentThread()) {
    agent->run();
    return;
  }
  auto done = std::make_shared<std::promise<void>>();
  struct Signal : EventAgent {
    Signal(SmartPtr<EventAgent> inner, std::shared_ptr<std::promise<void>> promise)
        : EventAgent(inner->getReceiver()), mInner(std::move(inner)), mPromise(std::move(promise)) {}
    ~Signal() override { mPromise->set_value(); }
    void run() override { mInner->run(); }
    SmartPtr<EventAgent> mInner;
    std::shared_ptr<std::promise<void>> mPromise;
  };
  std::future<void> finished = done->get_future();
  post(SmartPtr<EventAgent>(new Signal(agent, done)));
  finished.wait();
}

bool EventThread::isCurrentThread() const { return std::this_thread::get_id() == mImpl->thread.get_id(); }

void EventThread::removeAgentsByReceiver(const void* receiver) {
  std::unique_lock<std::mutex> lock(mImpl->mutex);
  eraseIf(mImpl->queue, [&](const SmartPtr<EventAgent>& a) { return a->getReceiver() == receiver; });
  eraseIf(mImpl->delayed, [&](const Impl::Delayed& d) { return d.agent->getReceiver() == receiver; });
  if (!isCurrentThread()) {
    mImpl->changed.wait(lock, [&] { return mImpl->running != receiver; });
  }
}

void EventThread::shutdown() {
  {
    const std::lock_guard<std::mutex> guard(mImpl->mutex);
    mImpl->stopping = true;
    mImpl->changed.notify_all();
  }
  if (mImpl->thread.joinable() && !isCurrentThread()) {
    mImpl->thread.join();
  }
  const std::lock_guard<std::mutex> guard(mImpl->mutex);
  mImpl->queue.clear();
  mImpl->delayed.clear();
}

// -- files and sockets: plain POSIX.
File::~File() { close(); }
bool File::open(const std::string& path) {
  close();
  mFd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  return mFd >= 0;
}
bool File::openBeneath(const std::string& root, const std::string& path) {
  char resolvedRoot[PATH_MAX];
  char resolved[PATH_MAX];
  if (realpath(root.c_str(), resolvedRoot) == nullptr || realpath(path.c_str(), resolved) == nullptr) {
    return false;
  }
  const std::string prefix = std::string(resolvedRoot) + "/";
  struct stat info {};
  if (std::string(resolved).rfind(prefix, 0) != 0 || stat(resolved, &info) != 0 || !S_ISREG(info.st_mode)) {
    return false;
  }
  return open(resolved);
}
int64_t File::getLength() {
  struct stat info {};
  return mFd >= 0 && fstat(mFd, &info) == 0 ? static_cast<int64_t>(info.st_size) : -1;
}
int64_t File::read(void* buffer, size_t length) { return ::read(mFd, buffer, length); }
void File::close() {
  if (mFd >= 0) {
    ::close(mFd);
    mFd = -1;
  }
}

ServerSocket::~ServerSocket() { close(); }
bool ServerSocket::bind(const std::string& address, uint16_t port) {
  close();
  mFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  if (mFd < 0 || inet_pton(AF_INET, address.empty() ? "0.0.0.0" : address.c_str(), &local.sin_addr) != 1 ||
      ::bind(mFd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
    close();
    return false;
  }
  return true;
}
bool ServerSocket::listen(int backlog) {
  mListening = mFd >= 0 && ::listen(mFd, backlog) == 0;
  return mListening;
}
uint16_t ServerSocket::getPort() const {
  sockaddr_in local{};
  socklen_t length = sizeof local;
  return mFd >= 0 && getsockname(mFd, reinterpret_cast<sockaddr*>(&local), &length) == 0 ? ntohs(local.sin_port) : 0;
}
void ServerSocket::close() {
  if (mFd >= 0) {
    ::close(mFd);
  }
  mFd = -1;
  mListening = false;
}

// -- commands: the shell in a group of its own, polled until the limit.
CommandResult runCommand(const std::string& command, std::chrono::milliseconds limit) {
  CommandResult result;
  const pid_t pid = fork();
  if (pid < 0) {
    result.status = -errno;
    return result;
  }
  if (pid == 0) {
    setpgid(0, 0);
    execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  const auto deadline = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() >= deadline) {
      kill(-pid, SIGKILL);
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      result.timedOut = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  result.status = status;
  return result;
}

void abortRunningCommands() {}

}  // namespace Tolvane

// -- text conversions.
namespace zuna_util {
namespace {
template <class T>
bool parseUnsigned(T& out, const std::string& text) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  errno = 0;
  const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
  if (errno != 0 || value > std::numeric_limits<T>::max()) {
    return false;
  }
  out = static_cast<T>(value);
  return true;
}
}  // namespace
bool fromString(unsigned& out, const std::string& text) { return parseUnsigned(out, text); }
bool fromString(uint64_t& out, const std::string& text) { return parseUnsigned(out, text); }
}  // namespace zuna_util

// -- the settings manager, built in: "loading" its library always succeeds.
namespace {

class StubSettingsManager : public zuna_localui::ISettingsManager {
 public:
  bool storeFileSetting(const std::string& key, const std::string& value) override {
    const std::lock_guard<std::mutex> guard(mMutex);
    mValues[key] = value;
    return true;
  }
  bool saveFileSettings() override { return true; }
  std::string getFileSetting(const std::string& key) override {
    const std::lock_guard<std::mutex> guard(mMutex);
    auto it = mValues.find(key);
    return it != mValues.end() ? it->second : std::string();
  }
  Tolvane::StringVector getFileSettingKeys() override {
    const std::lock_guard<std::mutex> guard(mMutex);
    Tolvane::StringVector keys;
    for (const auto& entry : mValues) {
      keys.push_back(entry.first);
    }
    return keys;
  }

 private:
  std::mutex mMutex;
  std::map<std::string, std::string> mValues;
};

class StubComponentManager : public TLCOM::IComponentManager {
 public:
  int loadLibrary(const std::string& fileName) override { return fileName == "libzunalui_settingsmanager.so" ? 0 : -1; }
  void registerService(const std::string& /*service*/, const std::string& /*interfaceName*/,
                       TLCOM::ServiceFactory /*factory*/) override {}
  Tolvane::SmartPtr<Tolvane::RefCount> getService(const std::string& service,
                                                  const std::string& interfaceName) override {
    if (service != "SettingsManagerProxy" || interfaceName != "localui::ISettingsManager") {
      return nullptr;
    }
    return Tolvane::SmartPtr<Tolvane::RefCount>(new StubSettingsManager);
  }
};

class StubPlatformSettings : public Tolvane::PlatformSettings {
 public:
  bool hasChdSupport() override { return true; }
  std::string getModel() override { return stub::settings().model; }
  std::string getManufacturer() override { return stub::settings().manufacturer; }
  std::string getManufacturerId() override { return stub::settings().manufacturerId; }
  int getLocale() override { return 0; }
  bool hasWifi() override { return false; }
  bool hasLogChunking() override { return true; }
  bool supportsDumpingEEDID() override { return false; }
  bool hasAmazonEchoSupport() override { return false; }
  std::string getLogPath() override { return stub::settings().logPath; }
  std::string getAutoIPInterface() override { return std::string(); }
  std::string getEthernetInterface() override { return "lo"; }
};

}  // namespace

TLCOM::IComponentManager* TLCOM::getComponentManager() {
  static StubComponentManager manager;
  return &manager;
}

Tolvane::PlatformSettings* Tolvane::PlatformSettings::getInstance() {
  static StubPlatformSettings settings;
  return &settings;
}

stub::Settings& stub::settings() {
  static Settings values;
  return values;
}
