// A scratch directory that a test owns, removed with everything in it.
#pragma once

#include <string>

namespace framework_test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return mPath; }
  // Writes text to path()/name and returns the full path.
  std::string write(const std::string& name, const std::string& text) const;

 private:
  std::string mPath;
};

}  // namespace framework_test
