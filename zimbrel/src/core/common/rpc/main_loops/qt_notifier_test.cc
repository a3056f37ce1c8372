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

}  // namespace
}  // namespace orvane
