// A plugin in GLib's main loop, and so in that of GTK.
#include <glib-unix.h>
#include <glib.h>

#include <cstdio>

#include "digest_service.h"

namespace {

// A source that is ready when the plugin's descriptor is, or its time has come.
struct PluginSource {
  GSource base;
  DigestService* service;
  gpointer hub;  // the descriptor's place in the loop
};

PluginSource* from(GSource* source) {
  return reinterpret_cast<PluginSource*>(source);
}

gboolean prepare(GSource* source, gint* timeout) {
  *timeout = from(source)->service->plugin().nextTimeout();
  return *timeout == 0;
}

gboolean check(GSource* source) {
  PluginSource* plugin = from(source);
  return g_source_query_unix_fd(source, plugin->hub) != 0 ||
         plugin->service->plugin().nextTimeout() == 0;
}

gboolean dispatch(GSource* source, GSourceFunc, gpointer) {
  from(source)->service->step();
  return G_SOURCE_CONTINUE;
}

gboolean beat(gpointer service) {
  static_cast<DigestService*>(service)->beat();
  return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  DigestService service;
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  if (!service.start(argc, argv, [loop] { g_main_loop_quit(loop); })) {
    g_main_loop_unref(loop);
    return 1;
  }
  GSourceFuncs functions{};
  functions.prepare = prepare;
  functions.check = check;
  functions.dispatch = dispatch;
  GSource* source = g_source_new(&functions, sizeof(PluginSource));
  from(source)->service = &service;
  from(source)->hub = g_source_add_unix_fd(source, service.plugin().descriptor(), G_IO_IN);
  g_source_set_can_recurse(source, TRUE);  // a handler may run a dialog
  g_source_attach(source, nullptr);
  const guint timer = g_timeout_add(DigestService::kBeat, beat, &service);

  g_main_loop_run(loop);
  g_source_remove(timer);
  g_source_destroy(source);
  g_source_unref(source);
  g_main_loop_unref(loop);
  return service.finish();
}
