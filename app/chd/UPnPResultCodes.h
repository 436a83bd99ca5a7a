// Every result code the daemon answers with: the kinds and UPnP error codes
// of the action results, and the HTTP statuses and failure causes of a log
// file delivery.
#pragma once

// Kinds of a zuna_upnp::UPnPReturn; each failure kind picks how the stack
// reports the error.
constexpr int kResultKindSuccess = 0;
constexpr int kResultKindBadArgument = 1;
constexpr int kResultKindRefreshTimedOut = 3;
constexpr int kResultKindRefreshFailed = 4;

// UPnP error codes of the ConfigurationManagement actions (0 with success).
constexpr int kUpnpNoError = 0;
constexpr int kUpnpInvalidArgumentSyntax = 701;
constexpr int kUpnpInvalidXmlArgument = 702;
constexpr int kUpnpNoSuchName = 703;
constexpr int kUpnpInvalidValueType = 704;
constexpr int kUpnpInvalidValue = 705;
constexpr int kUpnpSettingsRefreshTimedOut = 801;
// A refresh the client application reported as failed, and a change refused
// while the display's HDCP fails.
constexpr int kUpnpSettingsRefreshFailed = 802;

// HTTP statuses of a log file delivery.
constexpr int kHttpOk = 200;
constexpr int kHttpNotFound = 404;

// Why a log file could not be delivered; logged with the single 404 answer.
constexpr int kLogDeliveryNoListener = -1;
constexpr int kLogDeliveryProcEntriesFailed = -2;
constexpr int kLogDeliveryPathProblem = -3;
constexpr int kLogDeliveryWifiChipFailed = -4;
constexpr int kLogDeliveryProcessListFailed = -5;
constexpr int kLogDeliveryFdStatusFailed = -6;
constexpr int kLogDeliveryNetstatFailed = -7;
