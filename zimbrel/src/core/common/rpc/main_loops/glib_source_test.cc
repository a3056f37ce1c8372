#include "zimbrel/src/core/common/rpc/main_loops/glib_source.h"

#include <functional>
#include <memory>
#include <utility>

#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/main_loops/main_loop_test.h"

namespace orvane {
namespace {

// GDK draws with this priority.
constexpr int kRedraw = G_PRIORITY_HIGH_IDLE + 20;

class Glib {
 public:
  explicit Glib(EventLoop* loop) : source_(loop) {}
  ~Glib() {
    if (timer_ != 0) g_source_remove(timer_);
  }

  void RunUntil(const std::function<bool()>& done) {
    while (!done()) g_main_context_iteration(nullptr, TRUE);
  }

  void Every(int milliseconds, std::function<void()> tick) {
    tick_ = std::move(tick);
    timer_ = g_timeout_add_full(
        kRedraw, static_cast<guint>(milliseconds),
        [](gpointer self) -> gboolean {
          static_cast<Glib*>(self)->tick_();
          return G_SOURCE_CONTINUE;
        },
        this, nullptr);
  }

 private:
  GlibSource source_;
  std::function<void()> tick_;
  guint timer_ = 0;
};

INSTANTIATE_TYPED_TEST_SUITE_P(Glib, MainLoopTest, Glib);

// The task's own source sleeps meanwhile, but the loop does not.
TEST(GlibSource, LetsATaskIterateTheContextWhoseTimerRunsTheLoop) {
  EventLoop loop;
  const GlibSource source(&loop);
  struct Nesting {
    EventLoop* loop;
    bool ran = false;
    bool seen = false;
  } nesting{&loop};
  bool is_over = false;
  loop.Post([&] {
    g_timeout_add(
        1,
        [](gpointer data) -> gboolean {
          auto* const inner = static_cast<Nesting*>(data);
          inner->loop->Post([inner] { inner->ran = true; });
          inner->seen = inner->loop->RunUntil([inner] { return inner->ran; });
          return G_SOURCE_REMOVE;
        },
        &nesting);
    while (!nesting.seen) g_main_context_iteration(nullptr, TRUE);
    is_over = true;
  });
  while (!is_over) g_main_context_iteration(nullptr, TRUE);
  EXPECT_TRUE(nesting.ran);
}

TEST(GlibSource, RunsInAContextOfItsOwn) {
  GMainContext* const context = g_main_context_new();
  {
    EventLoop loop;
    const GlibSource source(&loop, context);
    bool ran = false;
    loop.Post([&ran] { ran = true; });
    EXPECT_FALSE(g_main_context_iteration(nullptr, FALSE));
    EXPECT_FALSE(ran);
    while (!ran) g_main_context_iteration(context, TRUE);
  }
  g_main_context_unref(context);
}

TEST(GlibSource, LetsIdleFunctionsRunBesideATaskThatPostsItself) {
  EventLoop loop;
  Glib glib(&loop);
  std::function<void()> flood = [&] { loop.Post([&flood] { flood(); }); };
  flood();
  bool ran = false;
  g_idle_add(
      [](gpointer data) -> gboolean {
        *static_cast<bool*>(data) = true;
        return G_SOURCE_REMOVE;
      },
      &ran);
  glib.RunUntil([&ran] { return ran; });
}

TEST(GlibSource, DestroyedItRunsNothingMore) {
  EventLoop loop;
  bool ran = false;
  {
    const GlibSource source(&loop);
    loop.Post([&ran] { ran = true; });
  }
  EXPECT_FALSE(g_main_context_iteration(nullptr, FALSE));
  EXPECT_FALSE(ran);
}

TEST(GlibSource, IsQuietWhenThereIsNothingToDo) {
  EventLoop loop;
  const GlibSource source(&loop);
  loop.Post([] {});
  while (g_main_context_iteration(nullptr, FALSE) == TRUE) {
  }
  EXPECT_FALSE(g_main_context_pending(nullptr));
}

}  // namespace
}  // namespace orvane
