#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <filesystem>
#include <string>

#include "TempDir.h"
#include "tolvane/File.h"

namespace {

using framework_test::TempDir;
using Tolvane::File;
using Tolvane::ServerSocket;

class OpenBeneathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mRoot = mDir.path() + "/logs";
    std::filesystem::create_directories(mRoot + "/sub");
    mDir.write("logs/messages", "hello");
    mDir.write("logs/sub/deep.log", "deep");
    mDir.write("secret", "outside");
    std::filesystem::create_symlink(mDir.path() + "/secret", mRoot + "/escape");
    std::filesystem::create_symlink(mRoot + "/messages", mRoot + "/alias");
    std::filesystem::create_symlink("sub/deep.log", mRoot + "/relative");
    std::filesystem::create_symlink(mRoot, mDir.path() + "/rootlink");
  }

  std::string readAll(File& file) {
    std::string text;
    char buffer[3];
    int64_t count;
    while ((count = file.read(buffer, sizeof buffer)) > 0) {
      text.append(buffer, static_cast<size_t>(count));
    }
    EXPECT_EQ(count, 0);
    return text;
  }

  TempDir mDir;
  std::string mRoot;
};

TEST_F(OpenBeneathTest, OpensARegularFileInsideTheRoot) {
  File file;
  ASSERT_TRUE(file.openBeneath(mRoot, mRoot + "/messages"));
  EXPECT_TRUE(file.isOpen());
  EXPECT_EQ(file.getLength(), 5);
  EXPECT_EQ(readAll(file), "hello");
  ASSERT_TRUE(file.openBeneath(mRoot, "sub/deep.log"));
  EXPECT_EQ(readAll(file), "deep");
}

TEST_F(OpenBeneathTest, FollowsLinksThatStayInside) {
  File file;
  ASSERT_TRUE(file.openBeneath(mRoot, mRoot + "/alias"));
  EXPECT_EQ(readAll(file), "hello");
  ASSERT_TRUE(file.openBeneath(mRoot, mRoot + "/relative"));
  EXPECT_EQ(readAll(file), "deep");
  ASSERT_TRUE(file.openBeneath(mDir.path() + "/rootlink", mRoot + "/messages"));
  EXPECT_EQ(readAll(file), "hello");
}

TEST_F(OpenBeneathTest, RefusesPathsThatLeaveTheRoot) {
  File file;
  EXPECT_FALSE(file.openBeneath(mRoot, mRoot + "/../secret"));
  EXPECT_FALSE(file.openBeneath(mRoot, "../secret"));
  EXPECT_FALSE(file.openBeneath(mRoot, mRoot + "/sub/../../secret"));
  EXPECT_FALSE(file.openBeneath(mRoot, mRoot + "/escape"));
  EXPECT_FALSE(file.openBeneath(mRoot, mDir.path() + "/secret"));
  EXPECT_FALSE(file.openBeneath(mRoot, mRoot.substr(0, mRoot.size() - 1)));
  EXPECT_FALSE(file.isOpen());
}

TEST_F(OpenBeneathTest, RefusesWhatIsNotAnExistingRegularFile) {
  File file;
  EXPECT_FALSE(file.openBeneath(mRoot, mRoot));
  EXPECT_FALSE(file.openBeneath(mRoot, mRoot + "/sub"));
  EXPECT_FALSE(file.openBeneath(mRoot, mRoot + "/missing"));
  EXPECT_FALSE(file.openBeneath(mRoot + "/nowhere", "messages"));
  ASSERT_EQ(mkfifo((mRoot + "/fifo").c_str(), 0600), 0);
  EXPECT_FALSE(file.openBeneath(mRoot, mRoot + "/fifo"));
  EXPECT_FALSE(file.isOpen());
  EXPECT_LT(file.getLength(), 0);
  char byte;
  EXPECT_LT(file.read(&byte, 1), 0);
}

TEST_F(OpenBeneathTest, PlainOpenAndClose) {
  File file;
  ASSERT_TRUE(file.open(mDir.path() + "/secret"));
  EXPECT_EQ(file.getLength(), 7);
  file.close();
  EXPECT_FALSE(file.isOpen());
  EXPECT_FALSE(file.open(mDir.path() + "/missing"));
}

TEST(ServerSocketTest, BindsAFreePortOnLoopbackAndAcceptsConnections) {
  ServerSocket server;
  ASSERT_TRUE(server.bind("127.0.0.1", 0));
  const uint16_t port = server.getPort();
  EXPECT_NE(port, 0);
  EXPECT_FALSE(server.isListening());
  ASSERT_TRUE(server.listen(5));
  EXPECT_TRUE(server.isListening());
  EXPECT_EQ(fcntl(server.getHandle(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);

  const int client = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  close(client);

  ServerSocket second;
  EXPECT_FALSE(second.bind("127.0.0.1", port));
  EXPECT_EQ(second.getHandle(), -1);

  server.close();
  EXPECT_EQ(server.getHandle(), -1);
  EXPECT_EQ(server.getPort(), 0);
  EXPECT_FALSE(server.isListening());
}

TEST(ServerSocketTest, RefusesAddressesThatAreNotIPv4) {
  ServerSocket server;
  EXPECT_FALSE(server.bind("::1", 0));
  EXPECT_FALSE(server.bind("localhost", 0));
  EXPECT_FALSE(server.listen(5));
}

TEST(ServerSocketTest, EmptyAddressIsTheAnyAddress) {
  ServerSocket server;
  ASSERT_TRUE(server.bind("", 0));
  sockaddr_in local{};
  socklen_t length = sizeof local;
  ASSERT_EQ(getsockname(server.getHandle(), reinterpret_cast<sockaddr*>(&local), &length), 0);
  EXPECT_EQ(local.sin_addr.s_addr, htonl(INADDR_ANY));
}

}  // namespace
