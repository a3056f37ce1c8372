#include "engines/chromium/engine.h"

#include <algorithm>
#include <utility>

#include "absl/log/log.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"

#include "zimbrel/src/core/common/rpc/printable.h"

namespace chromium {
namespace {

constexpr absl::Duration kTimeToStart = absl::Seconds(20);
constexpr absl::Duration kFirstDelay = absl::Seconds(1);
constexpr absl::Duration kLongestDelay = absl::Minutes(1);
// An engine that was up for so long did not fail at once.
constexpr absl::Duration kLongEnough = absl::Minutes(1);

// How far the screens of two pages are apart. No window reaches another's.
constexpr int kScreenStep = 32768;

}  // namespace

absl::StatusOr<LaunchedEngine> LaunchEngine(orvane::EventLoop* loop,
                                            const EngineCommand& command) {
  auto process = EngineProcess::Start(loop, command);
  if (!process.ok()) return process.status();
  orvane::OwnedDescriptor pipe = (*process)->TakePipe();
  return LaunchedEngine{*std::move(process), std::move(pipe)};
}

Engine::Engine(orvane::EventLoop* loop, Launch launch, std::string downloads,
               absl::Duration patience)
    : loop_(loop),
      launch_(std::move(launch)),
      downloads_(std::move(downloads)),
      patience_(patience),
      delay_(kFirstDelay) {}

Engine::~Engine() = default;

absl::Status Engine::Start() {
  if (absl::Status status = Begin(); !status.ok()) return status;
  if (!loop_->RunUntil(
          [this] { return has_started_ || state_ == State::kDown; })) {
    return absl::CancelledError("the loop was stopped");
  }
  return has_started_ ? absl::OkStatus() : last_end_;
}

void Engine::CheckHasStarted() {
  has_started_ =
      has_started_ ||
      std::all_of(places_.begin(), places_.end(), [](const auto& place) {
        return !place->target.screen.empty();
      });
}

absl::Status Engine::Begin() {
  absl::StatusOr<LaunchedEngine> launched = launch_();
  if (!launched.ok()) return launched.status();
  process_ = std::move(launched->process);
  auto pipe = EnginePipe::Open(
      loop_, std::move(launched->pipe),
      [this](EngineEvent event) { OnEvent(std::move(event)); },
      [this](const absl::Status& why) { OnEnd(why); });
  if (!pipe.ok()) return pipe.status();
  pipe_ = *std::move(pipe);
  state_ = State::kStarting;
  pipe_->Call("", "Browser.getVersion", Json::object(),
              [this](const absl::StatusOr<Json>& version) {
                if (state_ != State::kStarting) return;
                if (version.ok()) {
                  OnUp(Text(*version, "product"));
                } else if (!absl::IsUnavailable(version.status())) {
                  OnEnd(version.status());
                }  // Else the pipe has ended and says so next.
              },
              {.timeout = kTimeToStart});
  return absl::OkStatus();
}

void Engine::OnUp(const std::string& product) {
  LOG(INFO) << "the engine is up: " << orvane::Printable(product);
  state_ = State::kUp;
  up_since_ = absl::Now();
  Call("", "Target.setDiscoverTargets",
       {{"discover", true}, {"filter", {{{"type", "page"}}}}});
  if (!downloads_.empty()) {
    Call("", "Browser.setDownloadBehavior",
         {{"behavior", "allowAndName"},
          {"downloadPath", downloads_},
          {"eventsEnabled", true}});
  }
  for (const auto& place : places_) OpenTarget(place->client);
  CheckHasStarted();
  timer_ = loop_->RunAfter(patience_, [this] { AskWhetherItLives(); });
}

void Engine::AskWhetherItLives() {
  Call("", "Browser.getVersion", Json::object(),
       [this](const absl::StatusOr<Json>& version) {
         if (state_ != State::kUp) return;
         if (absl::IsDeadlineExceeded(version.status())) {
           OnEnd(absl::DeadlineExceededError("the engine does not answer"));
         } else {
           timer_ = loop_->RunAfter(patience_, [this] { AskWhetherItLives(); });
         }
       },
       {.timeout = patience_});
}

void Engine::OnEnd(const absl::Status& why) {
  if (state_ == State::kDown) return;
  const bool is_wanted = state_ == State::kShuttingDown;
  const bool was_up = state_ == State::kUp;
  if (!is_wanted) state_ = State::kDown;
  sessions_.clear();
  pipe_.reset();  // Before the wait for the end, which follows from it.
  last_end_ = process_ == nullptr
                  ? why
                  : absl::UnavailableError(
                        absl::StrCat(why.message(), "; it ", process_->End()));
  process_.reset();
  if (is_wanted) {
    timer_.reset();
    std::exchange(on_shut_down_, nullptr)();
    return;
  }
  if (!has_started_) return;  // Start() tells why.
  if (was_up && absl::Now() - up_since_ > kLongEnough) delay_ = kFirstDelay;
  LOG(WARNING) << last_end_.message() << "; a new engine starts in " << delay_;
  timer_ = loop_->RunAfter(delay_, [this] {
    if (absl::Status status = Begin(); !status.ok()) {
      state_ = State::kStarting;
      OnEnd(status);
    }
  });
  delay_ = std::min(2 * delay_, kLongestDelay);
  for (const auto& place : places_) {
    const bool had_target = !place->target.screen.empty();
    place->target = Target();
    if (had_target) place->client->OnTargetLost();
  }
}

void Engine::Shutdown(absl::Duration within, orvane::Task done) {
  if (pipe_ == nullptr) {
    timer_.reset();
    loop_->Post(std::move(done));
    return;
  }
  state_ = State::kShuttingDown;
  on_shut_down_ = std::move(done);
  pipe_->Call("", "Browser.close", Json::object());
  timer_ = loop_->RunAfter(within, [this] {
    OnEnd(absl::DeadlineExceededError("the engine does not end by itself"));
  });
}

void Engine::Add(Client* client) {
  places_.push_back(std::make_unique<Place>(Place{client, {}}));
  if (state_ == State::kUp) OpenTarget(client);
}

void Engine::Remove(Client* client) {
  std::erase_if(sessions_,
                [&](const auto& entry) { return entry.second == client; });
  const auto found =
      std::find_if(places_.begin(), places_.end(),
                   [&](const auto& place) { return place->client == client; });
  if (found == places_.end()) return;
  if (!(*found)->target.id.empty())
    Call("", "Target.closeTarget", {{"targetId", (*found)->target.id}});
  places_.erase(found);
}

void Engine::Replace(Client* client) {
  const Place* const place = FindPlace(client);
  if (place == nullptr || place->target.id.empty()) return;
  Call("", "Target.closeTarget", {{"targetId", place->target.id}});
}

void Engine::AddSession(const std::string& session, Client* client) {
  sessions_[session] = client;
}

void Engine::RemoveSession(const std::string& session) {
  sessions_.erase(session);
}

void Engine::Call(absl::string_view session, absl::string_view method,
                  Json params, orvane::OnAnswer<Json> on_answer,
                  orvane::CallOptions options) {
  if (state_ == State::kUp) {
    pipe_->Call(session, method, std::move(params), std::move(on_answer),
                options);
  } else if (on_answer) {
    loop_->Post([on_answer = std::move(on_answer)]() mutable {
      std::move(on_answer)(absl::UnavailableError("there is no engine now"));
    });
  }
}

void Engine::OnEvent(EngineEvent event) {
  if (state_ != State::kUp) return;
  if (!event.session.empty()) {
    const auto found = sessions_.find(event.session);
    if (found != sessions_.end()) found->second->OnEvent(std::move(event));
    return;
  }
  if (event.method != "Target.targetDestroyed") return;
  for (const auto& place : places_) {
    if (place->target.id != Text(event.params, "targetId")) continue;
    // The page has closed its window. It gets another one.
    Client* const client = place->client;
    std::erase_if(sessions_,
                  [&](const auto& entry) { return entry.second == client; });
    const bool had_target = !place->target.screen.empty();
    if (place->target.screen_left != 0) {
      Call("", "Emulation.removeScreen", {{"screenId", place->target.screen}});
    }
    place->target = Target();
    if (had_target) client->OnTargetLost();
    OpenTarget(client);
    return;
  }
}

Engine::Place* Engine::FindPlace(Client* client) {
  const auto found =
      std::find_if(places_.begin(), places_.end(),
                   [&](const auto& place) { return place->client == client; });
  return found == places_.end() ? nullptr : found->get();
}

void Engine::Step(Client* client, const std::string& method, Json params,
                  std::function<void(Place& place, const Json& result)> then) {
  const Place* const caller = FindPlace(client);
  if (caller == nullptr) return;
  Call(caller->target.session, method, std::move(params),
       [this, client, then](const absl::StatusOr<Json>& result) {
         Place* const place = FindPlace(client);
         if (place == nullptr || absl::IsUnavailable(result.status())) return;
         if (result.ok()) {
           then(*place, *result);
         } else {
           OnEnd(result.status());
         }
       });
}

void Engine::OpenTarget(Client* client) {
  Step(client, "Target.createTarget",
       {{"url", "about:blank"},
        {"width", 800},
        {"height", 600},
        {"windowState", "minimized"}},
       [this](Place& place, const Json& result) {
         place.target.id = Text(result, "targetId");
         AttachToTarget(place.client);
       });
}

void Engine::AttachToTarget(Client* client) {
  Step(client, "Target.attachToTarget",
       {{"targetId", FindPlace(client)->target.id}, {"flatten", true}},
       [this](Place& place, const Json& result) {
         place.target.session = Text(result, "sessionId");
         sessions_[place.target.session] = place.client;
         FindWindow(place.client);
       });
}

void Engine::FindWindow(Client* client) {
  Step(client, "Browser.getWindowForTarget", Json::object(),
       [this](Place& place, const Json& result) {
         place.target.window = static_cast<int>(Number(result, "windowId"));
         MakeScreen(place.client);
       });
}

void Engine::MakeScreen(Client* client) {
  // The page sets the size later.
  const auto found =
      std::find_if(places_.begin(), places_.end(),
                   [&](const auto& place) { return place->client == client; });
  const int left = kScreenStep * static_cast<int>(found - places_.begin());
  const auto take = [this](Place& place, const Json& screen) {
    place.target.screen = Text(screen, "id");
    place.client->OnTarget(place.target);
    CheckHasStarted();
  };
  if (left == 0) {
    Step(client, "Emulation.getScreenInfos", Json::object(),
         [take](Place& place, const Json& result) {
           const auto& screens = List(result, "screenInfos");
           take(place, screens.empty() ? Json() : screens.front());
         });
    return;
  }
  (*found)->target.screen_left = left;
  Step(client, "Emulation.addScreen",
       {{"left", left}, {"top", 0}, {"width", 800}, {"height", 600}},
       [take](Place& place, const Json& result) {
         take(place, Member(result, "screenInfo"));
       });
}

}  // namespace chromium
