// Costs of the configuration management actions inside the process.
//
// The service runs on an in-process status store with host platform settings
// whose files live in a temporary directory. Every status of the data model
// holds a value, so the whole-tree answer has its full size. The box is in
// standby: SetValues ends right after posting its statuses (there is no
// client application to wait for), which is the part of its work this
// measures.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

#include "ConfigurationManagement.h"
#include "statusstore_host/LocalStatusManager.h"
#include "tolvane/EventThread.h"
#include "tolvane_host/HostPlatformSettings.h"
#include "zuna_upnp/LocalDevice.h"

namespace {

const char* const kWholeTree = "<ContentPathList><ContentPath>/vsp/</ContentPath></ContentPathList>";
const char* const kOneLeaf = "<ContentPathList><ContentPath>/vsp/HDTV/NATIVE</ContentPath></ContentPathList>";

struct FunctionCall {
  std::function<void()> fn;
  void run() { fn(); }
};

void runOn(Tolvane::EventDispatcher* dispatcher, const std::function<void()>& fn) {
  FunctionCall call{fn};
  dispatcher->send(Tolvane::SmartPtr<Tolvane::EventAgent>(new Tolvane::SyncEventAgent(&call, &FunctionCall::run)));
}

StatusMap fullStatuses() {
  StatusMap statuses = {{"Language", "Common.English"},
                        {"HDMI Plug", "Common.False"},
                        {"ESN", "0123-4567-89"},
                        {"AP MAC Address", "00:11:22:33:44:55"},
                        {"BuildVersion:", "4.12.7"},
                        {"HDTV.Video.Native", "HDTV.Video.Native.On"},
                        {"HDTV.TVResolutions.SelectedResolution", "HDTV.TVResolutions.1080p"},
                        {"CHD Reporting Interval", "900"},
                        {"In Standby", "True"}};
  const char* const histories[] = {"Connection Failure History", "Demux Buffer History",        "Zuna Abort History",
                                   "Zuna Segfault History",      "RVU Command Failure History", "Dropped Key History",
                                   "UPnP Failure History"};
  for (const char* history : histories) {
    statuses[history] = "[{\"time\":\"2024-01-01T00:00:00\",\"code\":7},{\"time\":\"2024-01-02T00:00:00\",\"code\":9}]";
  }
  return statuses;
}

class Environment {
 public:
  Environment() {
    char pattern[] = "/tmp/cm-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
      perror("mkdtemp");
      abort();
    }
    mDir = pattern;
    const std::string config = mDir + "/platform.conf";
    std::ofstream(config) << "[platform]\nlog_path=" << mDir << "\n[statusstore]\nbus=none\n[settings]\nfile=" << mDir
                          << "/settings.conf\n";
    mPlatform = new Tolvane::host::HostPlatformSettings(config);
    Tolvane::host::setPlatformSettingsForTest(mPlatform);
    mStore = new statusstore::LocalStatusManager();
    statusstore::setInstanceForTest(mStore);
    mDevice = new zuna_upnp::RootDevice();
    mService = new ConfigurationManagementService(mDevice, mDevice);
    mStore->setStatuses(fullStatuses());
    // Values reach the data model through the status thread and then the
    // dispatcher; wait until the last one is there.
    for (int attempt = 0; attempt < 1000 && !ready(); ++attempt) {
      usleep(1000);
    }
  }
  ConfigurationManagementService& service() { return *mService; }
  Tolvane::EventDispatcher* dispatcher() { return mService->getDispatcher(); }

 private:
  bool ready() {
    std::string answer;
    runOn(dispatcher(), [&] { mService->GetValues(kOneLeaf, answer); });
    std::string standby;
    runOn(dispatcher(), [&] { mService->GetValues("<ContentPath>/vsp/Standby/IN_STANDBY</ContentPath>", standby); });
    return answer.find("<Value>On</Value>") != std::string::npos &&
           standby.find("<Value>True</Value>") != std::string::npos;
  }

  std::string mDir;
  Tolvane::host::HostPlatformSettings* mPlatform;
  statusstore::LocalStatusManager* mStore;
  zuna_upnp::RootDevice* mDevice;
  ConfigurationManagementService* mService;
};

Environment& environment() {
  static Environment* const instance = new Environment();
  return *instance;
}

// The handler alone, on the benchmark thread (nothing writes the data model meanwhile).
void getValues(benchmark::State& state, const char* request) {
  ConfigurationManagementService& service = environment().service();
  std::string answer;
  for (auto _ : state) {
    answer.clear();
    benchmark::DoNotOptimize(service.GetValues(request, answer));
  }
  state.counters["answer_bytes"] = static_cast<double>(answer.size());
}

// As the UPnP stack calls it: handed to the service dispatcher and waited for.
void getValuesOnDispatcher(benchmark::State& state, const char* request) {
  Environment& env = environment();
  std::string answer;
  for (auto _ : state) {
    runOn(env.dispatcher(), [&] {
      answer.clear();
      env.service().GetValues(request, answer);
    });
  }
  state.counters["answer_bytes"] = static_cast<double>(answer.size());
}

void setOneFileSetting(benchmark::State& state) {
  Environment& env = environment();
  const std::string on =
      "<ParameterValueList><Parameter><ParameterPath>/vsp/HDTV/BAR_COLOR</ParameterPath>"
      "<Value>Gray</Value></Parameter></ParameterValueList>";
  const std::string off =
      "<ParameterValueList><Parameter><ParameterPath>/vsp/HDTV/BAR_COLOR</ParameterPath>"
      "<Value>Black</Value></Parameter></ParameterValueList>";
  bool flip = false;
  for (auto _ : state) {
    std::string status;
    zuna_upnp::UPnPReturn result;
    runOn(env.dispatcher(), [&] { result = env.service().SetValues(flip ? on : off, status); });
    flip = !flip;
    if (!result.isSuccess() || status != "ChangesApplied") {
      state.SkipWithError("SetValues failed");
      break;
    }
  }
}

BENCHMARK_CAPTURE(getValues, whole_tree, kWholeTree)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(getValues, one_leaf, kOneLeaf)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(getValuesOnDispatcher, whole_tree, kWholeTree)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(getValuesOnDispatcher, one_leaf, kOneLeaf)->Unit(benchmark::kMicrosecond);
BENCHMARK(setOneFileSetting)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
