#include <QCoreApplication>
#include <optional>
#include <utility>

#include "benchmarks/transport/main_loop.h"
#include "zimbrel/src/core/common/rpc/main_loops/qt_notifier.h"

namespace benchmarks {
namespace {

class QtMainLoop final : public MainLoop {
 public:
  explicit QtMainLoop(orvane::EventLoop* loop) {
    if (loop != nullptr) notifier_.emplace(loop);
  }
  void Run() override { QCoreApplication::exec(); }
  void Quit() override { QCoreApplication::quit(); }
  void Post(std::function<void()> task) override {
    QMetaObject::invokeMethod(&application_, std::move(task),
                              Qt::QueuedConnection);
  }

 private:
  int argument_count_ = 1;
  char name_[5] = "host";
  char* arguments_[2] = {name_, nullptr};
  QCoreApplication application_{argument_count_, arguments_};
  std::optional<orvane::QtNotifier> notifier_;
};

}  // namespace

std::unique_ptr<MainLoop> MakeMainLoop(orvane::EventLoop* loop) {
  return std::make_unique<QtMainLoop>(loop);
}

}  // namespace benchmarks
