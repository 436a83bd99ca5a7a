// Text conversions of the application library.
//
// Contract: pure functions, safe from any thread, no locale dependence, no
// exceptions; failure is the false result.
#pragma once

#include <cstdint>
#include <string>

namespace zuna_util {

// The whole text must be a decimal number without sign or blanks that fits
// the type; otherwise false and out is left as it was.
bool fromString(unsigned& out, const std::string& text);
bool fromString(uint64_t& out, const std::string& text);

}  // namespace zuna_util
