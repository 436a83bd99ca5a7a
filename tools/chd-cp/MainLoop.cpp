#include "MainLoop.h"

#include <glib.h>

namespace chdcp {
namespace {

// Wakes a blocking iteration so that the deadline is looked at.
constexpr guint kTickMs = 20;

gboolean keepTicking(gpointer /*unused*/) { return G_SOURCE_CONTINUE; }

}  // namespace

double monotonicSeconds() { return static_cast<double>(g_get_monotonic_time()) / G_USEC_PER_SEC; }

bool runUntil(const std::function<bool()>& done, double seconds) {
  const double deadline = monotonicSeconds() + seconds;
  // done() may throw; the tick goes away in every case.
  struct Tick {
    guint id = g_timeout_add(kTickMs, keepTicking, nullptr);
    ~Tick() { g_source_remove(id); }
  } tick;
  bool result = done();
  while (!result && monotonicSeconds() < deadline) {
    g_main_context_iteration(nullptr, TRUE);
    result = done();
  }
  return result;
}

void runFor(double seconds) {
  runUntil([] { return false; }, seconds);
}

}  // namespace chdcp
