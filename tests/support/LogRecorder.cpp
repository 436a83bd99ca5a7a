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

int LogRecorder::exactAnyLevel(const std::string& text) const {
  return countWhere([&](int /*level*/, const std::string& message) { return message == text; });
}

int LogRecorder::countStartingWith(const std::string& prefix) const {
  return countWhere(
      [&](int /*level*/, const std::string& message) { return message.compare(0, prefix.size(), prefix) == 0; });
}

int LogRecorder::firstExactLocked(const std::string& text) const {
  for (size_t i = 0; i < mLines.size(); ++i) {
    if (mLines[i].second == text) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

int LogRecorder::levelOfFirst(const std::string& text) const {
  const std::lock_guard<std::mutex> lock(mMutex);
  const int index = firstExactLocked(text);
  return index < 0 ? -1 : mLines[static_cast<size_t>(index)].first;
}

int LogRecorder::indexOfFirst(const std::string& text) const {
  const std::lock_guard<std::mutex> lock(mMutex);
  return firstExactLocked(text);
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
