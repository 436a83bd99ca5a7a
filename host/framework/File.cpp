#include "tolvane/File.h"

#include <glib.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "tolvane/Logging.h"

TL_REGISTER_LOGGING(true, 5);

namespace Tolvane {

namespace {

// The canonical absolute form of path (links, "." and ".." resolved); empty
// when it does not exist.
std::string resolvedPath(const std::string& path) {
  char* resolved = ::realpath(path.c_str(), nullptr);
  if (resolved == nullptr) {
    return std::string();
  }
  std::string result(resolved);
  std::free(resolved);
  return result;
}

bool isInside(const std::string& root, const std::string& candidate) {
  if (root == "/") {
    return candidate.size() > 1 && candidate[0] == '/';
  }
  return candidate.size() > root.size() + 1 && candidate.compare(0, root.size(), root) == 0 &&
         candidate[root.size()] == '/';
}

// Opens the canonical path target (no links left in it) below the canonical
// directory root. openat2() refuses any link or ".." that a concurrent
// change might have put on the way since the path was resolved; kernels
// without it get the plain open, which at least refuses a link at the end.
int openResolvedBeneath(const std::string& root, const std::string& target) {
  constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW;
  const int rootFd = ::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (rootFd < 0) {
    return -1;
  }
  open_how how{};
  how.flags = static_cast<uint64_t>(kFlags);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  const std::string relative = root == "/" ? target.substr(1) : target.substr(root.size() + 1);
  int fd = static_cast<int>(::syscall(SYS_openat2, rootFd, relative.c_str(), &how, sizeof how));
  if (fd < 0 && errno == ENOSYS) {
    fd = ::open(target.c_str(), kFlags);
  }
  ::close(rootFd);
  return fd;
}

}  // namespace

File::~File() { close(); }

bool File::open(const std::string& path) {
  close();
  mFd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  return mFd >= 0;
}

bool File::openBeneath(const std::string& root, const std::string& path) {
  close();
  const std::string resolvedRoot = resolvedPath(root);
  if (resolvedRoot.empty()) {
    return false;
  }
  const std::string joined = !path.empty() && path[0] == '/' ? path : resolvedRoot + "/" + path;
  const std::string target = resolvedPath(joined);
  if (target.empty() || !isInside(resolvedRoot, target)) {
    return false;
  }
  mFd = openResolvedBeneath(resolvedRoot, target);
  struct stat info {};
  if (mFd < 0 || ::fstat(mFd, &info) != 0 || !S_ISREG(info.st_mode)) {
    close();
    return false;
  }
  return true;
}

int64_t File::getLength() {
  struct stat info {};
  if (mFd < 0 || ::fstat(mFd, &info) != 0) {
    return -1;
  }
  return static_cast<int64_t>(info.st_size);
}

int64_t File::read(void* buffer, size_t length) {
  if (mFd < 0) {
    return -1;
  }
  ssize_t count;
  do {
    count = ::read(mFd, buffer, length);
  } while (count < 0 && errno == EINTR);
  return static_cast<int64_t>(count);
}

void File::close() {
  if (mFd >= 0) {
    ::close(mFd);
    mFd = -1;
  }
}

ServerSocket::~ServerSocket() { close(); }

bool ServerSocket::bind(const std::string& address, uint16_t port) {
  close();
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  const std::string host = address.empty() ? "0.0.0.0" : address;
  if (::inet_pton(AF_INET, host.c_str(), &local.sin_addr) != 1) {
    TL_LOG(0, "Not an IPv4 address [%s]", host.c_str());
    return false;
  }
  mFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (mFd < 0) {
    TL_LOG(0, "socket failed [%s]", g_strerror(errno));
    return false;
  }
  const int reuse = 1;
  ::setsockopt(mFd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
  if (::bind(mFd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
    TL_LOG(0, "bind to [%s:%u] failed [%s]", host.c_str(), static_cast<unsigned>(port), g_strerror(errno));
    close();
    return false;
  }
  return true;
}

bool ServerSocket::listen(int backlog) {
  if (mFd < 0 || ::listen(mFd, backlog) != 0) {
    return false;
  }
  mListening = true;
  return true;
}

uint16_t ServerSocket::getPort() const {
  sockaddr_in local{};
  socklen_t length = sizeof local;
  if (mFd < 0 || ::getsockname(mFd, reinterpret_cast<sockaddr*>(&local), &length) != 0) {
    return 0;
  }
  return ntohs(local.sin_port);
}

void ServerSocket::close() {
  if (mFd >= 0) {
    ::close(mFd);
    mFd = -1;
  }
  mListening = false;
}

}  // namespace Tolvane
