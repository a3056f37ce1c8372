// An event loop inside Qt's.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_MAIN_LOOPS_QT_NOTIFIER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_MAIN_LOOPS_QT_NOTIFIER_H_

#include <QObject>
#include <QPointer>
#include <QSocketNotifier>

#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace orvane {

// Runs an event loop inside Qt's event loop of the thread that creates this
// object, which is the loop's service thread. That thread needs an application
// or a QEventLoop, as for any QSocketNotifier.
//
// A handler of the loop must not call exec(), for example to show a modal
// dialog: the loop does nothing until the handler returns. Show dialogs with
// open().
//
// A loop has one of these at a time. Thread: the one that created it. Lifetime:
// the loop outlives it.
class QtNotifier {
 public:
  // After `max_time` of work, other events have their turn.
  explicit QtNotifier(EventLoop* loop,
                      absl::Duration max_time = absl::Milliseconds(2))
      : notifier_(loop->descriptor(), QSocketNotifier::Read) {
    QObject::connect(&notifier_, &QSocketNotifier::activated,
                     [this, loop, max_time] { Run(loop, max_time); });
  }

 private:
  void Run(EventLoop* loop, absl::Duration max_time) {
    // A task may destroy this object.
    const QPointer<QSocketNotifier> notifier = &notifier_;
    // Otherwise what arrives meanwhile would run inside a handler that calls
    // exec(), or keep Qt busy.
    notifier_.setEnabled(false);
    loop->RunReady(max_time);
    if (!notifier.isNull()) notifier->setEnabled(true);
  }

  QSocketNotifier notifier_;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_MAIN_LOOPS_QT_NOTIFIER_H_
