#include "engines/chromium/engine_pipe.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "absl/log/log.h"
#include "absl/strings/match.h"
#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"
#include "absl/strings/strip.h"

#include "zimbrel/src/core/common/rpc/printable.h"

namespace chromium {
namespace {

constexpr std::size_t kReadBytes = std::size_t{64} << 10;

// How much is logged of what the engine says.
constexpr std::size_t kLoggedBytes = 200;

// A page can write any number of these, and nobody reads them.
constexpr absl::string_view kConsole =
    R"({"method":"Runtime.consoleAPICalled")";

constexpr absl::string_view kPicture =
    R"({"method":"Page.screencastFrame","params":{"data":")";

constexpr absl::string_view kReply = R"({"id":)";
constexpr absl::string_view kEvent = R"({"method":")";
constexpr absl::string_view kSession = R"(,"sessionId":")";

// What is kept of the beginning and of the end of a message that is too long:
// enough for what is beside its parameters.
constexpr std::size_t kKeptBytes = 512;

// Moves the base64 text out of the message of a picture, which stays JSON.
std::string TakePicture(std::string* message) {
  if (!absl::StartsWith(*message, kPicture)) return "";
  const std::size_t end = message->find('"', kPicture.size());
  if (end == std::string::npos) return "";
  std::string picture = message->substr(kPicture.size(), end - kPicture.size());
  message->erase(kPicture.size(), picture.size());
  return picture;
}

// The id in the first bytes of a reply that is not JSON as a whole.
std::optional<std::int32_t> FindId(absl::string_view message) {
  if (!absl::StartsWith(message, kReply)) return std::nullopt;
  message.remove_prefix(kReply.size());
  std::int32_t id = 0;
  if (!absl::SimpleAtoi(message.substr(0, message.find_first_of(",}")), &id))
    return std::nullopt;
  return id;
}

// What is known of a message by its two ends: of an event, all but its
// parameters; of a reply, the id.
std::string Join(absl::string_view begin, absl::string_view end) {
  if (!absl::ConsumePrefix(&begin, kEvent)) return std::string(begin);
  Json event = {{"method", begin.substr(0, begin.find('"'))},
                {"params", Json::object()}};
  // Text of the page's has a backslash before each quotation mark.
  if (const std::size_t session = end.rfind(kSession);
      session != absl::string_view::npos) {
    end.remove_prefix(session + kSession.size());
    event["sessionId"] = end.substr(0, end.find('"'));
  }
  return PrintJson(event);
}

absl::Status ToStatus(const std::string& method, const Json& error) {
  const std::string text = absl::StrCat(
      method, ": ", orvane::Printable(Text(error, "message"), kLoggedBytes),
      Text(error, "data").empty() ? "" : " ",
      orvane::Printable(Text(error, "data"), kLoggedBytes));
  switch (static_cast<int>(Number(error, "code"))) {
    case -32601:
      return absl::UnimplementedError(text);
    case -32602:
      return absl::InvalidArgumentError(text);
    case -32001:
      return absl::NotFoundError(text);
    default:
      return absl::InternalError(text);
  }
}

}  // namespace

absl::StatusOr<std::unique_ptr<EnginePipe>> EnginePipe::Open(
    orvane::EventLoop* loop, orvane::OwnedDescriptor socket, OnEvent on_event,
    OnEnd on_end, PipeLimits limits) {
  auto watch = loop->WatchDescriptor(std::move(socket));
  if (!watch.ok()) return watch.status();
  return std::unique_ptr<EnginePipe>(new EnginePipe(
      loop, *std::move(watch), std::move(on_event), std::move(on_end), limits));
}

EnginePipe::EnginePipe(orvane::EventLoop* loop,
                       std::unique_ptr<orvane::EventLoop::Watch> watch,
                       OnEvent on_event, OnEnd on_end, PipeLimits limits)
    : loop_(loop),
      limits_(limits),
      on_event_(std::make_shared<OnEvent>(std::move(on_event))),
      on_end_(std::move(on_end)),
      watch_(std::move(watch)) {
  Post([this] { Read(); });
}

EnginePipe::~EnginePipe() = default;

void EnginePipe::Call(absl::string_view session, absl::string_view method,
                      Json params, orvane::OnAnswer<Json> on_answer,
                      orvane::CallOptions options) {
  Json command = {
      {"id", ++last_id_}, {"method", method}, {"params", std::move(params)}};
  if (!session.empty()) command["sessionId"] = session;
  std::string message = PrintJson(command);
  message.push_back('\0');

  absl::Status refusal = end_;
  if (refusal.ok() && on_answer && waiting_.size() >= limits_.max_waiting) {
    refusal = absl::ResourceExhaustedError(
        absl::StrCat(method, ": ", waiting_.size(),
                     " commands wait for the engine's reply, the limit"));
  }
  if (refusal.ok() &&
      unsent_bytes_ + message.size() > limits_.max_unsent_bytes) {
    refusal = absl::ResourceExhaustedError(absl::StrCat(
        method, ": ", unsent_bytes_, " bytes wait for the engine, and ",
        message.size(), " more are beyond the limit of ",
        limits_.max_unsent_bytes));
  }
  if (!refusal.ok()) {
    if (!on_answer) {
      LOG_EVERY_N_SEC(WARNING, 10) << "a command is lost: " << refusal;
      return;
    }
    Post([on_answer = std::move(on_answer), refusal]() mutable {
      std::move(on_answer)(refusal);
    });
    return;
  }

  if (on_answer) {
    Waiting waiting{std::string(method), std::move(on_answer), nullptr};
    if (options.timeout < absl::InfiniteDuration()) {
      waiting.timer = loop_->RunAfter(options.timeout, [this, id = last_id_] {
        Answer(id, absl::DeadlineExceededError(
                       absl::StrCat(waiting_[id].method,
                                    ": the engine has not replied in time")));
      });
    }
    waiting_.emplace(last_id_, std::move(waiting));
  }
  unsent_bytes_ += message.size();
  unsent_.push_back(std::move(message));
  if (!is_waiting_to_write_) Write();
}

void EnginePipe::Read() {
  if (watch_ == nullptr) return;
  std::array<char, kReadBytes> bytes;
  const ssize_t count = TEMP_FAILURE_RETRY(
      ::recv(watch_->descriptor(), bytes.data(), bytes.size(), 0));
  if (count < 0 && errno == EAGAIN) {
    watch_->WhenReadable([this] { Read(); });
    return;
  }
  if (count <= 0) {
    End(absl::UnavailableError(
        count == 0
            ? "the engine has closed its pipe"
            : absl::StrCat("the engine's pipe: ", std::strerror(errno))));
    return;
  }
  const auto length = static_cast<std::size_t>(count);
  if (!TakeBytes({bytes.data(), length})) return;
  if (length < bytes.size()) {
    watch_->WhenReadable([this] { Read(); });
  } else {
    Post([this] { Read(); });  // Others have their turn first.
  }
}

bool EnginePipe::TakeBytes(absl::string_view bytes) {
  while (true) {
    const std::size_t end = bytes.find('\0');
    const absl::string_view part = bytes.substr(0, end);
    unread_.append(part.data(), part.size());
    if (unread_.size() > limits_.max_message_bytes) {
      if (!cut_.empty() || !absl::StartsWith(unread_, kPicture)) {
        CutMessage();
      } else if (unread_.size() > limits_.max_picture_bytes) {
        End(absl::ResourceExhaustedError(
            absl::StrCat("the engine sends a picture of more than ",
                         limits_.max_picture_bytes, " bytes, the limit")));
        return false;
      }
    }
    if (end == absl::string_view::npos) return true;
    bytes.remove_prefix(end + 1);
    std::string message = std::exchange(unread_, "");
    if (!cut_.empty()) message = Join(std::exchange(cut_, ""), message);
    if (!TakeMessage(std::move(message))) return false;
  }
}

// Keeps the beginning and the end of what is unread.
void EnginePipe::CutMessage() {
  if (cut_.empty()) {
    cut_ = unread_.substr(0, kKeptBytes);
    LOG_EVERY_N_SEC(WARNING, 10)
        << "a message of the engine's is longer than "
        << limits_.max_message_bytes
        << " bytes and is cut: " << orvane::Printable(cut_, kLoggedBytes);
  }
  if (unread_.size() > kKeptBytes)
    unread_.erase(0, unread_.size() - kKeptBytes);
}

bool EnginePipe::TakeMessage(std::string message) {
  if (absl::StartsWith(message, kConsole)) return true;
  std::string picture = TakePicture(&message);
  const std::weak_ptr<bool> alive = alive_;
  std::optional<Json> json = ParseJson(message);
  if (!json.has_value() || !json->is_object()) {
    LOG_EVERY_N_SEC(WARNING, 10)
        << "dropped from the engine, since it is not a JSON object: "
        << orvane::Printable(message, kLoggedBytes);
    if (const auto id = FindId(message); id.has_value())
      Answer(*id, absl::DataLossError("the engine's reply cannot be read"));
  } else if (Member(*json, "id").is_number_integer()) {
    TakeReply(*json);
  } else if (Member(*json, "method").is_string()) {
    const auto on_event = on_event_;  // It may destroy the pipe.
    (*on_event)({Text(*json, "sessionId"), Text(*json, "method"),
                 std::move((*json)["params"]), std::move(picture)});
  } else {
    LOG_EVERY_N_SEC(WARNING, 10)
        << "the engine complains: " << orvane::Printable(message, kLoggedBytes);
  }
  return !alive.expired() && watch_ != nullptr;
}

void EnginePipe::TakeReply(const Json& message) {
  const auto id = Member(message, "id").get<std::int64_t>();
  const auto found = waiting_.find(static_cast<std::int32_t>(id));
  const Json& error = Member(message, "error");
  if (found == waiting_.end() || found->first != id) {
    if (error.is_null()) return;
    LOG_EVERY_N_SEC(WARNING, 10)
        << "the engine refused a command: "
        << orvane::Printable(Text(error, "message"), kLoggedBytes);
    return;
  }
  if (error.is_null()) {
    Answer(found->first, Member(message, "result"));
  } else {
    Answer(found->first, ToStatus(found->second.method, error));
  }
}

void EnginePipe::Answer(std::int32_t id, absl::StatusOr<Json> answer) {
  // Not in the table any more when the continuation runs, which may call.
  auto waiting = waiting_.extract(id);
  if (!waiting.empty()) {
    std::move(waiting.mapped().on_answer)(std::move(answer));
  }
}

void EnginePipe::Write() {
  is_waiting_to_write_ = false;
  while (watch_ != nullptr && !unsent_.empty()) {
    const absl::string_view rest =
        absl::string_view(unsent_.front()).substr(sent_of_first_);
    const ssize_t count = TEMP_FAILURE_RETRY(
        ::send(watch_->descriptor(), rest.data(), rest.size(), MSG_NOSIGNAL));
    if (count < 0 && errno == EAGAIN) {
      is_waiting_to_write_ = true;
      watch_->WhenWritable([this] { Write(); });
      return;
    }
    if (count < 0) {
      // Not at once: this may be inside Call.
      Post([this, error = errno] {
        End(absl::UnavailableError(
            absl::StrCat("the engine's pipe: ", std::strerror(error))));
      });
      return;
    }
    sent_of_first_ += static_cast<std::size_t>(count);
    unsent_bytes_ -= static_cast<std::size_t>(count);
    if (sent_of_first_ == unsent_.front().size()) {
      unsent_.pop_front();
      sent_of_first_ = 0;
    }
  }
}

void EnginePipe::End(absl::Status why) {
  if (watch_ == nullptr) return;
  watch_.reset();
  end_ = std::move(why);
  const std::weak_ptr<bool> alive = alive_;
  while (!waiting_.empty()) {
    Answer(waiting_.begin()->first, end_);
    if (alive.expired()) return;
  }
  // On the stack, since it may destroy the pipe.
  OnEnd on_end = std::move(on_end_);
  std::move(on_end)(end_);
}

void EnginePipe::Post(absl::AnyInvocable<void() &&> task) {
  loop_->Post(
      [alive = std::weak_ptr<bool>(alive_), task = std::move(task)]() mutable {
        if (!alive.expired()) std::move(task)();
      });
}

}  // namespace chromium
