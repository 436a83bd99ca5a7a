// The stack follows the listed interfaces as they come and go, and opens
// nothing on an interface that is not listed. The test creates veth pairs,
// so it refuses to run outside a private network namespace.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "ControlPoint.h"
#include "TestDevice.h"
#include "zuna_net/NetworkManager.h"
#include "zuna_upnp_host/UpnpStack.h"

namespace {

bool run(const std::string& command) { return std::system(command.c_str()) == 0; }

// run_in_netns.sh starts the test in a namespace of its own; whoever started
// the script stays outside it.
bool inPrivateNetworkNamespace() {
  struct stat own {};
  struct stat parent {};
  const std::string parentNamespace = "/proc/" + std::to_string(getppid()) + "/ns/net";
  return stat("/proc/self/ns/net", &own) == 0 && stat(parentNamespace.c_str(), &parent) == 0 &&
         own.st_ino != parent.st_ino;
}

// A veth pair: the stack's side named name with address/24, the peer .254.
bool addInterface(const std::string& name, const std::string& address) {
  const std::string peer = name + "p";
  const std::string prefix = address.substr(0, address.rfind('.'));
  return run("ip link add " + name + " type veth peer name " + peer + " && ip addr add " + address + "/24 dev " + name +
             " && ip addr add " + prefix + ".254/24 dev " + peer + " && ip link set " + peer + " up && ip link set " +
             name + " up");
}

bool waitFor(const std::function<bool()>& done, int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// Local IPv4 addresses (as /proc prints them, "0100007F" for 127.0.0.1) of
// this namespace's sockets in one of /proc/net/{tcp,udp}; TCP listeners only.
std::set<std::string> localAddresses(const std::string& table) {
  std::set<std::string> addresses;
  std::ifstream file("/proc/net/" + table);
  std::string line;
  std::getline(file, line);
  while (std::getline(file, line)) {
    std::istringstream fields(line);
    std::string slot, local, remote, state;
    fields >> slot >> local >> remote >> state;
    if (table == "tcp" && state != "0A") {
      continue;
    }
    addresses.insert(local.substr(0, local.find(':')));
  }
  return addresses;
}

class InterfaceFollowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mIsolated = inPrivateNetworkNamespace();
    ASSERT_TRUE(mIsolated) << "run through tests/e2e/run_in_netns.sh";
    ASSERT_TRUE(addInterface("chdtest0", "10.77.0.1"));
    ASSERT_TRUE(addInterface("chdtest1", "10.78.0.1"));
    monitor.reset(new zuna::net::NetworkManager());
    ASSERT_TRUE(monitor->init());
    ASSERT_TRUE(monitor->start());
    zuna_upnp::host::StackOptions options;
    options.httpPort = 0;
    controller = std::make_unique<zuna_upnp::host::HostController>(options);
    ASSERT_TRUE(controller->addRootDevice(&device));
  }

  void TearDown() override {
    if (controller) {
      controller->shutdown();
    }
    if (monitor) {
      monitor->stop();
    }
    if (mIsolated) {
      run("ip link del chdtest0 2>/dev/null; ip link del chdtest1 2>/dev/null");
    }
  }

  bool runningOn(const std::vector<std::string>& names) {
    return waitFor([&] { return controller->getRunningInterfaces() == names; }, 5000);
  }

  Tolvane::SmartPtr<zuna::net::NetworkManager> monitor;
  std::unique_ptr<zuna_upnp::host::HostController> controller;
  upnp_it::IntegrationDevice device;
  bool mIsolated = false;
};

TEST_F(InterfaceFollowTest, RunsOnListedInterfacesOnly) {
  ASSERT_TRUE(controller->init(monitor.get(), {"chdtest0", "", "lo", "chdtest9"}, {"RVUServer"}));
  EXPECT_TRUE(runningOn({"chdtest0", "lo"}));
  EXPECT_EQ(controller->getDescriptionLocation("chdtest0", &device).rfind("http://10.77.0.1:", 0), 0u);
  EXPECT_EQ(controller->getDescriptionLocation("chdtest1", &device), "");

  const std::string unlisted = "01004E0A";  // 10.78.0.1
  for (const char* table : {"tcp", "udp"}) {
    const std::set<std::string> local = localAddresses(table);
    EXPECT_EQ(local.count(unlisted), 0u) << table << " socket on the unlisted interface";
  }
  EXPECT_EQ(localAddresses("tcp").count("00000000"), 0u) << "a TCP listener on every interface";
  EXPECT_NE(localAddresses("tcp").count("01004D0A"), 0u) << "no HTTP server on 10.77.0.1";
}

TEST_F(InterfaceFollowTest, FollowsDownUpAndAddressChanges) {
  ASSERT_TRUE(controller->init(monitor.get(), {"chdtest0", "lo"}, {}));
  ASSERT_TRUE(runningOn({"chdtest0", "lo"}));

  ASSERT_TRUE(run("ip link set chdtest0 down"));
  EXPECT_TRUE(runningOn({"lo"}));
  ASSERT_TRUE(run("ip link set chdtest0 up"));
  EXPECT_TRUE(runningOn({"chdtest0", "lo"}));

  ASSERT_TRUE(run("ip addr del 10.77.0.1/24 dev chdtest0 && ip addr add 10.77.0.2/24 dev chdtest0"));
  EXPECT_TRUE(waitFor(
      [&] { return controller->getDescriptionLocation("chdtest0", &device).rfind("http://10.77.0.2:", 0) == 0; },
      5000));

  ASSERT_TRUE(run("ip link del chdtest0"));
  EXPECT_TRUE(runningOn({"lo"}));
  ASSERT_TRUE(addInterface("chdtest0", "10.77.0.3"));
  EXPECT_TRUE(runningOn({"chdtest0", "lo"}));
}

TEST_F(InterfaceFollowTest, DeviceIsFoundOnAnInterfaceThatCameBack) {
  ASSERT_TRUE(controller->init(monitor.get(), {"chdtest0"}, {}));
  ASSERT_TRUE(runningOn({"chdtest0"}));
  ASSERT_TRUE(run("ip link set chdtest0 down && ip link set chdtest0 up"));
  ASSERT_TRUE(waitFor([&] { return controller->getRunningInterfaces().size() == 1; }, 5000));
  upnp_it::ControlPoint controlPoint("chdtest0", upnp_it::kDeviceType);
  GUPnPDeviceProxy* proxy = controlPoint.waitForDevice(device.getUDN(), 10000);
  ASSERT_NE(proxy, nullptr);
  EXPECT_EQ(std::string(gupnp_device_info_get_location(GUPNP_DEVICE_INFO(proxy))).rfind("http://10.77.0.1:", 0), 0u);
}

}  // namespace
