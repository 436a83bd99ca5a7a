// The incident histories: which events are tracked, each history's text,
// and its publication as a status.
#include <algorithm>
#include <functional>
#include <iterator>
#include <memory>
#include <utility>

#include "CHDBlobWriter.h"
#include "CHDBlobWriterNames.h"
#include "tolvane/Logging.h"

TL_REGISTER_LOGGING(true, kLogInfo);

using namespace blob_writer;

namespace {

// Histories up to this size are published as soon as the incidents queued
// before the publication have been handled; bigger ones once they have grown
// by a quarter, and at the latest this long after their last change.
constexpr size_t kAlwaysPublishedHistoryBytes = size_t{64} * 1024;
constexpr unsigned kDeferredPublicationMs = 500;

// Delivers a posted event on the writer's thread when the store's callback
// reached the writer elsewhere (the store's agents already run there).
class EventPostedAgent : public Tolvane::EventAgent {
 public:
  EventPostedAgent(CHDBlobWriter* writer, std::string name, std::string value)
      : Tolvane::EventAgent(writer), mWriter(writer), mName(std::move(name)), mValue(std::move(value)) {}
  void run() override { mWriter->notifyEventPosted(mName, mValue); }

 private:
  CHDBlobWriter* mWriter;
  std::string mName;
  std::string mValue;
};

}  // namespace

const CHDBlobWriter::HistoryRow CHDBlobWriter::kTrackedParameters[] = {
    {"Connection Failure", "connection_failures", "Connection Failure History",
     "Timestamp logged for CONNECTION_FAILURE", kConnectionFailures},
    {"Demux Buffer Empty", "demux_buffer_empty_count", "Demux Buffer History",
     "Timestamp logged for DEMUX_BUFFER_EMPTY", kDemuxBufferEmpty},
    {"Zuna Abort", "abort_count", "Zuna Abort History", "Timestamp logged for ZUNA_ABORT", kZunaAbort},
    {"Zuna Segfault", "segfault_count", "Zuna Segfault History", "Timestamp logged for ZUNA_SEGFAULT", kZunaSegfault},
    {"RVU Command Failure", "rvu_command_failures", "RVU Command Failure History",
     "Timestamp logged for RVU_COMMAND_FAILURE", kRvuCommandFailures},
    {"Dropped Key", "DroppedKeys", "Dropped Key History", "Timestamp logged for DROPPED_KEY", kDroppedKeys},
    {"MSearch No Response", "msearch_no_response", "MSearch No Response History",
     "Timestamp logged for MSEARCH_NO_RESPONSE", kMsearchNoResponse},
    {"UPnP Failure", "upnp_failures", "UPnP Failure History", "Timestamp logged for UPNP_FAILURE", kUpnpFailures},
    {"Server Disconnect", "server_disconnect_count", "Server Disconnect History",
     "Timestamp logged for SERVER_DISCONNECT", kServerDisconnect},
    {"Socket Health Error", "socket_health_errors", "Socket Health Error History",
     "Timestamp logged for SOCKET_HEALTH_ERROR", kSocketHealthErrors},
    {"DTCP Failure", "dtcp_failures", "DTCP Failure History", "Timestamp logged for DTCP_FAILURE", kDtcpFailures},
    {"HDCP Failure", "hdcp_failures", "HDCP Failure History", "Timestamp logged for HDCP_FAILURE", kHdcpFailures},
    {"Audio Decoder Error", "audio_decoder_errors", "Audio Decoder Error History",
     "Timestamp logged for AUDIO_DECODER_ERROR", kAudioDecoderErrors},
    {"Video Decoder Error", "video_decoder_errors", "Video Decoder Error History",
     "Timestamp logged for VIDEO_DECODER_ERROR", kVideoDecoderErrors},
};

const CHDBlobWriter::HistoryRow CHDBlobWriter::kDataEvents[] = {
    {kMediaStreamDefinitionEvent, "media_stream_definitions", "Media Stream Definition History",
     "Data logged for MEDIA_STREAM_DEFINITION", kMediaStreamDefinitions},
    {kMediaStateEvent, "media_state", "Media State History", "Data logged for MEDIA_STATE", kMediaState},
};

const CHDBlobWriter::HistoryRow CHDBlobWriter::kLowRssiHistory = {nullptr, "Low_RSSI_count", "Low RSSI History",
                                                                  nullptr, kLowRssi};

void CHDBlobWriter::forEachHistoryRow(const std::function<void(const HistoryRow&)>& visit) {
  for (const HistoryRow& row : kTrackedParameters) {
    visit(row);
  }
  visit(kLowRssiHistory);
  for (const HistoryRow& row : kDataEvents) {
    visit(row);
  }
}

void CHDBlobWriter::History::append(const std::string& entryText) {
  mText.pop_back();  // the closing bracket
  if (mSize > 0) {
    mText += ',';
  }
  mText += entryText;
  mText += ']';
  ++mSize;
}

void CHDBlobWriter::History::clear() {
  // Swapping gives a long period's buffer back instead of keeping its capacity.
  std::string("[]").swap(mText);
  mSize = 0;
  mChanged = false;
  mPublishedLength = 0;
}

void CHDBlobWriter::History::markPublished() {
  mChanged = false;
  mPublishedLength = mText.size();
}

bool CHDBlobWriter::History::worthPublishingNow() const {
  return mText.size() <= kAlwaysPublishedHistoryBytes || mText.size() - mPublishedLength >= mPublishedLength / 4;
}

void CHDBlobWriter::notifyEventPosted(std::string name, std::string value) {
  TL_TRACE();
  if (!mEventThread->isCurrentThread()) {
    mEventThread->post(makeAgent<EventPostedAgent>(this, std::move(name), std::move(value)));
    return;
  }
  if (name == kTrackedParameterEvent) {
    const auto row = std::find_if(std::begin(kTrackedParameters), std::end(kTrackedParameters),
                                  [&value](const HistoryRow& candidate) { return value == candidate.eventValue; });
    if (row != std::end(kTrackedParameters)) {
      TL_LOG(kLogDetail, "%s", row->logText);
      appendAndPublish(*row, std::string());
    }
    return;
  }
  for (const HistoryRow& row : kDataEvents) {
    if (name == row.eventValue) {
      TL_LOG(kLogDetail, "%s", row.logText);
      appendAndPublish(row, value);
      return;
    }
  }
}

void CHDBlobWriter::appendAndPublish(const HistoryRow& row, const std::string& data) {
  updateCHDParameterTimestamp(mHistories[row.id], data);
  historyChanged(row.id);
}

// A publication queued behind the incidents that are waiting already covers
// them all: readers see the newest text as soon as the queue ahead of it is
// drained, and a burst costs one copy of the text instead of one per incident.
void CHDBlobWriter::historyChanged(HistoryId id) {
  mHistories[id].markChanged();
  if (!mPublicationQueued) {
    mPublicationQueued = true;
    mEventThread->post(makeAgent<Tolvane::AsyncEventAgent>(this, &CHDBlobWriter::publishChangedHistories));
  }
}

void CHDBlobWriter::publishChangedHistories() {
  mPublicationQueued = false;
  bool deferred = false;
  for (size_t id = 0; id < kHistoryCount; ++id) {
    if (!mHistories[id].changed()) {
      continue;
    }
    if (mHistories[id].worthPublishingNow()) {
      publishHistory(static_cast<HistoryId>(id));
    } else {
      deferred = true;
    }
  }
  if (deferred && !mDeferredPublication) {
    mDeferredPublication.reset(new Tolvane::AsyncEventAgent(this, &CHDBlobWriter::publishDeferredHistories));
    mEventThread->postDelayed(mDeferredPublication, kDeferredPublicationMs);
  }
}

void CHDBlobWriter::publishDeferredHistories() {
  mDeferredPublication = nullptr;
  publishAllChangedHistories();
}

void CHDBlobWriter::publishAllChangedHistories() {
  for (size_t id = 0; id < kHistoryCount; ++id) {
    if (mHistories[id].changed()) {
      publishHistory(static_cast<HistoryId>(id));
    }
  }
}

void CHDBlobWriter::publishHistory(HistoryId id) {
  mStatusManager->setStatus(mHistoryStatusKeys[id], mHistories[id].text());
  mHistories[id].markPublished();
}

void CHDBlobWriter::updateCHDParameterTimestamp(History& history, const std::string& data) {
  const size_t size = history.size();
  const std::string timestamp = getCurrentTimestamp();
  Json::Value entry(Json::arrayValue);
  if (!data.empty()) {
    entry.append(timestamp);
    entry.append(data);
  } else {
    entry.append(Json::Value(Json::UInt64(size + 1)));
    entry.append(timestamp);
  }
  history.append(mCompactWriter.write(entry));
  // The styled dump grows with the history on every append: it is built only
  // when someone will see it, so that long histories stay cheap.
  if (tl_log_enabled(kLogDetail, __FILE__)) {
    TL_LOG(kLogDetail, "val: %s", styledHistory(history).c_str());
  }
}

std::string CHDBlobWriter::styledHistory(const History& history) {
  Json::Value parsed;
  Json::CharReaderBuilder builder;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  const std::string& text = history.text();
  reader->parse(text.data(), text.data() + text.size(), &parsed, nullptr);
  return parsed.toStyledString();
}
