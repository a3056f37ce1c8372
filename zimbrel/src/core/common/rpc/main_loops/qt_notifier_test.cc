#include "zimbrel/src/core/common/rpc/main_loops/qt_notifier.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <functional>
#include <memory>
#include <utility>

#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/main_loops/main_loop_test.h"

namespace orvane {
namespace {

class Qt6 {
 public:
  explicit Qt6(EventLoop* loop) : notifier_(loop) {}

  void RunUntil(const std::function<bool()>& done) {
    while (!done())
      QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
  }

  void Every(int milliseconds, std::function<void()> tick) {
    QObject::connect(&timer_, &QTimer::timeout, std::move(tick));
    timer_.start(milliseconds);
  }

 private:
  // Each test may have an application of its own, and needs one.
  int argument_count_ = 1;
  char name_[5] = "test";
  char* arguments_[2] = {name_, nullptr};
  QCoreApplication application_{argument_count_, arguments_};
  QtNotifier notifier_;
  QTimer timer_;
};

INSTANTIATE_TYPED_TEST_SUITE_P(Qt6, MainLoopTest, Qt6);

TEST(QtNotifier, RunsNothingInsideATaskThatRunsQtsLoop) {
  EventLoop loop;
  Qt6 qt(&loop);
  bool ran_inside = true;
  bool ran = false;
  loop.Post([&] {
    const auto timer = loop.RunAfter(absl::ZeroDuration(), [] {});
    loop.Post([&ran] { ran = true; });
    // With an end, since without work Qt would wait for ever.
    QEventLoop dialog;
    QTimer::singleShot(10, &dialog, &QEventLoop::quit);
    dialog.exec();
    ran_inside = ran;
  });
  qt.RunUntil([&ran] { return ran; });
  EXPECT_FALSE(ran_inside);
}

TEST(QtNotifier, MayBeDestroyedByATaskOfTheLoop) {
  EventLoop loop;
  Qt6 qt(&loop);
  auto other = std::make_unique<EventLoop>();
  auto notifier = std::make_unique<QtNotifier>(other.get());
  other->Post([&notifier] { notifier.reset(); });
  qt.RunUntil([&notifier] { return notifier == nullptr; });
}

}  // namespace
}  // namespace orvane
