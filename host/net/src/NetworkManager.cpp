#include "zuna_net/NetworkManager.h"

#include <glib-unix.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "tolvane/Logging.h"
#include "tolvane_host/ThreadSignals.h"
#include "zuna_net_host/InterfaceAddresses.h"

TL_REGISTER_LOGGING(true, 5);

namespace zuna {
namespace net {

namespace {

// Several kernel messages come in a burst for one change; one look after
// the burst is enough.
constexpr guint kSettleMs = 20;

}  // namespace

struct NetworkManager::Impl {
  // The kernel's routing socket is only a wake-up call: the messages are
  // drained unread and the interfaces are looked at again with getifaddrs.
  int netlinkFd = -1;
  GMainContext* context = nullptr;
  GMainLoop* loop = nullptr;
  GSource* settleTimer = nullptr;  // monitor thread only
  std::thread thread;
  std::map<std::string, std::string> lastSeen;  // monitor thread only

  std::mutex stateMutex;  // guards the lifecycle fields below
  bool initialised = false;
  bool running = false;

  // Held while observers are called, so that removeObserver() returns only
  // once the observer can no longer be called.
  std::recursive_mutex observerMutex;
  std::vector<Observer*> observers;

  bool openNetlink();
  void run();
  static gboolean onNetlinkReadable(gint fd, GIOCondition condition, gpointer data);
  static gboolean onSettled(gpointer data);
  void notifyIfChanged();
};

bool NetworkManager::Impl::openNetlink() {
  netlinkFd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (netlinkFd < 0) {
    TL_LOG(0, "No routing socket: interface changes will not be followed");
    return false;
  }
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR;
  if (bind(netlinkFd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    TL_LOG(0, "Cannot subscribe to interface changes");
    close(netlinkFd);
    netlinkFd = -1;
    return false;
  }
  return true;
}

gboolean NetworkManager::Impl::onNetlinkReadable(gint fd, GIOCondition /*condition*/, gpointer data) {
  Impl* impl = static_cast<Impl*>(data);
  char buffer[8192];
  while (recv(fd, buffer, sizeof buffer, MSG_DONTWAIT) > 0) {
  }
  if (impl->settleTimer == nullptr) {
    impl->settleTimer = g_timeout_source_new(kSettleMs);
    g_source_set_callback(impl->settleTimer, onSettled, impl, nullptr);
    g_source_attach(impl->settleTimer, impl->context);
    g_source_unref(impl->settleTimer);
  }
  return G_SOURCE_CONTINUE;
}

gboolean NetworkManager::Impl::onSettled(gpointer data) {
  Impl* impl = static_cast<Impl*>(data);
  impl->settleTimer = nullptr;
  impl->notifyIfChanged();
  return G_SOURCE_REMOVE;
}

void NetworkManager::Impl::notifyIfChanged() {
  // A link that only gains or loses its carrier changes nothing else.
  std::map<std::string, std::string> now = host::currentIPv4Addresses(true);
  if (now == lastSeen) {
    return;
  }
  lastSeen = std::move(now);
  TL_LOG(6, "Network interfaces changed");
  std::lock_guard<std::recursive_mutex> lock(observerMutex);
  const std::vector<Observer*> current = observers;
  for (Observer* observer : current) {
    if (std::find(observers.begin(), observers.end(), observer) != observers.end()) {
      observer->interfacesChanged();
    }
  }
}

void NetworkManager::Impl::run() {
  pthread_setname_np(pthread_self(), "NetworkMonitor");
  Tolvane::host::blockProcessSignals();
  g_main_context_push_thread_default(context);
  GSource* watch = g_unix_fd_source_new(netlinkFd, G_IO_IN);
  g_source_set_callback(watch, G_SOURCE_FUNC(onNetlinkReadable), this, nullptr);
  g_source_attach(watch, context);
  g_main_loop_run(loop);
  g_source_destroy(watch);
  g_source_unref(watch);
  if (settleTimer != nullptr) {
    g_source_destroy(settleTimer);
    settleTimer = nullptr;
  }
  g_main_context_pop_thread_default(context);
}

NetworkManager::NetworkManager() : mImpl(std::make_unique<Impl>()) {}

NetworkManager::~NetworkManager() {
  stop();
  if (mImpl->netlinkFd >= 0) {
    close(mImpl->netlinkFd);
  }
}

bool NetworkManager::init() {
  std::lock_guard<std::mutex> lock(mImpl->stateMutex);
  if (!mImpl->initialised) {
    mImpl->initialised = mImpl->openNetlink();
  }
  return mImpl->initialised;
}

bool NetworkManager::start() {
  if (!init()) {
    return false;
  }
  std::lock_guard<std::mutex> lock(mImpl->stateMutex);
  if (mImpl->running) {
    return true;
  }
  mImpl->lastSeen = host::currentIPv4Addresses(true);
  mImpl->context = g_main_context_new();
  mImpl->loop = g_main_loop_new(mImpl->context, FALSE);
  mImpl->thread = std::thread([impl = mImpl.get()] { impl->run(); });
  mImpl->running = true;
  return true;
}

bool NetworkManager::stop() {
  std::lock_guard<std::mutex> lock(mImpl->stateMutex);
  if (!mImpl->running) {
    return true;
  }
  GMainLoop* loop = mImpl->loop;
  g_main_context_invoke(
      mImpl->context,
      [](gpointer data) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(data));
        return G_SOURCE_REMOVE;
      },
      loop);
  mImpl->thread.join();
  g_main_loop_unref(mImpl->loop);
  g_main_context_unref(mImpl->context);
  mImpl->loop = nullptr;
  mImpl->context = nullptr;
  mImpl->running = false;
  return true;
}

Tolvane::StringVector NetworkManager::getActiveInterfaces() {
  Tolvane::StringVector names;
  for (const auto& entry : host::currentIPv4Addresses()) {
    names.push_back(entry.first);
  }
  return names;
}

void NetworkManager::addObserver(Observer* observer) {
  std::lock_guard<std::recursive_mutex> lock(mImpl->observerMutex);
  if (observer != nullptr &&
      std::find(mImpl->observers.begin(), mImpl->observers.end(), observer) == mImpl->observers.end()) {
    mImpl->observers.push_back(observer);
  }
}

void NetworkManager::removeObserver(Observer* observer) {
  std::lock_guard<std::recursive_mutex> lock(mImpl->observerMutex);
  mImpl->observers.erase(std::remove(mImpl->observers.begin(), mImpl->observers.end(), observer),
                         mImpl->observers.end());
}

}  // namespace net
}  // namespace zuna
