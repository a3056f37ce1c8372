// The engine's debugging pipe: commands to the engine, its replies and events.

#ifndef ENGINES_CHROMIUM_ENGINE_PIPE_H_
#define ENGINES_CHROMIUM_ENGINE_PIPE_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "absl/functional/any_invocable.h"
#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "absl/time/time.h"

#include "engines/chromium/json.h"
#include "zimbrel/src/core/common/rpc/calling.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace chromium {

struct PipeLimits {
  // Of a message with a picture. A longer one ends the pipe. The largest
  // picture that is asked for takes 180 MiB at worst.
  std::size_t max_picture_bytes = std::size_t{256} << 20;

  // Of any other message from the engine, which a page can make as long as it
  // likes. A longer one is cut: an event has no parameters then, a reply no
  // result.
  std::size_t max_message_bytes = std::size_t{16} << 20;

  // Waiting to be read by the engine. A command that does not fit fails.
  std::size_t max_unsent_bytes = std::size_t{64} << 20;

  // Commands that wait for a reply. One more fails.
  std::size_t max_waiting = 40'000;
};

// What the engine tells without being asked.
struct EngineEvent {
  std::string session;  // Empty if it is about the engine as a whole.
  std::string method;   // "Page.loadEventFired"
  Json params;

  // The picture of a Page.screencastFrame, in base64. It is taken out of
  // `params`, since it is megabytes that need no parsing.
  std::string picture;
};

// One JSON object and a NUL byte make a message, in both directions.
//
// What cannot be read is logged and dropped: pages decide what is in some of
// it. Other messages are handed out in the order of their arrival.
//
// Thread: the service thread. Destroying the pipe, which its callbacks may do,
// closes the descriptor and drops continuations unrun.
class EnginePipe {
 public:
  using OnEvent = std::function<void(EngineEvent event)>;
  using OnEnd = absl::AnyInvocable<void(absl::Status why) &&>;

  // `socket` is connected to the engine. `on_end` runs once, after the
  // continuation of every command that has no reply, when the engine has closed
  // the pipe or sends a picture that is too long.
  static absl::StatusOr<std::unique_ptr<EnginePipe>> Open(
      orvane::EventLoop* loop, orvane::OwnedDescriptor socket, OnEvent on_event,
      OnEnd on_end, PipeLimits limits = {});

  EnginePipe(const EnginePipe&) = delete;
  EnginePipe& operator=(const EnginePipe&) = delete;
  ~EnginePipe();

  // Sends a command, to a session or, if that is empty, to the engine as a
  // whole. Without a continuation the reply is dropped, and an error in it is
  // logged.
  //
  //   what happens                        | what the continuation gets
  //   ------------------------------------+------------------------------------
  //   the engine replies                  | the result, an object
  //   it does not know the command        | kUnimplemented
  //   it does not know the session        | kNotFound
  //   it refuses the parameters           | kInvalidArgument
  //   it replies with another error       | kInternal
  //   the reply cannot be read, or is cut | kDataLoss
  //   `options.timeout` passes            | kDeadlineExceeded
  //   a limit is reached                  | kResourceExhausted
  //   the engine has closed the pipe      | kUnavailable
  void Call(absl::string_view session, absl::string_view method, Json params,
            orvane::OnAnswer<Json> on_answer = nullptr,
            orvane::CallOptions options = {.timeout = absl::Seconds(10)});

 private:
  struct Waiting {
    std::string method;
    orvane::OnAnswer<Json> on_answer;
    std::unique_ptr<orvane::EventLoop::Timer> timer;
  };

  EnginePipe(orvane::EventLoop* loop,
             std::unique_ptr<orvane::EventLoop::Watch> watch, OnEvent on_event,
             OnEnd on_end, PipeLimits limits);

  void Read();
  // Both return false if there is nothing more to be read: the pipe has ended,
  // or a callback has destroyed it.
  bool TakeBytes(absl::string_view bytes);
  bool TakeMessage(std::string message);
  void CutMessage();

  void TakeReply(const Json& message);
  void Answer(std::int32_t id, absl::StatusOr<Json> answer);
  void Write();
  void End(absl::Status why);

  // Posts a task that does not run if the pipe is gone by then.
  void Post(absl::AnyInvocable<void() &&> task);

  orvane::EventLoop* const loop_;
  const PipeLimits limits_;
  const std::shared_ptr<const OnEvent> on_event_;
  OnEnd on_end_;
  std::unique_ptr<orvane::EventLoop::Watch> watch_;  // Null after the end.
  absl::Status end_;                                 // Not OK after the end.

  std::string unread_;  // The beginning of a message.
  std::string cut_;     // Of one that is too long; unread_ has its end then.
  std::deque<std::string> unsent_;  // Each with its NUL.
  std::size_t sent_of_first_ = 0;
  std::size_t unsent_bytes_ = 0;
  bool is_waiting_to_write_ = false;

  std::int32_t last_id_ = 0;
  std::map<std::int32_t, Waiting> waiting_;  // By the id of the command.
  const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_ENGINE_PIPE_H_
