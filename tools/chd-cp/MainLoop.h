// chd-cp is single-threaded: GUPnP, GSSDP and libsoup all run on the default
// main context, which these helpers turn until something happened or time ran
// out.
#pragma once

#include <functional>

namespace chdcp {

// Runs the default main context until done() is true or seconds have passed;
// returns done()'s last answer. Each message is handled as soon as it arrives.
bool runUntil(const std::function<bool()>& done, double seconds);

// Runs the default main context for this long.
void runFor(double seconds);

// Seconds since an arbitrary start, for deadlines.
double monotonicSeconds();

}  // namespace chdcp
