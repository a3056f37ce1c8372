#include <optional>
#include <utility>

#include "benchmarks/transport/main_loop.h"
#include "zimbrel/src/core/common/rpc/main_loops/glib_source.h"

namespace benchmarks {
namespace {

class GlibMainLoop final : public MainLoop {
 public:
  explicit GlibMainLoop(orvane::EventLoop* loop) {
    if (loop != nullptr) source_.emplace(loop);
  }
  ~GlibMainLoop() override { g_main_loop_unref(main_loop_); }

  void Run() override { g_main_loop_run(main_loop_); }
  void Quit() override { g_main_loop_quit(main_loop_); }
  void Post(std::function<void()> task) override {
    g_idle_add_full(
        G_PRIORITY_DEFAULT_IDLE,
        [](gpointer data) -> gboolean {
          (*static_cast<std::function<void()>*>(data))();
          return G_SOURCE_REMOVE;
        },
        new std::function<void()>(std::move(task)),
        [](gpointer data) {
          delete static_cast<std::function<void()>*>(data);
        });
  }

 private:
  GMainLoop* const main_loop_ = g_main_loop_new(nullptr, FALSE);
  std::optional<orvane::GlibSource> source_;
};

}  // namespace

std::unique_ptr<MainLoop> MakeMainLoop(orvane::EventLoop* loop) {
  return std::make_unique<GlibMainLoop>(loop);
}

}  // namespace benchmarks
