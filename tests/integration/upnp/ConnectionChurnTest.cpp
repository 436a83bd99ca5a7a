// libsoup 3.2 keeps every idle kept-alive connection that a client closes.
// Many short connections in a row must not make the stack grow.
#include <dirent.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "ControlPoint.h"
#include "TestDevice.h"
#include "zuna_upnp_host/UpnpStack.h"

namespace {

constexpr int kWarmUpConnections = 2000;
constexpr int kChurnConnections = 20000;
constexpr long kAllowedGrowthKb = 2048;

long residentKb() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) {
      return std::stol(line.substr(6));
    }
  }
  return -1;
}

int openFds() {
  int count = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (readdir(dir) != nullptr) {
      ++count;
    }
    closedir(dir);
  }
  return count;
}

int churn(const std::string& url, int connections) {
  const char* script = g_getenv("CHD_CHURN_CLIENT");
  const std::string count = std::to_string(connections);
  const char* argv[] = {"/usr/bin/python3", script != nullptr ? script : "churn_client.py", url.c_str(), count.c_str(),
                        nullptr};
  char* out = nullptr;
  gint status = 0;
  if (!g_spawn_sync(nullptr, const_cast<char**>(argv), nullptr, G_SPAWN_DEFAULT, nullptr, nullptr, &out, nullptr,
                    &status, nullptr)) {
    return -1;
  }
  const int ok = out != nullptr ? std::atoi(out) : -1;
  g_free(out);
  return ok;
}

TEST(ConnectionChurn, ResidentMemoryStaysFlat) {
  zuna_upnp::host::StackOptions options;
  options.httpPort = 0;
  zuna_upnp::host::HostController controller(options);
  upnp_it::IntegrationDevice device;
  ASSERT_TRUE(controller.addRootDevice(&device));
  ASSERT_TRUE(controller.init(nullptr, {"lo"}, {}));
  const std::string location = controller.getDescriptionLocation("lo", &device);
  ASSERT_FALSE(location.empty());

  ASSERT_EQ(churn(location, kWarmUpConnections), kWarmUpConnections);
  const long before = residentKb();
  const int fdsBefore = openFds();
  ASSERT_EQ(churn(location, kChurnConnections), kChurnConnections);
  const long growth = residentKb() - before;
  RecordProperty("resident_growth_kb", static_cast<int>(growth));
  std::printf("resident memory growth over %d connections: %ld kB\n", kChurnConnections, growth);
  EXPECT_LT(growth, kAllowedGrowthKb);
  EXPECT_LE(openFds(), fdsBefore + 2);
  controller.shutdown();
}

}  // namespace
