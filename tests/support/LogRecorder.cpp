#include "LogRecorder.h"

#include "tolvane/Logging.h"

namespace chdtest {

LogRecorder::LogRecorder() {
  mId = logging_add_observer([this](int level, const std::string& /*file*/, const std::string& message) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mLines.emplace_back(level, message);
  });
}

LogRecorder::~LogRecorder() { logging_remove_observer(mId); }

template <typename Match>
int LogRecorder::countWhere(Match match) const {
  const std::lock_guard<std::mutex> lock(mMutex);
  int found = 0;
  for (const auto& line : mLines) {
    found += match(line.first, line.second) ? 1 : 0;
  }
  return found;
}

int LogRecorder::count(int level, const std::string& text) const {
  return countWhere([&](int lineLevel, const std::string& message) {
    return lineLevel == level && message.find(text) != std::string::npos;
  });
}

int LogRecorder::exact(int level, const std::string& text) const {
  return countWhere([&](int lineLevel, const std::string& message) { return lineLevel == level && message == text; });
}

int LogRecorder::countAnyLevel(const std::string& text) const {
  return countWhere([&](int /*level*/, const std::string& message) { return message.find(text) != std::string::npos; });
}

std::vector<std::string> LogRecorder::messages(int maxLevel) const {
  const std::lock_guard<std::mutex> lock(mMutex);
  std::vector<std::string> found;
  for (const auto& line : mLines) {
    if (line.first <= maxLevel) {
      found.push_back(line.second);
    }
  }
  return found;
}

void LogRecorder::clear() {
  const std::lock_guard<std::mutex> lock(mMutex);
  mLines.clear();
}

}  // namespace chdtest
