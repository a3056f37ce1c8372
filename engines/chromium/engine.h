// The engine, as long as the program runs: started, watched, started again.

#ifndef ENGINES_CHROMIUM_ENGINE_H_
#define ENGINES_CHROMIUM_ENGINE_H_

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "absl/time/time.h"

#include "engines/chromium/engine_pipe.h"
#include "engines/chromium/engine_process.h"
#include "engines/chromium/json.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace chromium {

// Where a page lives in the engine, until the engine ends.
struct Target {
  std::string id;  // Of its main frame too.
  std::string session;
  int window = 0;
  std::string screen;   // Its own, on which no other page's window lies.
  int screen_left = 0;  // Where that lies, in DIPs.
};

struct LaunchedEngine {
  std::unique_ptr<EngineProcess> process;  // Null if a test plays the engine.
  orvane::OwnedDescriptor pipe;
};

// Starts the system's engine.
absl::StatusOr<LaunchedEngine> LaunchEngine(orvane::EventLoop* loop,
                                            const EngineCommand& command);

// Runs one engine for all pages. If it ends, or does not answer for so long
// that it must be stuck, a new one is started after a second, or later if it
// keeps ending, and every page is opened again.
//
// Thread: the service thread.
class Engine {
 public:
  using Launch = std::function<absl::StatusOr<LaunchedEngine>()>;

  // A page, as the engine sees it.
  class Client {
   public:
    virtual ~Client() = default;

    // The engine has a hidden, blank target for the page, of which it knows
    // nothing else yet.
    virtual void OnTarget(const Target& target) = 0;

    // Of the target's session or one that was added below it.
    virtual void OnEvent(EngineEvent event) = 0;

    // The target is gone. A new one follows.
    virtual void OnTargetLost() = 0;
  };

  // What pages download goes into the folder `downloads`, if there is one. An
  // engine that has not answered for `patience` is stuck.
  Engine(orvane::EventLoop* loop, Launch launch, std::string downloads = "",
         absl::Duration patience = absl::Seconds(30));
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;
  ~Engine();

  // Starts the engine and runs the loop until every client has a target. Fails
  // in words if it comes to nothing, as with an engine that lacks a command;
  // then it is not started again. kCancelled if the loop was stopped meanwhile.
  absl::Status Start();

  // Lets the engine write what it has not written yet, and end by itself,
  // within that time. Then runs `done`.
  void Shutdown(absl::Duration within, orvane::Task done);

  // From here on the client has a target whenever there is an engine. Both may
  // be called at any time; a client is removed before it is destroyed.
  void Add(Client* client);
  void Remove(Client* client);

  // Closes the client's target, whatever its page does. Another one follows.
  void Replace(Client* client);

  // Events of this session too are for that client, until the session is
  // removed or the engine ends.
  void AddSession(const std::string& session, Client* client);
  void RemoveSession(const std::string& session);

  // As EnginePipe::Call; kUnavailable while there is no engine.
  void Call(absl::string_view session, absl::string_view method,
            Json params = Json::object(),
            orvane::OnAnswer<Json> on_answer = nullptr,
            orvane::CallOptions options = {.timeout = absl::Seconds(10)});

 private:
  enum class State { kDown, kStarting, kUp, kShuttingDown };

  struct Place {
    Client* client;
    Target target;  // Its parts are empty until the engine has told them.
  };

  absl::Status Begin();
  void OnUp(const std::string& product);
  void CheckHasStarted();
  void AskWhetherItLives();
  void OnEvent(EngineEvent event);
  void OnEnd(const absl::Status& why);

  // The steps of making a target, each begun by the reply to the one before.
  void OpenTarget(Client* client);
  void AttachToTarget(Client* client);
  void FindWindow(Client* client);
  void MakeScreen(Client* client);

  // Runs a step's command. A failure ends the engine, since a page without a
  // target would never come back.
  void Step(Client* client, const std::string& method, Json params,
            std::function<void(Place& place, const Json& result)> then);
  Place* FindPlace(Client* client);

  orvane::EventLoop* const loop_;
  const Launch launch_;
  const std::string downloads_;
  const absl::Duration patience_;
  State state_ = State::kDown;
  bool has_started_ = false;
  std::unique_ptr<EngineProcess> process_;
  std::unique_ptr<EnginePipe> pipe_;
  absl::Status last_end_;
  absl::Duration delay_;
  absl::Time up_since_ = absl::InfiniteFuture();
  std::unique_ptr<orvane::EventLoop::Timer> timer_;
  orvane::Task on_shut_down_;

  std::vector<std::unique_ptr<Place>> places_;  // In the order of Add.
  std::map<std::string, Client*, std::less<>> sessions_;
};

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_ENGINE_H_
