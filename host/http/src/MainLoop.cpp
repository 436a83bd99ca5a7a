#include "zuna_http_host/MainLoop.h"

#include <pthread.h>

#include <condition_variable>
#include <mutex>
#include <set>
#include <string>

#include "tolvane/Logging.h"
#include "tolvane_host/ThreadSignals.h"

TL_REGISTER_LOGGING(true, 5);

namespace zuna_http::host {

namespace {

std::mutex gInstanceMutex;
std::weak_ptr<MainLoop> gInstance;

gboolean runWork(gpointer data) {
  (*static_cast<std::function<void()>*>(data))();
  return G_SOURCE_REMOVE;
}

void deleteWork(gpointer data) { delete static_cast<std::function<void()>*>(data); }

void forwardLibraryMessage(const gchar* domain, GLogLevelFlags flags, const gchar* message, gpointer /*data*/) {
  int level = 7;
  if ((flags & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL)) != 0) {
    level = 0;
  } else if ((flags & G_LOG_LEVEL_WARNING) != 0) {
    level = 2;
  } else if ((flags & (G_LOG_LEVEL_MESSAGE | G_LOG_LEVEL_INFO)) != 0) {
    level = 5;
  }
  TL_LOG(level, "[%s] %s", domain != nullptr ? domain : "", message != nullptr ? message : "");
}

}  // namespace

void forwardLibraryLogging(std::initializer_list<const char*> domains) {
  static std::mutex forwardedMutex;
  static std::set<std::string> forwarded;
  std::lock_guard<std::mutex> lock(forwardedMutex);
  for (const char* domain : domains) {
    if (forwarded.insert(domain).second) {
      g_log_set_handler(domain, GLogLevelFlags(G_LOG_LEVEL_MASK | G_LOG_FLAG_FATAL | G_LOG_FLAG_RECURSION),
                        forwardLibraryMessage, nullptr);
    }
  }
}

std::shared_ptr<MainLoop> MainLoop::acquire() {
  forwardLibraryLogging({"libsoup"});
  std::lock_guard<std::mutex> lock(gInstanceMutex);
  std::shared_ptr<MainLoop> loop = gInstance.lock();
  if (!loop) {
    loop.reset(new MainLoop());
    gInstance = loop;
  }
  return loop;
}

MainLoop::MainLoop() : mContext(g_main_context_new()), mLoop(g_main_loop_new(mContext, FALSE)) {
  std::mutex startedMutex;
  std::condition_variable startedCondition;
  bool started = false;
  mThread = std::thread([this, &startedMutex, &startedCondition, &started] {
    pthread_setname_np(pthread_self(), "UPnPStack");
    Tolvane::host::blockProcessSignals();
    if (!Tolvane::host::runInBackground()) {
      TL_LOG(2, "UPnP stack thread keeps its scheduling policy");
    }
    g_main_context_push_thread_default(mContext);
    {
      // Notified under the lock: the constructor's locals die once it sees started.
      std::lock_guard<std::mutex> lock(startedMutex);
      started = true;
      startedCondition.notify_one();
    }
    run();
    g_main_context_pop_thread_default(mContext);
  });
  std::unique_lock<std::mutex> lock(startedMutex);
  startedCondition.wait(lock, [&started] { return started; });
}

MainLoop::~MainLoop() {
  invoke([this] { g_main_loop_quit(mLoop); });
  if (mThread.get_id() == std::this_thread::get_id()) {
    // The last user let go from a callback of the loop itself: the thread
    // still needs its loop and context, so they are left to the process.
    mThread.detach();
    return;
  }
  mThread.join();
  g_main_loop_unref(mLoop);
  g_main_context_unref(mContext);
}

void MainLoop::run() {
  g_main_loop_run(mLoop);
  // Let sources that finished objects queued on their way out run.
  while (g_main_context_iteration(mContext, FALSE)) {
  }
}

bool MainLoop::isLoopThread() const { return g_main_context_is_owner(mContext) != FALSE; }

void MainLoop::invoke(std::function<void()> work) {
  g_main_context_invoke_full(mContext, G_PRIORITY_DEFAULT, runWork, new std::function<void()>(std::move(work)),
                             deleteWork);
}

void MainLoop::post(std::function<void()> work) {
  GSource* source = g_idle_source_new();
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(source, runWork, new std::function<void()>(std::move(work)), deleteWork);
  g_source_attach(source, mContext);
  g_source_unref(source);
}

void MainLoop::invokeAndWait(const std::function<void()>& work) {
  if (isLoopThread()) {
    work();
    return;
  }
  std::mutex doneMutex;
  std::condition_variable doneCondition;
  bool done = false;
  invoke([&] {
    work();
    std::lock_guard<std::mutex> lock(doneMutex);
    done = true;
    doneCondition.notify_one();
  });
  std::unique_lock<std::mutex> lock(doneMutex);
  doneCondition.wait(lock, [&done] { return done; });
}

}  // namespace zuna_http::host
