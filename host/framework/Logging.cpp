#include "tolvane/Logging.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>

#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "tolvane_host/LoggingControl.h"

namespace {

constexpr int kDefaultThreshold = 5;
constexpr int kTraceLevel = 7;
constexpr int kNoOverride = -1;
constexpr size_t kStackMessageSize = 512;

struct FileSetting {
  bool enable = true;
  int level = kDefaultThreshold;
};

// Thresholds by file name. Every message looks its file up, so lookups are
// cached by the address of the file name, which is the same for every message
// of one source file.
class ThresholdTable {
 public:
  void set(const char* file, bool enable, int level) {
    const std::unique_lock<std::shared_mutex> guard(mMutex);
    mByName[file] = FileSetting{enable, level};
    mByAddress.clear();
  }

  FileSetting get(const char* file) {
    {
      const std::shared_lock<std::shared_mutex> guard(mMutex);
      auto cached = mByAddress.find(file);
      if (cached != mByAddress.end()) {
        return cached->second;
      }
    }
    const std::unique_lock<std::shared_mutex> guard(mMutex);
    auto named = mByName.find(file);
    const FileSetting setting = named != mByName.end() ? named->second : FileSetting{};
    mByAddress[file] = setting;
    return setting;
  }

 private:
  std::shared_mutex mMutex;
  std::unordered_map<std::string, FileSetting> mByName;
  std::unordered_map<const char*, FileSetting> mByAddress;
};

// Never destroyed: objects destroyed at exit still log.
ThresholdTable& thresholds() {
  static ThresholdTable* const table = new ThresholdTable;
  return *table;
}

std::atomic<int> gLevelOverride{kNoOverride};
std::atomic<bool> gEchoSyslogToStderr{false};
std::atomic<bool> gUseSyslog{false};
std::once_flag gEnvironmentRead;

constexpr int kMaxLevel = 100;

// Returns a warning when CHD_LOG_LEVEL is set but is not a level.
std::string readEnvironment() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the environment does not change while the process runs
  const char* level = std::getenv("CHD_LOG_LEVEL");
  char* end = nullptr;
  const long value = level != nullptr ? std::strtol(level, &end, 10) : kNoOverride;
  const bool valid = level != nullptr && *level != '\0' && *end == '\0' && value >= 0 && value <= kMaxLevel;
  gLevelOverride.store(valid ? static_cast<int>(value) : kNoOverride);
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the environment does not change while the process runs
  const char* echo = std::getenv("CHD_LOG_STDERR");
  gEchoSyslogToStderr.store(echo != nullptr && std::strcmp(echo, "1") == 0);
  if (level == nullptr || valid) {
    return std::string();
  }
  return std::string("CHD_LOG_LEVEL [") + level + "] is not a level from 0 to " + std::to_string(kMaxLevel) +
         "; the registered thresholds apply";
}

void writeLine(int level, const char* file, int line, const std::string& message);

std::mutex gSyslogSocketMutex;
std::string gSyslogSocket = _PATH_LOG;

std::string syslogSocket() {
  const std::lock_guard<std::mutex> guard(gSyslogSocketMutex);
  return gSyslogSocket;
}

// The first read happens inside some message's threshold check, so its warning
// is written directly: logging it would ask for the thresholds again.
void ensureEnvironmentRead() {
  std::call_once(gEnvironmentRead, [] {
    const std::string warning = readEnvironment();
    if (!warning.empty()) {
      writeLine(2, __FILE__, __LINE__, warning);
    }
  });
}

int effectiveThreshold(const char* file) {
  ensureEnvironmentRead();
  const FileSetting setting = thresholds().get(file);
  if (!setting.enable) {
    return -1;
  }
  const int override = gLevelOverride.load(std::memory_order_relaxed);
  return override != kNoOverride ? override : setting.level;
}

struct ObserverEntry {
  int id;
  LogObserver observer;
  int activeCalls = 0;  // guarded by ObserverList::mutex
};

// Observers are called without any lock held. Removing one waits until no
// thread is still inside it, so its captured state may be destroyed next.
class ObserverList {
 public:
  int add(LogObserver observer) {
    const std::lock_guard<std::mutex> guard(mMutex);
    const int id = ++mLastId;
    mEntries.push_back(std::make_shared<ObserverEntry>(ObserverEntry{id, std::move(observer)}));
    mCount.store(static_cast<int>(mEntries.size()), std::memory_order_release);
    return id;
  }

  void remove(int id) {
    std::unique_lock<std::mutex> lock(mMutex);
    std::shared_ptr<ObserverEntry> removed;
    for (auto it = mEntries.begin(); it != mEntries.end(); ++it) {
      if ((*it)->id == id) {
        removed = *it;
        mEntries.erase(it);
        break;
      }
    }
    mCount.store(static_cast<int>(mEntries.size()), std::memory_order_release);
    if (removed && tCurrentObserver != id) {
      mIdle.wait(lock, [&] { return removed->activeCalls == 0; });
    }
  }

  bool empty() const { return mCount.load(std::memory_order_acquire) == 0; }
  bool insideObserver() const { return tCurrentObserver != 0; }

  void notify(int level, const std::string& file, const std::string& message) {
    std::vector<std::shared_ptr<ObserverEntry>> snapshot;
    {
      const std::lock_guard<std::mutex> guard(mMutex);
      snapshot = mEntries;
      for (auto& entry : snapshot) {
        ++entry->activeCalls;
      }
    }
    for (auto& entry : snapshot) {
      tCurrentObserver = entry->id;
      entry->observer(level, file, message);
      tCurrentObserver = 0;
    }
    const std::lock_guard<std::mutex> guard(mMutex);
    for (auto& entry : snapshot) {
      --entry->activeCalls;
    }
    mIdle.notify_all();
  }

 private:
  static thread_local int tCurrentObserver;
  std::mutex mMutex;
  std::condition_variable mIdle;
  std::vector<std::shared_ptr<ObserverEntry>> mEntries;
  std::atomic<int> mCount{0};
  int mLastId = 0;
};

thread_local int ObserverList::tCurrentObserver = 0;

ObserverList& observers() {
  static ObserverList* const list = new ObserverList;
  return *list;
}

const char* baseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

std::string formatMessage(const char* format, va_list args) {
  char stackBuffer[kStackMessageSize];
  va_list copy;
  va_copy(copy, args);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): copy is initialised by va_copy just above
  const int length = std::vsnprintf(stackBuffer, sizeof stackBuffer, format, copy);
  va_end(copy);
  if (length < 0) {
    return format;
  }
  if (static_cast<size_t>(length) < sizeof stackBuffer) {
    return std::string(stackBuffer, static_cast<size_t>(length));
  }
  std::string text(static_cast<size_t>(length) + 1, '\0');
  std::vsnprintf(&text[0], text.size(), format, args);
  text.resize(static_cast<size_t>(length));
  return text;
}

int syslogPriority(int level) {
  if (level <= 0) {
    return LOG_ERR;
  }
  if (level <= 2) {
    return LOG_WARNING;
  }
  return level <= 5 ? LOG_INFO : LOG_DEBUG;
}

void writeLine(int level, const char* file, int line, const std::string& message) {
  if (gUseSyslog.load(std::memory_order_acquire)) {
    syslog(syslogPriority(level), "%d %s:%d %s", level, baseName(file), line, message.c_str());
    return;
  }
  // One write per line keeps lines of concurrent threads whole.
  std::string text = std::to_string(level) + " " + baseName(file) + ":" + std::to_string(line) + " " + message + "\n";
  const ssize_t ignored = ::write(STDERR_FILENO, text.data(), text.size());
  (void)ignored;
}

}  // namespace

void register_logging(const char* file, bool enable, int level) { thresholds().set(file, enable, level); }

void tl_log_print(int level, const char* /*function*/, const char* file, int line, const char* format, ...) {
  const bool observed = !observers().empty() && !observers().insideObserver();
  const bool wanted = level <= effectiveThreshold(file);
  if (!wanted && !observed) {
    return;
  }
  va_list args;
  va_start(args, format);
  const std::string message = formatMessage(format, args);
  va_end(args);
  if (wanted) {
    writeLine(level, file, line, message);
  }
  if (observed) {
    observers().notify(level, baseName(file), message);
  }
}

bool tl_log_enabled(int level, const char* file) {
  return level <= effectiveThreshold(file) || (!observers().empty() && !observers().insideObserver());
}

void logging_enable_syslog(int enable) {
  ensureEnvironmentRead();
  // Without a system logger every message, the fatal ones included, would be
  // lost: keep writing to standard error instead.
  const std::string socket = syslogSocket();
  if (enable != 0 && !Tolvane::host::syslogReachable(socket)) {
    writeLine(2, __FILE__, __LINE__, "System log [" + socket + "] unreachable; logging to standard error");
    return;
  }
  if (enable != 0) {
    const int options = LOG_PID | (gEchoSyslogToStderr.load() ? LOG_PERROR : 0);
    openlog("chd", options, LOG_DAEMON);
    gUseSyslog.store(true, std::memory_order_release);
  } else {
    gUseSyslog.store(false, std::memory_order_release);
    closelog();
  }
}

int logging_add_observer(LogObserver observer) { return observers().add(std::move(observer)); }

void logging_remove_observer(int id) { observers().remove(id); }

namespace Tolvane {

Tracer::Tracer(const char* function, const char* file, int line) : mFunction(function), mFile(file), mLine(line) {
  tl_log_print(kTraceLevel, mFunction, mFile, mLine, "Entering %s", mFunction);
}

Tracer::~Tracer() { tl_log_print(kTraceLevel, mFunction, mFile, mLine, "Leaving %s", mFunction); }

namespace host {

void reloadLoggingEnvironment() {
  ensureEnvironmentRead();
  const std::string warning = readEnvironment();
  if (!warning.empty()) {
    TL_LOG(2, "%s", warning.c_str());
  }
}

void setSyslogSocketForTest(const std::string& socketPath) {
  const std::lock_guard<std::mutex> guard(gSyslogSocketMutex);
  gSyslogSocket = socketPath;
}

bool syslogReachable(const std::string& socketPath) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.size() >= sizeof address.sun_path) {
    return false;
  }
  std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
  // The system logger listens on a datagram or a stream socket, as syslog(3) tries.
  for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
    const int fd = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      return false;
    }
    const bool connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const int error = errno;
    ::close(fd);
    if (connected) {
      return true;
    }
    if (error != EPROTOTYPE) {
      return false;
    }
  }
  return false;
}

int getLoggingThreshold(const char* file) { return effectiveThreshold(file); }

}  // namespace host

}  // namespace Tolvane
