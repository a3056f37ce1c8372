// A widget process of the host's own.

#ifndef HOST_WIDGET_PROCESS_H_
#define HOST_WIDGET_PROCESS_H_

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"

#include "host/connector.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace orvane::host {

struct WidgetProcessOptions {
  // The program, a path or a name that is looked for in $PATH, and its
  // arguments. `--descriptor 3` is added to them: the program's server adopts
  // that descriptor (see SocketServer::Adopt).
  std::vector<std::string> command;

  // The time between the end of a process and the start of the next one. It
  // doubles from the first to the last, and begins anew once a process has run
  // for longer than the last. A last that is shorter than the first counts as
  // the first.
  absl::Duration first_pause = absl::Milliseconds(250);
  absl::Duration last_pause = absl::Seconds(30);
};

enum class WidgetProcessState {
  kRunning,  // Connections can be made; they wait until the widget takes them.
  kPausing,  // It has ended, and is started again after a pause.
  kEnding,   // It has been told to end.
  kEnded,    // It is not started again.
};

// Runs a widget and starts it again whenever it ends. The widget can be reached
// through this object only: over a socket that it inherits, and no path on
// disk. If the host dies, the widget sees the end of that socket and ends too,
// unless it hangs.
//
// The process has a group of its own, so that Ctrl+C at the host's terminal is
// for the host, which ends the widget in order; no standard input, and the
// host's output, error output, environment and current folder.
//
// Thread: the service thread of the loop. Lifetime: the loop outlives the
// process; its destruction, which may happen in a handler, kills the widget and
// waits for that.
class WidgetProcess {
 public:
  // Runs after each change of the state. `why` tells in words how a process has
  // ended, or why none could be started; OK if neither has happened.
  using OnState =
      std::function<void(WidgetProcessState state, const absl::Status& why)>;

  // Fails if the program cannot be started now, for example since there is
  // none. `on_state` does not run before this has returned.
  static absl::StatusOr<std::unique_ptr<WidgetProcess>> Start(
      EventLoop* loop, WidgetProcessOptions options,
      OnState on_state = nullptr);

  WidgetProcess(const WidgetProcess&) = delete;
  WidgetProcess& operator=(const WidgetProcess&) = delete;
  ~WidgetProcess();

  // A new connection to the widget, also to one that has only just been
  // started. kUnavailable in the other states.
  absl::StatusOr<std::unique_ptr<SocketClient>> Connect(
      ClientOptions options = {});

  // For View and Page. This object outlives what it is passed to.
  Connector connector() {
    return [this] { return Connect(); };
  }

  // Kills the widget, such as one that hangs, and starts it again at once. Ends
  // a pause. Has no effect after Stop.
  void Restart();

  // Ends the widget with SIGTERM and, if that takes longer than `within`, with
  // SIGKILL; then runs `done` as a task, unless this object is destroyed
  // before. The widget's connections may be closed before or after. A second
  // call does nothing.
  void Stop(absl::Duration within, Task done);

  WidgetProcessState state() const { return state_; }

  // Of the process, as long as it runs; otherwise 0.
  pid_t pid() const { return running_.has_value() ? running_->pid : 0; }

 private:
  struct Running {
    pid_t pid;
    OwnedDescriptor channel;
    std::unique_ptr<EventLoop::Watch> process;
    absl::Time begun;
  };

  WidgetProcess(EventLoop* loop, WidgetProcessOptions options,
                OnState on_state);

  absl::Status Spawn();
  void Signal(int number);
  void Kill();
  void OnEnd();
  void Pause(const absl::Status& why);
  void StartLater();
  void SetState(WidgetProcessState state, const absl::Status& why);
  void TellStopped(Task done);

  EventLoop* const loop_;
  const WidgetProcessOptions options_;
  const std::shared_ptr<const OnState> on_state_;  // Exists while this does.
  WidgetProcessState state_ = WidgetProcessState::kRunning;
  absl::Status why_;
  std::optional<Running> running_;
  absl::Duration pause_;                     // The next one.
  std::unique_ptr<EventLoop::Timer> timer_;  // Starts it, or kills it.
  Task stopped_;
};

}  // namespace orvane::host

#endif  // HOST_WIDGET_PROCESS_H_
