// The calls that test doubles received, in the order they happened; several
// doubles may share one journal so that the order across them is visible.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace chdtest {

class CallJournal {
 public:
  // What was called, and the object it was called for.
  using Call = std::pair<std::string, const void*>;

  void record(std::string what, const void* who) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mCalls.emplace_back(std::move(what), who);
  }
  std::vector<Call> calls() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mCalls;
  }
  void clear() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mCalls.clear();
  }

 private:
  mutable std::mutex mMutex;
  std::vector<Call> mCalls;
};

}  // namespace chdtest
