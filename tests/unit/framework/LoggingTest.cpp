#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TempDir.h"
#include "tolvane/Logging.h"
#include "tolvane_host/LoggingControl.h"

TL_REGISTER_LOGGING(true, 2);

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

struct Seen {
  int level;
  std::string file;
  std::string message;
};

// Collects what an observer sees while it is alive.
class ObserverScope {
 public:
  ObserverScope()
      : mId(logging_add_observer([this](int level, const std::string& file, const std::string& message) {
          const std::lock_guard<std::mutex> guard(mMutex);
          mSeen.push_back(Seen{level, file, message});
        })) {}
  ~ObserverScope() { logging_remove_observer(mId); }
  std::vector<Seen> seen() {
    const std::lock_guard<std::mutex> guard(mMutex);
    return mSeen;
  }

 private:
  std::mutex mMutex;
  std::vector<Seen> mSeen;
  int mId;
};

class LoggingTest : public ::testing::Test {
 protected:
  void TearDown() override {
    unsetenv("CHD_LOG_LEVEL");
    Tolvane::host::reloadLoggingEnvironment();
  }
};

TEST_F(LoggingTest, MessagesAboveTheFileThresholdAreNotWritten) {
  testing::internal::CaptureStderr();
  TL_LOG(0, "error [%s]", "shown");
  TL_LOG(2, "warning [%d]", 2);
  TL_LOG(5, "information [%s]", "hidden");
  const std::string output = testing::internal::GetCapturedStderr();
  EXPECT_THAT(output, HasSubstr("error [shown]"));
  EXPECT_THAT(output, HasSubstr("warning [2]"));
  EXPECT_THAT(output, HasSubstr("LoggingTest.cpp"));
  EXPECT_THAT(output, Not(HasSubstr("information")));
}

TEST_F(LoggingTest, ObserversSeeEveryLevelWhateverTheThreshold) {
  ObserverScope observer;
  testing::internal::CaptureStderr();
  TL_LOG(6, "detail [%d]", 6);
  const std::string output = testing::internal::GetCapturedStderr();
  EXPECT_THAT(output, Not(HasSubstr("detail")));
  const std::vector<Seen> seen = observer.seen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].level, 6);
  EXPECT_EQ(seen[0].file, "LoggingTest.cpp");
  EXPECT_EQ(seen[0].message, "detail [6]");
}

TEST_F(LoggingTest, EnabledAnswersWhetherAMessageWouldBeWrittenOrObserved) {
  EXPECT_TRUE(tl_log_enabled(0, __FILE__));
  EXPECT_TRUE(tl_log_enabled(2, __FILE__));
  EXPECT_FALSE(tl_log_enabled(5, __FILE__));
  EXPECT_FALSE(tl_log_enabled(7, __FILE__));
  ObserverScope observer;
  EXPECT_TRUE(tl_log_enabled(7, __FILE__));
}

TEST_F(LoggingTest, RemovedObserverSeesNothingMore) {
  std::atomic<int> calls{0};
  const int id = logging_add_observer([&](int, const std::string&, const std::string&) { ++calls; });
  TL_LOG(0, "one");
  logging_remove_observer(id);
  TL_LOG(0, "two");
  EXPECT_EQ(calls.load(), 1);
}

TEST_F(LoggingTest, TracerLogsEntryAndExitAtLevel7WithTheFunction) {
  ObserverScope observer;
  { TL_TRACE(); }
  const std::vector<Seen> seen = observer.seen();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].level, 7);
  EXPECT_THAT(seen[0].message, HasSubstr("Entering"));
  EXPECT_THAT(seen[0].message, HasSubstr("TestBody"));
  EXPECT_THAT(seen[1].message, HasSubstr("Leaving"));
}

TEST_F(LoggingTest, EnvironmentLevelOverridesEveryThreshold) {
  EXPECT_EQ(Tolvane::host::getLoggingThreshold(__FILE__), 2);
  EXPECT_EQ(Tolvane::host::getLoggingThreshold("never/registered.cpp"), 5);
  setenv("CHD_LOG_LEVEL", "7", 1);
  Tolvane::host::reloadLoggingEnvironment();
  EXPECT_EQ(Tolvane::host::getLoggingThreshold(__FILE__), 7);
  EXPECT_EQ(Tolvane::host::getLoggingThreshold("never/registered.cpp"), 7);
  testing::internal::CaptureStderr();
  { TL_TRACE(); }
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("Entering"));
  setenv("CHD_LOG_LEVEL", "zero", 1);
  Tolvane::host::reloadLoggingEnvironment();
  EXPECT_EQ(Tolvane::host::getLoggingThreshold(__FILE__), 2);
}

TEST_F(LoggingTest, DisabledFileWritesNothingButIsObserved) {
  register_logging("disabled/Component.cpp", false, 7);
  EXPECT_EQ(Tolvane::host::getLoggingThreshold("disabled/Component.cpp"), -1);
  ObserverScope observer;
  testing::internal::CaptureStderr();
  tl_log_print(0, "void f()", "disabled/Component.cpp", 10, "quiet [%s]", "error");
  EXPECT_THAT(testing::internal::GetCapturedStderr(), Not(HasSubstr("quiet")));
  ASSERT_EQ(observer.seen().size(), 1u);
  EXPECT_EQ(observer.seen()[0].file, "Component.cpp");
}

TEST_F(LoggingTest, LongMessagesAreWrittenWhole) {
  ObserverScope observer;
  const std::string longText(5000, 'x');
  TL_LOG(0, "[%s]", longText.c_str());
  ASSERT_EQ(observer.seen().size(), 1u);
  EXPECT_EQ(observer.seen()[0].message, "[" + longText + "]");
}

TEST_F(LoggingTest, ObserverThatLogsDoesNotRecurse) {
  std::atomic<int> calls{0};
  const int id = logging_add_observer([&](int, const std::string&, const std::string&) {
    ++calls;
    TL_LOG(7, "from inside the observer");
  });
  TL_LOG(7, "outer");
  logging_remove_observer(id);
  EXPECT_EQ(calls.load(), 1);
}

TEST_F(LoggingTest, ObserversComeAndGoWhileOtherThreadsLog) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> loggers;
  for (int t = 0; t < 2; ++t) {
    loggers.emplace_back([&stop, t] {
      for (int i = 0; i < 20000 && !stop; ++i) {
        TL_LOG(7, "thread [%d] message [%d]", t, i);
      }
    });
  }
  for (int round = 0; round < 200; ++round) {
    ObserverScope observer;
    TL_LOG(7, "round [%d]", round);
    EXPECT_FALSE(observer.seen().empty());
  }
  stop = true;
  for (auto& logger : loggers) {
    logger.join();
  }
}

// A socket bound at path()/log standing in for the system logger's.
class FakeSyslogSocket {
 public:
  explicit FakeSyslogSocket(int type) : mPath(mDir.path() + "/log"), mFd(::socket(AF_UNIX, type, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    mPath.copy(address.sun_path, sizeof address.sun_path - 1);
    mBound = ::bind(mFd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
             (type != SOCK_STREAM || ::listen(mFd, 1) == 0);
  }
  ~FakeSyslogSocket() { ::close(mFd); }
  FakeSyslogSocket(const FakeSyslogSocket&) = delete;
  FakeSyslogSocket& operator=(const FakeSyslogSocket&) = delete;
  const std::string& path() const { return mPath; }
  bool bound() const { return mBound; }

 private:
  framework_test::TempDir mDir;
  std::string mPath;
  int mFd;
  bool mBound = false;
};

TEST_F(LoggingTest, SyslogIsReachableOnlyWhereALoggerListens) {
  const FakeSyslogSocket datagram(SOCK_DGRAM);
  const FakeSyslogSocket stream(SOCK_STREAM);
  ASSERT_TRUE(datagram.bound() && stream.bound());
  EXPECT_TRUE(Tolvane::host::syslogReachable(datagram.path()));
  EXPECT_TRUE(Tolvane::host::syslogReachable(stream.path()));
  EXPECT_FALSE(Tolvane::host::syslogReachable(datagram.path() + ".absent"));
  EXPECT_FALSE(Tolvane::host::syslogReachable(std::string(200, 'x')));
}

TEST_F(LoggingTest, UnreachableSyslogKeepsFatalMessagesOnStandardError) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        unsetenv("CHD_LOG_STDERR");
        Tolvane::host::reloadLoggingEnvironment();
        Tolvane::host::setSyslogSocketForTest("/nonexistent/chd-test-log");
        logging_enable_syslog(1);
        TL_LOG(0, "fatal marker [%d]", 7);
        std::exit(1);
      },
      ::testing::ExitedWithCode(1),
      ::testing::AllOf(HasSubstr("System log [/nonexistent/chd-test-log] unreachable"), HasSubstr("fatal marker [7]")));
}

TEST_F(LoggingTest, LevelThatIsNotANumberIsWarnedAndIgnored) {
  setenv("CHD_LOG_LEVEL", "loud", 1);
  testing::internal::CaptureStderr();
  Tolvane::host::reloadLoggingEnvironment();
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("CHD_LOG_LEVEL [loud] is not a level"));
  EXPECT_EQ(Tolvane::host::getLoggingThreshold(__FILE__), 2);
  setenv("CHD_LOG_LEVEL", "101", 1);
  testing::internal::CaptureStderr();
  Tolvane::host::reloadLoggingEnvironment();
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("CHD_LOG_LEVEL [101]"));
  setenv("CHD_LOG_LEVEL", "3", 1);
  testing::internal::CaptureStderr();
  Tolvane::host::reloadLoggingEnvironment();
  EXPECT_THAT(testing::internal::GetCapturedStderr(), Not(HasSubstr("CHD_LOG_LEVEL")));
}

TEST_F(LoggingTest, BadLevelIsWarnedOnTheFirstMessageToo) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // A fresh process reads the environment on its first message.
  EXPECT_EXIT(
      {
        setenv("CHD_LOG_LEVEL", "-3", 1);
        execl("/proc/self/exe", "LoggingTest",
              "--gtest_filter=LoggingTest.EnabledAnswersWhetherAMessageWouldBeWrittenOrObserved",
              static_cast<char*>(nullptr));
        std::exit(3);
      },
      ::testing::ExitedWithCode(0), HasSubstr("CHD_LOG_LEVEL [-3] is not a level"));
}

TEST_F(LoggingTest, SyslogEchoesToStandardErrorWhenAsked) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const FakeSyslogSocket logger(SOCK_DGRAM);
  EXPECT_EXIT(
      {
        Tolvane::host::setSyslogSocketForTest(logger.path());
        setenv("CHD_LOG_STDERR", "1", 1);
        Tolvane::host::reloadLoggingEnvironment();
        logging_enable_syslog(1);
        TL_LOG(0, "syslog marker [%d]", 42);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "chd.*syslog marker \\[42\\]");
}

}  // namespace
