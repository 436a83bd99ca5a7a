#include "statusstore_host/StatusStoreExporter.h"

#include <pthread.h>
#include <signal.h>

#include <future>
#include <utility>

#include "statusstore_host/StatusStoreBus.h"
#include "tolvane/Logging.h"

TL_REGISTER_LOGGING(true, 5);

namespace statusstore {

struct StatusStoreExporter::StartState {
  std::promise<bool> exported;
};

namespace {

// How long start() waits for the bus to grant or refuse the well-known name.
constexpr guint kNameDecisionTimeoutMs = 5000;

// A method handler gets its already type-checked arguments and returns the
// reply's arguments (nullptr for an empty reply).
using MethodHandler = GVariant* (*)(LocalStatusManager& store, GVariant* parameters);

const char* firstString(GVariant* parameters) {
  const gchar* text = nullptr;
  g_variant_get_child(parameters, 0, "&s", &text);
  return text;
}

// Arguments are taken one child at a time: reading the whole tuple with
// g_variant_get would first write out a serialised copy of all of it.
std::string stringChild(GVariant* parameters, gsize index) {
  GVariant* child = g_variant_get_child_value(parameters, index);
  gsize length = 0;
  const gchar* text = g_variant_get_string(child, &length);
  std::string copy(text, length);
  g_variant_unref(child);
  return copy;
}

// The received string becomes the stored value itself.
void addReceivedStatus(SharedStatusMap& statuses, GVariant* entry) {
  std::string key = stringChild(entry, 0);
  statuses[std::move(key)] = statusValueFromVariant(g_variant_get_child_value(entry, 1));
}

GVariant* setStatus(LocalStatusManager& store, GVariant* parameters) {
  SharedStatusMap statuses;
  addReceivedStatus(statuses, parameters);
  store.setSharedStatuses(std::move(statuses));
  return nullptr;
}

GVariant* setStatuses(LocalStatusManager& store, GVariant* parameters) {
  GVariant* entries = g_variant_get_child_value(parameters, 0);
  SharedStatusMap statuses;
  const gsize count = g_variant_n_children(entries);
  for (gsize index = 0; index < count; ++index) {
    GVariant* entry = g_variant_get_child_value(entries, index);
    addReceivedStatus(statuses, entry);
    g_variant_unref(entry);
  }
  g_variant_unref(entries);
  store.setSharedStatuses(std::move(statuses));
  return nullptr;
}

GVariant* getStatus(LocalStatusManager& store, GVariant* parameters) {
  GVariant* value = statusValueToVariant(store.getSharedStatus(firstString(parameters)));
  GVariant* reply = g_variant_new_tuple(&value, 1);
  g_variant_unref(value);
  return reply;
}

GVariant* postEvent(LocalStatusManager& store, GVariant* parameters) {
  gint32 option = 0;
  g_variant_get_child(parameters, 2, "i", &option);
  store.postEvent(stringChild(parameters, 0), stringChild(parameters, 1), option);
  return nullptr;
}

// StartTimer, StopTimer, PauseTimer and ResumeTimer: one timer name in, nothing out.
template <void (LocalStatusManager::*Operation)(const std::string&)>
GVariant* timerOperation(LocalStatusManager& store, GVariant* parameters) {
  (store.*Operation)(firstString(parameters));
  return nullptr;
}

GVariant* getTimerElapsed(LocalStatusManager& store, GVariant* parameters) {
  return g_variant_new("(t)", static_cast<guint64>(store.getTimerElapsed(firstString(parameters))));
}

GVariant* getTimerStartTime(LocalStatusManager& store, GVariant* parameters) {
  return g_variant_new("(x)", static_cast<gint64>(store.getTimerStartTime(firstString(parameters))));
}

GVariant* getCounter(LocalStatusManager& store, GVariant* parameters) {
  return g_variant_new("(u)", static_cast<guint32>(store.getCounter(firstString(parameters))));
}

GVariant* setCounter(LocalStatusManager& store, GVariant* parameters) {
  const gchar* name = nullptr;
  guint32 value = 0;
  g_variant_get(parameters, "(&su)", &name, &value);
  store.setCounter(name, value);
  return nullptr;
}

struct Method {
  const char* name;
  MethodHandler handler;
};

// A plain array: it has no destructor, so calls that arrive while the process
// runs its exit handlers never meet a destroyed table.
constexpr Method kMethods[] = {
    {"SetStatus", setStatus},
    {"SetStatuses", setStatuses},
    {"GetStatus", getStatus},
    {"PostEvent", postEvent},
    {"StartTimer", timerOperation<&LocalStatusManager::startTimer>},
    {"StopTimer", timerOperation<&LocalStatusManager::stopTimer>},
    {"PauseTimer", timerOperation<&LocalStatusManager::pauseTimer>},
    {"ResumeTimer", timerOperation<&LocalStatusManager::resumeTimer>},
    {"GetTimerElapsed", getTimerElapsed},
    {"GetTimerStartTime", getTimerStartTime},
    {"GetCounter", getCounter},
    {"SetCounter", setCounter},
};

MethodHandler findMethod(const char* name) {
  for (const Method& method : kMethods) {
    if (g_strcmp0(method.name, name) == 0) {
      return method.handler;
    }
  }
  return nullptr;
}

// Process-directed signals (the daemon's SIGTERM) must land on a thread that
// can run the daemon's handler and then wait for this thread to finish.
void blockAsynchronousSignals() {
  sigset_t signals;
  sigfillset(&signals);
  for (int synchronous : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP}) {
    sigdelset(&signals, synchronous);
  }
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

StatusStoreExporter::StatusStoreExporter(LocalStatusManager& store) : mStore(store) {}

StatusStoreExporter::~StatusStoreExporter() { stop(); }

bool StatusStoreExporter::start(const std::string& bus) {
  if (mThread.joinable()) {
    return true;
  }
  mContext = g_main_context_new();
  mLoop = g_main_loop_new(mContext, FALSE);
  StartState state;
  std::future<bool> exported = state.exported.get_future();
  mThread = std::thread(&StatusStoreExporter::run, this, bus, &state);
  if (exported.get()) {
    return true;
  }
  mThread.join();
  g_main_loop_unref(mLoop);
  g_main_context_unref(mContext);
  mLoop = nullptr;
  mContext = nullptr;
  return false;
}

void StatusStoreExporter::run(const std::string& bus, StartState* state) {
  blockAsynchronousSignals();
  pthread_setname_np(pthread_self(), "StatusStoreBus");
  g_main_context_push_thread_default(mContext);
  bool exported = exportOnBus(bus);
  state->exported.set_value(exported);
  if (exported) {
    g_main_loop_run(mLoop);
  }
  g_main_context_pop_thread_default(mContext);
}

bool StatusStoreExporter::exportOnBus(const std::string& bus) {
  mNameDecided = false;
  mConnectionLost.store(false);
  GError* error = nullptr;
  mConnection = connectToBus(bus, &error);
  if (mConnection == nullptr) {
    TL_LOG(0, "Status store bus [%s] cannot be reached, the store works in-process only: [%s]", bus.c_str(),
           error != nullptr ? error->message : "");
    g_clear_error(&error);
    return false;
  }
  g_dbus_connection_set_exit_on_close(mConnection, FALSE);
  g_signal_connect(mConnection, "closed", G_CALLBACK(onConnectionClosed), this);
  // Signals flow before the object and the name are public: a client that
  // reacts to the name appearing must already see the effects of its calls.
  mStore.addObserver(this);
  static const GDBusInterfaceVTable vtable = {onMethodCall, nullptr, nullptr, {nullptr}};
  mRegistrationId = g_dbus_connection_register_object(mConnection, kStoreObjectPath, storeInterfaceInfo(), &vtable,
                                                      this, nullptr, &error);
  if (mRegistrationId == 0) {
    TL_LOG(0, "Status store cannot be exported on bus [%s]: [%s]", bus.c_str(), error->message);
    g_clear_error(&error);
    mStore.removeObserver(this);
    g_dbus_connection_close_sync(mConnection, nullptr, nullptr);
    g_clear_object(&mConnection);
    return false;
  }
  mOwnerId = g_bus_own_name_on_connection(mConnection, kStoreBusName, G_BUS_NAME_OWNER_FLAGS_NONE, onNameAcquired,
                                          onNameLost, this, nullptr);
  waitForNameDecision();
  TL_LOG(5, "Status store exported on bus [%s]", bus.c_str());
  return true;
}

void StatusStoreExporter::waitForNameDecision() {
  bool timedOut = false;
  GSource* timeout = g_timeout_source_new(kNameDecisionTimeoutMs);
  g_source_set_callback(
      timeout,
      [](gpointer flag) -> gboolean {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &timedOut, nullptr);
  g_source_attach(timeout, mContext);
  while (!mNameDecided && !timedOut) {
    g_main_context_iteration(mContext, TRUE);
  }
  g_source_destroy(timeout);
  g_source_unref(timeout);
  if (timedOut) {
    TL_LOG(0, "The bus did not answer the request for name [%s]", kStoreBusName);
  }
}

void StatusStoreExporter::stop() {
  if (!mThread.joinable()) {
    return;
  }
  if (std::this_thread::get_id() == mThread.get_id()) {
    // Cannot wait for itself: leave the loop to end when this dispatch returns.
    teardown();
    mThread.detach();
    return;
  }
  g_main_context_invoke(mContext, onTeardownRequested, this);
  mThread.join();
  g_main_loop_unref(mLoop);
  g_main_context_unref(mContext);
  mLoop = nullptr;
  mContext = nullptr;
}

gboolean StatusStoreExporter::onTeardownRequested(gpointer self) {
  static_cast<StatusStoreExporter*>(self)->teardown();
  return G_SOURCE_REMOVE;
}

void StatusStoreExporter::teardown() {
  mStore.removeObserver(this);
  if (mOwnerId != 0) {
    g_bus_unown_name(mOwnerId);
    mOwnerId = 0;
  }
  if (mRegistrationId != 0) {
    g_dbus_connection_unregister_object(mConnection, mRegistrationId);
    mRegistrationId = 0;
  }
  g_signal_handlers_disconnect_by_data(mConnection, this);
  if (!g_dbus_connection_is_closed(mConnection)) {
    // Sends what is still queued, the name release included, before closing.
    g_dbus_connection_flush_sync(mConnection, nullptr, nullptr);
    g_dbus_connection_close_sync(mConnection, nullptr, nullptr);
  }
  g_clear_object(&mConnection);
  g_main_loop_quit(mLoop);
  TL_LOG(5, "Status store no longer exported");
}

// The signal shares the store's values: it costs one serialised copy, which
// goes as soon as the message has been written to the bus.
void StatusStoreExporter::onSharedStatusesChanged(const SharedStatusMap& statuses) {
  emit("StatusesChanged", g_variant_new("(@a{ss})", sharedStatusMapToVariant(statuses)));
}

void StatusStoreExporter::onEventPosted(const std::string& name, const std::string& value) {
  GVariant* text = statusValueToVariant(makeStatusValue(value));
  emit("EventPosted", g_variant_new("(s@s)", toValidUtf8(name).c_str(), text));
  g_variant_unref(text);
}

void StatusStoreExporter::emit(const char* signal, GVariant* parameters) {
  if (mConnectionLost.load()) {
    g_variant_unref(g_variant_ref_sink(parameters));
    return;
  }
  GError* error = nullptr;
  if (!g_dbus_connection_emit_signal(mConnection, nullptr, kStoreObjectPath, kStoreInterface, signal, parameters,
                                     &error)) {
    TL_LOG(2, "Signal [%s] of the status store not sent: [%s]", signal, error->message);
    g_clear_error(&error);
  }
}

void StatusStoreExporter::onMethodCall(GDBusConnection* /*connection*/, const gchar* sender,
                                       const gchar* /*objectPath*/, const gchar* /*interfaceName*/,
                                       const gchar* methodName, GVariant* parameters, GDBusMethodInvocation* invocation,
                                       gpointer self) {
  TL_LOG(6, "Status store call [%s] from [%s]", methodName, sender != nullptr ? sender : "");
  MethodHandler handler = findMethod(methodName);
  if (handler == nullptr) {
    g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD,
                                          "No method [%s] in the status store", methodName);
    return;
  }
  GVariant* reply = handler(static_cast<StatusStoreExporter*>(self)->mStore, parameters);
  g_dbus_method_invocation_return_value(invocation, reply);
}

void StatusStoreExporter::onNameAcquired(GDBusConnection* /*connection*/, const gchar* name, gpointer self) {
  TL_LOG(5, "Status store owns the name [%s]", name);
  static_cast<StatusStoreExporter*>(self)->mNameDecided = true;
}

void StatusStoreExporter::onNameLost(GDBusConnection* /*connection*/, const gchar* name, gpointer self) {
  TL_LOG(0, "Status store does not own the name [%s]; it is reachable only by its unique name", name);
  static_cast<StatusStoreExporter*>(self)->mNameDecided = true;
}

void StatusStoreExporter::onConnectionClosed(GDBusConnection* /*connection*/, gboolean /*remotePeerVanished*/,
                                             GError* error, gpointer self) {
  TL_LOG(0, "Status store bus connection closed, the store works in-process only: [%s]",
         error != nullptr ? error->message : "");
  static_cast<StatusStoreExporter*>(self)->mConnectionLost.store(true);
}

}  // namespace statusstore
