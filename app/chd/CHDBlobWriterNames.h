// What the blob writer's files share: the reporting interval's bounds, the
// statuses it follows, the events it tracks, and the timers and counter it
// keeps in the status store.
#pragma once

#include <cstdint>
#include <utility>

#include "tolvane/EventThread.h"
#include "tolvane/RefCount.h"

namespace blob_writer {

// The reporting interval in seconds: its default and its bounds.
constexpr uint32_t kDefaultReportingInterval = 900;
constexpr uint32_t kMinReportingInterval = 900;
constexpr uint32_t kMaxReportingInterval = 43200;

constexpr char kTrackedParameterEvent[] = "CHD Tracked Parameter Event";
constexpr char kMediaStreamDefinitionEvent[] = "Media Stream Definition Event";
constexpr char kMediaStateEvent[] = "Media State Event";

constexpr char kReportingIntervalKey[] = "CHD Reporting Interval";
constexpr char kConnectionStatusKey[] = "Client Connection Status";
constexpr char kConnectionTypeKey[] = "Client Connection Type";
constexpr char kApMacAddressKey[] = "AP MAC Address";
constexpr char kChannelKey[] = "Channel";
constexpr char kSnrKey[] = "SNR";
constexpr char kNetworkNameKey[] = "Network Name";
constexpr char kFrontPanelColorKey[] = "Front Panel Status Color";
constexpr char kCongestionKey[] = "Wifi Congestion";
constexpr char kAspectRatioKey[] = "HDTV.TVRatio.AspectRatio";
constexpr char kCurrentResolutionKey[] = "HDTV.TVResolutions.CurrentResolution";
constexpr char kSelectedResolutionKey[] = "HDTV.TVResolutions.SelectedResolution";
constexpr char kLastRemoteKeyKey[] = "Last Remote Key";
constexpr char kInStandbyKey[] = "In Standby";
constexpr char kCecCapabilityKey[] = "CEC Capability";
constexpr char kCecTvVersionKey[] = "CEC TV Version";
constexpr char kCecTvActiveSourceKey[] = "CEC TV Active Source";
constexpr char kCecTvOnKey[] = "CEC TV On";
constexpr char kHdmiControlKey[] = "HDTV.Video.HDMIControl";
constexpr char kPowerSavingKey[] = "PowerSaving.Enabled";
constexpr char kScreenFormatKey[] = "HDTV.Video.ScreenFormat";
constexpr char kNativeKey[] = "HDTV.Video.Native";
constexpr char kBarColorKey[] = "HDTV.Video.BarColor";
constexpr char kDolbyDigitalKey[] = "Audio.Dolby.DolbyDigital";

constexpr char kConnectedTimer[] = "Connected Timer";
constexpr char kLowRssiTimer[] = "Low RSSI Timer";
constexpr char kUptimeTimer[] = "Uptime Timer";
constexpr char kWifiErrorCounter[] = "Wifi Error Counter";

constexpr char kConnected[] = "Common.Connected";
constexpr char kResolutionOn[] = "Common.On";

template <class Agent, class... Args>
Tolvane::SmartPtr<Tolvane::EventAgent> makeAgent(Args&&... args) {
  return Tolvane::SmartPtr<Tolvane::EventAgent>(new Agent(std::forward<Args>(args)...));
}

}  // namespace blob_writer
