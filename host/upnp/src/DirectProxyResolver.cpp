#include "DirectProxyResolver.h"

#include <gio/gio.h>

#include <mutex>

namespace {

struct DirectProxyResolver {
  GObject parent;
};

struct DirectProxyResolverClass {
  GObjectClass parentClass;
};

GType directProxyResolverGetType();

gchar** directOnly() {
  gchar** proxies = g_new0(gchar*, 2);
  proxies[0] = g_strdup("direct://");
  return proxies;
}

gboolean isSupported(GProxyResolver* /*resolver*/) { return TRUE; }

gchar** lookup(GProxyResolver* /*resolver*/, const gchar* /*uri*/, GCancellable* cancellable, GError** error) {
  if (g_cancellable_set_error_if_cancelled(cancellable, error)) {
    return nullptr;
  }
  return directOnly();
}

void lookupAsync(GProxyResolver* resolver, const gchar* /*uri*/, GCancellable* cancellable,
                 GAsyncReadyCallback callback, gpointer data) {
  GTask* task = g_task_new(resolver, cancellable, callback, data);
  GError* error = nullptr;
  if (g_cancellable_set_error_if_cancelled(cancellable, &error)) {
    g_task_return_error(task, error);
  } else {
    g_task_return_pointer(task, directOnly(), reinterpret_cast<GDestroyNotify>(g_strfreev));
  }
  g_object_unref(task);
}

gchar** lookupFinish(GProxyResolver* resolver, GAsyncResult* result, GError** error) {
  g_return_val_if_fail(g_task_is_valid(result, resolver), nullptr);
  return static_cast<gchar**>(g_task_propagate_pointer(G_TASK(result), error));
}

void initResolverInterface(gpointer iface, gpointer /*data*/) {
  auto* resolver = static_cast<GProxyResolverInterface*>(iface);
  resolver->is_supported = isSupported;
  resolver->lookup = lookup;
  resolver->lookup_async = lookupAsync;
  resolver->lookup_finish = lookupFinish;
}

GType directProxyResolverGetType() {
  static const GType type = [] {
    const GType registered =
        g_type_register_static_simple(G_TYPE_OBJECT, "ChdDirectProxyResolver", sizeof(DirectProxyResolverClass),
                                      nullptr, sizeof(DirectProxyResolver), nullptr, GTypeFlags(0));
    const GInterfaceInfo resolverInfo{initResolverInterface, nullptr, nullptr};
    g_type_add_interface_static(registered, G_TYPE_PROXY_RESOLVER, &resolverInfo);
    return registered;
  }();
  return type;
}

// Above GIO's own choices (the desktop's resolver has 80, libproxy's 0).
constexpr gint kPriority = 1000;

}  // namespace

namespace zuna_upnp {

void useDirectConnections() {
  static std::once_flag once;
  std::call_once(once, [] {
    // Registering the extension point first is allowed: GIO takes the
    // registered one and adds its own implementations beside ours. (GIO's
    // GSimpleProxyResolver cannot stand in: it has no is_supported, which
    // GIO calls on the default resolver's candidates.)
    g_io_extension_point_register(G_PROXY_RESOLVER_EXTENSION_POINT_NAME);
    g_io_extension_point_implement(G_PROXY_RESOLVER_EXTENSION_POINT_NAME, directProxyResolverGetType(), "chd-direct",
                                   kPriority);
  });
}

}  // namespace zuna_upnp
