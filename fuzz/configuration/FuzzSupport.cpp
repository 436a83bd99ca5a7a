#include "FuzzSupport.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include <unistd.h>

#include "statusstore_host/LocalStatusManager.h"
#include "tolvane/EventThread.h"
#include "tolvane/Logging.h"
#include "tolvane_host/HostPlatformSettings.h"
#include "zuna_upnp/LocalDevice.h"

namespace cmfuzz {

namespace {

std::string makeTempDir() {
  const char* base = (access("/dev/shm", W_OK) == 0) ? "/dev/shm" : "/tmp";
  std::string pattern = std::string(base) + "/cm-fuzz-XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) {
    perror("mkdtemp");
    abort();
  }
  return pattern;
}

struct Environment {
  Environment() {
    const std::string dir = makeTempDir();
    const std::string config = dir + "/platform.conf";
    std::ofstream(config) << "[platform]\nlog_path=" << dir << "\n[statusstore]\nbus=none\n[settings]\nfile=" << dir
                          << "/settings.conf\n";
    platform = new Tolvane::host::HostPlatformSettings(config);
    Tolvane::host::setPlatformSettingsForTest(platform);
    store = new statusstore::LocalStatusManager();
    statusstore::setInstanceForTest(store);
    device = new zuna_upnp::RootDevice();
    cms = new ConfigurationManagementService(device, device);
    store->setStatus("In Standby", "True");
  }

  Tolvane::host::HostPlatformSettings* platform;
  statusstore::LocalStatusManager* store;
  zuna_upnp::RootDevice* device;
  ConfigurationManagementService* cms;
};

struct FunctionCall {
  std::function<void()> fn;
  void run() { fn(); }
};

void runOn(ConfigurationManagementService& cms, const std::function<void()>& fn) {
  FunctionCall call{fn};
  cms.getDispatcher()->send(
      Tolvane::SmartPtr<Tolvane::EventAgent>(new Tolvane::SyncEventAgent(&call, &FunctionCall::run)));
}

Environment& environment() {
  static Environment* const instance = [] {
    Environment* created = new Environment();
    // The standby status reaches the service through its status thread and
    // then its dispatcher; wait until it is there.
    for (int attempt = 0; attempt < 1000; ++attempt) {
      std::string standby;
      runOn(*created->cms,
            [&] { created->cms->GetValues("<ContentPath>/vsp/Standby/IN_STANDBY</ContentPath>", standby); });
      if (standby.find("<Value>True</Value>") != std::string::npos) {
        return created;
      }
      usleep(1000);
    }
    fprintf(stderr, "the service never saw the standby status\n");
    abort();
  }();
  return *instance;
}

}  // namespace

ConfigurationManagementService& service() { return *environment().cms; }

void onDispatcher(const std::function<void()>& fn) { runOn(service(), fn); }

void checkOutArgument(const zuna_upnp::UPnPReturn& result, const std::string& out, const std::string& before) {
  if (!result.isSuccess() && out != before) {
    fprintf(stderr, "failure %d [%s] changed the out argument to [%s]\n", result.code, result.description.c_str(),
            out.c_str());
    abort();
  }
  if (!result.isSuccess() && (result.code < 701 || result.code > 802)) {
    fprintf(stderr, "unexpected error code %d\n", result.code);
    abort();
  }
}

}  // namespace cmfuzz
