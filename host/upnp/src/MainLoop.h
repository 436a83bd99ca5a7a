// The one GLib main-loop thread that owns every GUPnP, GSSDP and libsoup
// object of the process. Other threads hand it work.
#pragma once

#include <glib.h>

#include <functional>
#include <memory>
#include <thread>

namespace zuna_upnp {

class MainLoop {
 public:
  // The running loop, started by its first user and stopped when the last
  // reference is dropped.
  static std::shared_ptr<MainLoop> acquire();

  ~MainLoop();
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  GMainContext* context() const { return mContext; }
  bool isLoopThread() const;
  // Runs work on the loop thread later (at once when called on it).
  void invoke(std::function<void()> work);
  // Queues work behind everything queued before it, even on the loop thread.
  void post(std::function<void()> work);
  // Runs work on the loop thread and returns when it has run.
  void invokeAndWait(const std::function<void()>& work);

 private:
  MainLoop();
  void run();

  GMainContext* mContext;
  GMainLoop* mLoop;
  std::thread mThread;
};

}  // namespace zuna_upnp
