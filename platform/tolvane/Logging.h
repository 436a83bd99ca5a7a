// Logging of the Tolvane framework.
//
// Levels: 0 errors, 2 warnings, 5 information, 6 detail, 7 traces.
// A message is written when its level is at or below the threshold that its
// source file registered (the platform may lower or raise all thresholds).
//
// Contract:
// - Every function is safe from any thread, and from static initialisers and
//   destructors (objects destroyed at exit still log).
// - A message is one line; lines of concurrent threads are never mixed.
// - Nothing is lost silently: when the system log cannot be reached,
//   messages go to standard error instead, so a fatal start-up error is seen.
// - Observers are called on the thread that logged, without a lock held; a
//   message logged from inside an observer is not observed again.
#pragma once

#include <functional>
#include <string>

// The levels by name, for TL_LOG and TL_REGISTER_LOGGING.
constexpr int kLogError = 0;
constexpr int kLogWarning = 2;
constexpr int kLogInfo = 5;
constexpr int kLogDetail = 6;
constexpr int kLogTrace = 7;

// Registers a source file once: enable switches its messages on or off, level
// is its threshold. Files that never register use the platform default.
void register_logging(const char* file, bool enable, int level);

void tl_log_print(int level, const char* function, const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

// True when a message of this level from this source file would be written or
// seen by an observer; lets a caller skip building a costly argument.
bool tl_log_enabled(int level, const char* file);

// Non-zero sends every message to the system log instead of standard error.
void logging_enable_syslog(int enable);

// Observers see every message, at every level and whatever the thresholds,
// formatted, from the thread that logged it. For diagnostics and tests.
typedef std::function<void(int level, const std::string& file, const std::string& message)> LogObserver;
int logging_add_observer(LogObserver observer);
void logging_remove_observer(int id);

namespace Tolvane {

// Scope trace: logs entry and exit of a function at level 7.
class Tracer {
 public:
  Tracer(const char* function, const char* file, int line);
  ~Tracer();
  Tracer(const Tracer&) = delete;
  Tracer& operator=(const Tracer&) = delete;

 private:
  const char* mFunction;
  const char* mFile;
  int mLine;
};

// Registers the file it is defined in when the program starts.
class LogRegistration {
 public:
  LogRegistration(const char* file, bool enable, int level) { register_logging(file, enable, level); }
};

}  // namespace Tolvane

#define TL_LOG(level, ...) tl_log_print((level), __PRETTY_FUNCTION__, __FILE__, __LINE__, __VA_ARGS__)
#define TL_TRACE() const Tolvane::Tracer tlScopeTrace(__PRETTY_FUNCTION__, __FILE__, __LINE__)
#define TL_REGISTER_LOGGING(enable, level) \
  static const Tolvane::LogRegistration tlLogRegistration(__FILE__, (enable), (level))
