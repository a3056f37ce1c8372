// An event loop inside GLib's main loop, and so GTK's.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_MAIN_LOOPS_GLIB_SOURCE_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_MAIN_LOOPS_GLIB_SOURCE_H_

#include <glib.h>

#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace orvane {

// Runs an event loop as a source of a GMainContext. The thread that iterates
// the context is the loop's service thread.
//
// A handler of the loop must not iterate the context, for example by showing a
// modal dialog: the loop does nothing until the handler returns. Show dialogs
// asynchronously.
//
// Thread: the one that iterates the context. Lifetime: the loop outlives it.
class GlibSource {
 public:
  // If `context` is null, the default one is used. After `max_time` of work,
  // other sources of this and of higher priorities have their turn. So a flood
  // of events neither keeps GDK from drawing nor, with the default, functions
  // that were added by g_idle_add from running.
  explicit GlibSource(EventLoop* loop, GMainContext* context = nullptr,
                      int priority = G_PRIORITY_DEFAULT_IDLE,
                      absl::Duration max_time = absl::Milliseconds(2))
      : source_(g_source_new(&kFunctions, sizeof(Source))) {
    auto* const source = reinterpret_cast<Source*>(source_);
    source->loop = loop;
    source->max_time = max_time;
    g_source_set_name(source_, "orvane");
    g_source_set_priority(source_, priority);
    g_source_add_unix_fd(source_, loop->descriptor(), G_IO_IN);
    g_source_attach(source_, context);
  }
  GlibSource(const GlibSource&) = delete;
  GlibSource& operator=(const GlibSource&) = delete;

  // Afterwards the GMainContext does not run the loop any more.
  ~GlibSource() {
    g_source_destroy(source_);
    g_source_unref(source_);
  }

 private:
  // What GLib allocates for the source.
  struct Source {
    GSource base;
    EventLoop* loop;
    absl::Duration max_time;
  };

  static gboolean Dispatch(GSource* base, GSourceFunc, gpointer) {
    const auto* const source = reinterpret_cast<Source*>(base);
    source->loop->RunReady(source->max_time);
    return G_SOURCE_CONTINUE;
  }

  // Without functions to prepare and check, GLib runs the source when its
  // descriptor is ready.
  static inline GSourceFuncs kFunctions = {nullptr, nullptr, &Dispatch,
                                           nullptr, nullptr, nullptr};

  GSource* const source_;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_MAIN_LOOPS_GLIB_SOURCE_H_
