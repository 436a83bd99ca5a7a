// Every message the process logs while the recorder exists, from any thread.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace chdtest {

class LogRecorder {
 public:
  // Not copied (its mutex forbids it): the observer it registers points to this one.
  LogRecorder();
  ~LogRecorder();

  // How many messages at exactly that level contain the text.
  int count(int level, const std::string& text) const;
  // How many messages at exactly that level are the text.
  int exact(int level, const std::string& text) const;
  // How many messages at any level contain the text.
  int countAnyLevel(const std::string& text) const;
  bool contains(const std::string& text) const { return countAnyLevel(text) > 0; }
  // How many messages at any level are the text.
  int exactAnyLevel(const std::string& text) const;
  bool hasExact(const std::string& text) const { return exactAnyLevel(text) > 0; }
  // How many messages at any level begin with the prefix.
  int countStartingWith(const std::string& prefix) const;
  // Level of the first message that is the text, -1 when none is.
  int levelOfFirst(const std::string& text) const;
  // Position among all messages, oldest 0, of the first that is the text; -1 when none is.
  // Two positions tell which of two messages came first.
  int indexOfFirst(const std::string& text) const;
  // The messages at that level or a more urgent one (a lower number), oldest first.
  std::vector<std::string> messages(int maxLevel) const;
  void clear();

 private:
  template <typename Match>
  int countWhere(Match match) const;
  // Index into mLines of the first message that is the text, -1 when none is (caller holds mMutex).
  int firstExactLocked(const std::string& text) const;

  int mId = 0;
  mutable std::mutex mMutex;
  std::vector<std::pair<int, std::string>> mLines;
};

}  // namespace chdtest
