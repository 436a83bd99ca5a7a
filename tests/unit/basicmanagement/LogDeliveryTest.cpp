// HTTP delivery of the log files: refreshes, heads, bodies, failures and
// requests that try to leave the log directory.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>

#include "BasicManagementFixture.h"
#include "HoldGate.h"
#include "LogWatchHandler.h"

namespace bmtest {
namespace {

// The proc entries and netstat refreshes wait in the gate until the test releases them.
class HoldingListener : public FakeListener, public chdtest::HoldGate {
 public:
  explicit HoldingListener(std::chrono::seconds bound) : HoldGate(bound) {}
  bool updateProcEntries() override { return holdThenSucceed(); }
  bool updateNetstat() override { return holdThenSucceed(); }

 private:
  bool holdThenSucceed() {
    hold(false);
    return true;
  }
};

class LogDeliveryTest : public BasicManagementTest {
 protected:
  void SetUp() override {
    BasicManagementTest::SetUp();
    if (IsSkipped()) {
      return;
    }
    start();
    service->setBasicManagementListener(&listener);
  }

  void expectNotFound(const chdtest::FakeWebSocket& socket, int code, const std::string& path) {
    EXPECT_EQ(notFound(), socket.bytes()) << path;
    EXPECT_EQ(1, socket.closeCalls) << path;
    EXPECT_EQ(1, logs.exact(0, notSentLog(code, path))) << path;
  }
};

TEST_F(LogDeliveryTest, MessagesServedWithoutRefresh) {
  writeFile(logDir + "/messages", "line one\nline two\n");
  auto socket = get(logDir + "/messages");
  EXPECT_EQ(okHead(18) + "line one\nline two\n", socket->bytes());
  EXPECT_EQ(0, listener.totalCalls());
  EXPECT_EQ(1, socket->closeCalls);
  EXPECT_EQ(0, logs.count(0, ""));
}

TEST_F(LogDeliveryTest, AnyOtherFileBelowLogPathServedWithoutRefresh) {
  mkdir((logDir + "/archive").c_str(), 0755);
  writeFile(logDir + "/archive/old.log.1", "old");
  auto socket = get(logDir + "/archive/old.log.1");
  EXPECT_EQ(okHead(3) + "old", socket->bytes());
  EXPECT_EQ(0, listener.totalCalls());
}

TEST_F(LogDeliveryTest, NoListenerGivesMinusOneEvenForMessages) {
  writeFile(logDir + "/messages", "x");
  service->setBasicManagementListener(nullptr);
  const std::string path = logDir + "/messages";
  auto socket = get(path);
  expectNotFound(*socket, -1, path);
}

struct RefreshCase {
  const char* file;
  std::atomic<int> FakeListener::*calls;
  std::atomic<bool> FakeListener::*ok;
  int code;
};

const RefreshCase kRefreshCases[] = {
    {"/procEntriesStatus.log", &FakeListener::procEntries, &FakeListener::procEntriesOk, -2},
    {"/processList.log", &FakeListener::processList, &FakeListener::processListOk, -5},
    {"/fdStatus.log", &FakeListener::fdStatus, &FakeListener::fdStatusOk, -6},
    {"/netstat.log", &FakeListener::netstat, &FakeListener::netstatOk, -7},
};

TEST_F(LogDeliveryTest, EachRefreshableFileRunsOnlyItsRefresh) {
  for (const RefreshCase& refresh : kRefreshCases) {
    const std::string path = logDir + refresh.file;
    writeFile(path, refresh.file);
    const int before = listener.totalCalls();
    auto socket = get(path);
    EXPECT_EQ(okHead(strlen(refresh.file)) + refresh.file, socket->bytes());
    EXPECT_EQ(1, (listener.*refresh.calls).load()) << refresh.file;
    EXPECT_EQ(before + 1, listener.totalCalls()) << refresh.file;
  }
}

TEST_F(LogDeliveryTest, FailedRefreshGivesItsCode) {
  for (const RefreshCase& refresh : kRefreshCases) {
    const std::string path = logDir + refresh.file;
    writeFile(path, "stale");
    listener.*refresh.ok = false;
    auto socket = get(path);
    expectNotFound(*socket, refresh.code, path);
    EXPECT_EQ(1, logs.exact(0, "Handler for [" + path + "] returned FALSE"));
  }
}

TEST_F(LogDeliveryTest, RefreshedFileMissingGivesMinusThree) {
  const std::string path = logDir + "/netstat.log";
  auto socket = get(path);
  expectNotFound(*socket, -3, path);
  EXPECT_EQ(1, listener.netstat.load());
  EXPECT_EQ(1, logs.exact(0, "Requested path [" + path + "] problem."));
}

TEST_F(LogDeliveryTest, WifiArchiveRefreshedOnWifiPlatforms) {
  settings.setWifi(true);
  const std::string path = logDir + "/wifichip.tar";
  writeFile(path, "tar");
  auto socket = get(path);
  EXPECT_EQ(okHead(3) + "tar", socket->bytes());
  EXPECT_EQ(1, listener.wifiChip.load());
}

TEST_F(LogDeliveryTest, WifiRefreshFailureGivesMinusFourWithoutHandlerMessage) {
  settings.setWifi(true);
  listener.wifiChipOk = false;
  const std::string path = logDir + "/wifichip.tar";
  writeFile(path, "tar");
  auto socket = get(path);
  expectNotFound(*socket, -4, path);
  EXPECT_EQ(0, logs.countAnyLevel("Handler for"));
}

TEST_F(LogDeliveryTest, WifiArchiveWithoutWifiSentAsItStands) {
  listener.wifiChipOk = false;
  const std::string path = logDir + "/wifichip.tar";
  writeFile(path, "stale tar");
  auto socket = get(path);
  EXPECT_EQ(okHead(9) + "stale tar", socket->bytes());
  EXPECT_EQ(0, listener.wifiChip.load());
}

TEST_F(LogDeliveryTest, MissingWifiArchiveWithoutWifiGivesMinusThree) {
  const std::string path = logDir + "/wifichip.tar";
  auto socket = get(path);
  expectNotFound(*socket, -3, path);
  EXPECT_EQ(0, listener.wifiChip.load());
}

TEST_F(LogDeliveryTest, LogPathOneCharacterShortGivesMinusThree) {
  const std::string path = logDir.substr(0, logDir.size() - 1);
  auto socket = get(path);
  expectNotFound(*socket, -3, path);
  EXPECT_EQ(1, logs.exact(0, "Requested path [" + path + "] problem."));
}

TEST_F(LogDeliveryTest, EmptyFileGivesZeroLengthAndNoRead) {
  for (bool chunking : {true, false}) {
    settings.setLogChunking(chunking);
    writeFile(logDir + "/empty.log", "");
    reader.reads = 0;
    auto socket = get(logDir + "/empty.log");
    EXPECT_EQ(okHead(0), socket->bytes()) << "chunking " << chunking;
    EXPECT_EQ(0, reader.reads.load()) << "chunking " << chunking;
    EXPECT_EQ(0, socket->writeCalls) << "chunking " << chunking;
  }
}

TEST_F(LogDeliveryTest, ChunkedSendingReadsAtMostOneMiBAtATime) {
  const std::string content = patternedContent(3 * kMiB + kMiB / 2 + 7);
  writeFile(logDir + "/big.log", content);
  auto socket = get(logDir + "/big.log");
  EXPECT_EQ(4, reader.reads.load());
  EXPECT_EQ(kMiB, reader.largestRead.load());
  EXPECT_EQ(4, socket->writeCalls);
  ASSERT_EQ(okHead(content.size()).size() + content.size(), socket->bytes().size());
  EXPECT_TRUE(socket->bytes() == okHead(content.size()) + content);
}

TEST_F(LogDeliveryTest, ChunkedSendingOfSmallFileReadsOnce) {
  writeFile(logDir + "/small.log", "0123456789");
  auto socket = get(logDir + "/small.log");
  EXPECT_EQ(1, reader.reads.load());
  EXPECT_EQ(10u, reader.largestRead.load());
  EXPECT_EQ(okHead(10) + "0123456789", socket->bytes());
}

TEST_F(LogDeliveryTest, UnchunkedSendingReadsAndWritesWholeFileOnce) {
  settings.setLogChunking(false);
  const std::string content = patternedContent(2 * kMiB + 3);
  writeFile(logDir + "/big.log", content);
  auto socket = get(logDir + "/big.log");
  EXPECT_EQ(1, reader.reads.load());
  EXPECT_EQ(content.size(), reader.largestRead.load());
  EXPECT_EQ(1, socket->writeCalls);
  EXPECT_TRUE(socket->bytes() == okHead(content.size()) + content);
}

TEST_F(LogDeliveryTest, FileShrinkingWhileSentEndsOnlyThatRequest) {
  for (bool chunking : {true, false}) {
    settings.setLogChunking(chunking);
    const std::string path = logDir + "/shrinking.log";
    const std::string content = patternedContent(3 * kMiB);
    writeFile(path, content);
    reader.reads = 0;
    // Cut to 1.5 MiB just before the second chunk is read (before the only read without chunking).
    const int cutBefore = chunking ? 1 : 0;
    reader.beforeRead = [&path, cutBefore](int index) {
      if (index == cutBefore) {
        ASSERT_EQ(0, truncate(path.c_str(), static_cast<off_t>(kMiB + kMiB / 2)));
      }
    };
    auto socket = get(path);
    reader.beforeRead = nullptr;
    const std::string head = okHead(content.size());
    ASSERT_EQ(0u, socket->bytes().find(head));
    const std::string body = socket->bytes().substr(head.size());
    if (chunking) {
      EXPECT_EQ(3, reader.reads.load());  // 1 MiB, then 0.5 MiB, then the end of the file
      EXPECT_TRUE(body == content.substr(0, kMiB + kMiB / 2));
    } else {
      EXPECT_EQ(2, reader.reads.load());
      EXPECT_TRUE(body.empty());
    }
    EXPECT_EQ(1, socket->closeCalls);
    EXPECT_EQ(1, logs.exact(0, "Failed to send log file[" + path + "] to the socket"));
    logs.clear();

    // The next request sees the file as it is now.
    auto again = get(path);
    EXPECT_TRUE(again->bytes() == okHead(kMiB + kMiB / 2) + content.substr(0, kMiB + kMiB / 2));
  }
}

TEST_F(LogDeliveryTest, ClientGoneMidDownloadStopsSending) {
  const std::string path = logDir + "/big.log";
  const std::string content = patternedContent(5 * kMiB);
  writeFile(path, content);
  auto socket = std::make_unique<chdtest::FakeWebSocket>();
  socket->stream.acceptLimit = static_cast<int64_t>(okHead(content.size()).size() + kMiB + 100);
  zuna_http::WebRequest request("GET", path);
  service->handleRequest(socket.get(), &request);
  EXPECT_EQ(2, socket->writeCalls);
  EXPECT_EQ(2, reader.reads.load());
  EXPECT_EQ(1, logs.exact(2, "Write Error"));
  EXPECT_EQ(1, logs.exact(0, "Failed to send log file[" + path + "] to the socket"));
  EXPECT_EQ(1, socket->closeCalls);

  auto next = get(path);
  EXPECT_TRUE(next->bytes() == okHead(content.size()) + content);
}

TEST_F(LogDeliveryTest, WriteErrorStopsSending) {
  writeFile(logDir + "/big.log", patternedContent(3 * kMiB));
  auto socket = std::make_unique<chdtest::FakeWebSocket>();
  socket->failWrites = true;
  zuna_http::WebRequest request("GET", logDir + "/big.log");
  service->handleRequest(socket.get(), &request);
  EXPECT_EQ(1, socket->writeCalls);
  EXPECT_EQ(1, logs.exact(2, "Write Error"));
}

TEST_F(LogDeliveryTest, ReadErrorStopsSending) {
  writeFile(logDir + "/big.log", patternedContent(3 * kMiB));
  reader.failReadsWith = -5;
  Tolvane::File file;
  ASSERT_TRUE(file.open(logDir + "/big.log"));
  chdtest::FakeWebSocket socket;
  EXPECT_EQ(-5, service->sendLogs(&file, &socket));
  EXPECT_EQ(1, reader.reads.load());
  EXPECT_EQ(0, socket.writeCalls);
  EXPECT_EQ(1, logs.exact(2, "Read Error"));
}

TEST_F(LogDeliveryTest, UnknownLengthReported) {
  Tolvane::File notOpen;
  chdtest::FakeWebSocket socket;
  EXPECT_EQ(-1, service->sendLogs(&notOpen, &socket));
  EXPECT_EQ(1, logs.exact(0, "Can not get file length"));
  EXPECT_TRUE(socket.bytes().empty());
}

TEST_F(LogDeliveryTest, SendResponseHeadsByteForByte) {
  chdtest::FakeWebSocket ok;
  service->sendResponse(true, &ok, 1234567);
  EXPECT_EQ(okHead(1234567), ok.bytes());
  EXPECT_EQ(1, ok.sendCalls);
  chdtest::FakeWebSocket missing;
  service->sendResponse(false, &missing, 0);
  EXPECT_EQ("HTTP/1.1 404 Not Found\r\n\r\n", missing.bytes());
  EXPECT_EQ(0, missing.sendCalls);
}

TEST_F(LogDeliveryTest, OwnServiceUrlsGoToTheStack) {
  for (const std::string& path : {service->getControlURL(), service->getSCPDURL(), service->getEventURL()}) {
    auto socket = get(path);
    EXPECT_EQ(0u, socket->bytes().find("HTTP/1.1 404 Not Found\r\n")) << path;
    EXPECT_NE(std::string::npos, socket->bytes().find("Content-Length: 0\r\n")) << path;
    EXPECT_EQ(1, socket->closeCalls) << path;
  }
  EXPECT_EQ(0, logs.countAnyLevel("could not be sent"));
  EXPECT_EQ(0, listener.totalCalls());
}

// Every one of these must be refused with the bare 404 and code -3, and no
// byte of a file outside the log directory may ever be sent.
TEST_F(LogDeliveryTest, PathsLeavingTheLogDirectoryAreRefused) {
  const std::string secret = "TOP-SECRET-OUTSIDE-THE-LOG-DIRECTORY";
  const std::string outside = makeTempDir("/tmp/outside.XXXXXX");
  writeFile(outside + "/secret.txt", secret);
  const std::string sibling = logDir + "-evil";
  ASSERT_EQ(0, mkdir(sibling.c_str(), 0755));
  writeFile(sibling + "/secret.txt", secret);
  ASSERT_EQ(0, mkdir((logDir + "/sub").c_str(), 0755));
  const std::string outsideName = outside.substr(std::string("/tmp/").size());
  ASSERT_EQ(0, symlink((outside + "/secret.txt").c_str(), (logDir + "/link-out").c_str()));
  ASSERT_EQ(0, symlink(outside.c_str(), (logDir + "/dir-out").c_str()));
  ASSERT_EQ(0, symlink("/", (logDir + "/root-out").c_str()));
  ASSERT_EQ(0, symlink("/etc/passwd", (logDir + "/passwd").c_str()));
  ASSERT_EQ(0, symlink(("../../" + outsideName + "/secret.txt").c_str(), (logDir + "/sub/rel-out").c_str()));
  ASSERT_EQ(0, symlink("loop-b", (logDir + "/loop-a").c_str()));
  ASSERT_EQ(0, symlink("loop-a", (logDir + "/loop-b").c_str()));
  ASSERT_EQ(0, mkfifo((logDir + "/fifo").c_str(), 0644));
  writeFile(logDir + "/messages", "fine");

  const std::vector<std::string> attempts = {
      logDir + "/../" + outsideName + "/secret.txt",
      logDir + "/%2e%2e/" + outsideName + "/secret.txt",
      logDir + "/%2E%2E%2F" + outsideName + "%2Fsecret.txt",
      logDir + "/..%2f" + outsideName + "%2fsecret.txt",
      logDir + "/sub/../../" + outsideName + "/secret.txt",
      logDir + "//../" + outsideName + "/secret.txt",
      logDir + "/./../" + outsideName + "/secret.txt",
      logDir + "/sub/../../../../../../etc/passwd",
      logDir + "/..\\" + outsideName + "\\secret.txt",
      sibling + "/secret.txt",
      sibling + "/../" + outsideName + "/secret.txt",
      logDir + "/link-out",
      logDir + "/dir-out/secret.txt",
      logDir + "/root-out/etc/passwd",
      logDir + "/root-out" + outside + "/secret.txt",
      logDir + "/passwd",
      logDir + "/sub/rel-out",
      logDir + "/loop-a",
      logDir + "/fifo",
      logDir,
      logDir + "/",
      logDir + "/sub",
      logDir + "/sub/",
      logDir + "/.",
      logDir + "/..",
      std::string(logDir + "/messages") + std::string(1, '\0') + "/../../" + outsideName + "/secret.txt",
      "/etc/passwd",
      outside + "/secret.txt",
      "/" + logDir,
      "",
  };
  for (const std::string& path : attempts) {
    logs.clear();
    auto socket = get(path);
    EXPECT_EQ(notFound(), socket->bytes()) << path;
    // The message prints the path as a C string, so it stops at an embedded NUL.
    EXPECT_EQ(1, logs.exact(0, notSentLog(-3, path.c_str()))) << path;
    EXPECT_EQ(std::string::npos, socket->bytes().find(secret)) << path;
  }
  EXPECT_GE(attempts.size(), 20u);
  // The directory itself still serves its own files.
  EXPECT_EQ(okHead(4) + "fine", get(logDir + "/messages")->bytes());
}

TEST_F(LogDeliveryTest, ConcurrentRefreshesRunAtTheSameTime) {
  // Both refreshes must be inside the listener together, or neither finishes in time.
  class MeetingListener : public FakeListener {
   public:
    bool updateNetstat() override { return meet(); }
    bool updateFdStatus() override { return meet(); }
    bool met = false;

   private:
    bool meet() {
      std::unique_lock<std::mutex> lock(mMutex);
      ++mInside;
      mChanged.notify_all();
      if (mChanged.wait_for(lock, std::chrono::seconds(10), [this] { return mInside >= 2; })) {
        met = true;
      }
      return true;
    }
    std::mutex mMutex;
    std::condition_variable mChanged;
    int mInside = 0;
  } meeting;
  service->setBasicManagementListener(&meeting);
  writeFile(logDir + "/netstat.log", "n");
  writeFile(logDir + "/fdStatus.log", "f");
  std::thread other([this] { get(logDir + "/netstat.log"); });
  auto socket = get(logDir + "/fdStatus.log");
  other.join();
  EXPECT_TRUE(meeting.met);
  EXPECT_EQ(okHead(1) + "f", socket->bytes());
}

TEST_F(LogDeliveryTest, DetachWaitsForRunningRefresh) {
  HoldingListener blocking(std::chrono::seconds(10));
  service->setBasicManagementListener(&blocking);
  writeFile(logDir + "/procEntriesStatus.log", "p");
  std::thread request([this] { get(logDir + "/procEntriesStatus.log"); });
  ASSERT_TRUE(blocking.waitUntilEntered());
  std::atomic<bool> detached{false};
  std::thread detach([this, &detached] {
    service->setBasicManagementListener(nullptr);
    detached = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_FALSE(detached.load());
  blocking.release();
  request.join();
  detach.join();
  EXPECT_TRUE(detached.load());
  const std::string path = logDir + "/procEntriesStatus.log";
  expectNotFound(*get(path), -1, path);
}

// The daemon detaches the handler from its SIGTERM handler, which may run on a
// request thread in the middle of a refresh: detaching must not wait for itself.
TEST_F(LogDeliveryTest, DetachFromInsideARefreshDoesNotWaitForItself) {
  class DetachingListener : public FakeListener {
   public:
    bool updateFdStatus() override {
      service->setBasicManagementListener(nullptr);
      return true;
    }
    BasicManagementService* service = nullptr;
  } detaching;
  detaching.service = service.get();
  service->setBasicManagementListener(&detaching);
  writeFile(logDir + "/fdStatus.log", "fd");
  auto done = std::async(std::launch::async, [this] { return get(logDir + "/fdStatus.log")->bytes(); });
  if (done.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
    std::fprintf(stderr, "detaching from inside a refresh deadlocked\n");
    std::abort();
  }
  EXPECT_EQ(okHead(2) + "fd", done.get());
  const std::string path = logDir + "/fdStatus.log";
  expectNotFound(*get(path), -1, path);
}

// A request whose refresh never ends must not hold the shutdown: detaching gives up after its bound.
TEST_F(LogDeliveryTest, DetachWaitsForARefreshAtMostItsBound) {
  HoldingListener stuck(std::chrono::seconds(30));
  service->setBasicManagementListener(&stuck);
  writeFile(logDir + "/netstat.log", "n");
  std::thread request([this] { get(logDir + "/netstat.log"); });
  ASSERT_TRUE(stuck.waitUntilEntered());
  const auto started = std::chrono::steady_clock::now();
  service->setBasicManagementListener(nullptr);
  const auto took = std::chrono::steady_clock::now() - started;
  EXPECT_GE(took, std::chrono::milliseconds(900));
  EXPECT_LT(took, std::chrono::seconds(10));
  EXPECT_EQ(1, logs.exact(2, "Detached the log collection handler with [1] refreshes still running"));
  stuck.release();
  request.join();
}

// Detaching the real handler while its script sleeps kills the script's group
// at once; the request still gets the file as the script left it.
TEST_F(LogDeliveryTest, DetachKillsARunningCollectionScript) {
  const std::string marker = logDir + "/started";
  ShellWithStandIn runner("printf left > '" + logDir + "/procEntriesStatus.log'; : > '" + marker + "'; sleep 30");
  LogWatchHandler sleeping(nullptr, LogWatchHandler::kDefaultScriptLimit, &runner);
  service->setBasicManagementListener(&sleeping);
  auto answer = std::async(std::launch::async, [this] { return get(logDir + "/procEntriesStatus.log")->bytes(); });
  for (int i = 0; i < 1000 && access(marker.c_str(), F_OK) != 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(0, access(marker.c_str(), F_OK)) << "the script never started";
  // The wait's bound is logged when it is reached; killing the script must make that unnecessary.
  service->setBasicManagementListener(nullptr);
  ASSERT_EQ(std::future_status::ready, answer.wait_for(std::chrono::seconds(10)));
  EXPECT_EQ(okHead(4) + "left", answer.get());
  EXPECT_EQ(1, logs.exact(2, "Collection script [/etc/utils/procEntriesStatus.sh] was killed at shutdown"));
  EXPECT_EQ(0, logs.countAnyLevel("refreshes still running"));
}

}  // namespace
}  // namespace bmtest
