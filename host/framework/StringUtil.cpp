#include "zuna_util/StringUtil.h"

#include <limits>

namespace zuna_util {

namespace {

// Strict decimal: digits only (no sign, no blanks, no prefix), at least one,
// and no overflow of the maximum.
bool parseDecimal(const std::string& text, uint64_t maximum, uint64_t& value) {
  if (text.empty()) {
    return false;
  }
  uint64_t result = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') {
      return false;
    }
    const auto digit = static_cast<uint64_t>(c - '0');
    if (result > (maximum - digit) / 10) {
      return false;
    }
    result = result * 10 + digit;
  }
  value = result;
  return true;
}

}  // namespace

bool fromString(unsigned& out, const std::string& text) {
  uint64_t value = 0;
  if (!parseDecimal(text, std::numeric_limits<unsigned>::max(), value)) {
    return false;
  }
  out = static_cast<unsigned>(value);
  return true;
}

bool fromString(uint64_t& out, const std::string& text) {
  uint64_t value = 0;
  if (!parseDecimal(text, std::numeric_limits<uint64_t>::max(), value)) {
    return false;
  }
  out = value;
  return true;
}

}  // namespace zuna_util
