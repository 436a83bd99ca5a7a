// How chd-cp ends: every failure carries the exit status a script can test
// and one line of text for stderr.
#pragma once

#include <stdexcept>
#include <string>

namespace chdcp {

enum ExitStatus {
  kExitOk = 0,
  kExitBoxError = 1,  // the box answered, with an error
  kExitUsage = 2,     // the command line is wrong
  kExitNoBox = 3,     // no box found, or it did not answer
};

class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string& message) : std::runtime_error(message), mStatus(status) {}
  ExitStatus status() const { return mStatus; }

 private:
  ExitStatus mStatus;
};

}  // namespace chdcp
