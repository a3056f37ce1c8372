// For tests: the engine's end of its pipe, which does what the test says.

#ifndef ENGINES_CHROMIUM_ENGINE_FIXTURE_H_
#define ENGINES_CHROMIUM_ENGINE_FIXTURE_H_

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/string_view.h"
#include "absl/time/time.h"
#include "gtest/gtest.h"

#include "engines/chromium/json.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace chromium::testing {

// Commands as the tests compare them: "Page.navigate" alone, or with what
// matters of its parameters.
class ScriptedEngine {
 public:
  ScriptedEngine(orvane::EventLoop* loop, orvane::OwnedDescriptor socket)
      : loop_(loop), socket_(std::move(socket)) {}

  // Just these bytes.
  void SendBytes(absl::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(),
                                  MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent < 0 && errno == EAGAIN) {
        loop_->RunUntilIdle();
        continue;
      }
      ASSERT_GE(sent, 0) << "nobody reads the engine's pipe";
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
  }

  void SendMessage(const Json& message) {
    SendBytes(PrintJson(message) + '\0');
  }
  void SendEvent(const std::string& method, Json params = Json::object(),
                 const std::string& session = "") {
    Json event = {{"method", method}, {"params", std::move(params)}};
    if (!session.empty()) event["sessionId"] = session;
    SendMessage(event);
  }

  // What Settle() replies to a command; {} unless this was called.
  void ReplyTo(const std::string& method, Json result) {
    results_[method] = std::move(result);
  }
  // Settle() replies that there is no such command.
  void DoesNotKnow(const std::string& method) { unknown_.insert(method); }
  // Settle() leaves the command without a reply.
  void NeverReplyTo(const std::string& method) { results_[method] = nullptr; }

  // Everything that the other end has sent since the last call, unanswered.
  std::vector<Json> Receive() {
    std::vector<Json> received;
    std::array<char, 65536> bytes;
    ssize_t count = 0;
    while ((count = ::recv(socket_.get(), bytes.data(), bytes.size(),
                           MSG_DONTWAIT)) > 0) {
      unread_.append(bytes.data(), static_cast<std::size_t>(count));
    }
    for (std::size_t end = 0;
         (end = unread_.find('\0')) != std::string::npos;) {
      received.push_back(ParseJson(unread_.substr(0, end)).value_or(Json()));
      unread_.erase(0, end + 1);
    }
    return received;
  }

  // Lets everything happen that can, replying to all commands, which
  // commands() lists afterwards.
  void Settle() {
    while (true) {
      loop_->RunUntilIdle();
      const std::size_t before = unread_.size();
      const std::vector<Json> received = Receive();
      if (received.empty() && unread_.size() == before) return;
      for (const Json& command : received) {
        commands_.push_back(command);
        const auto found = results_.find(Text(command, "method"));
        const Json result =
            found == results_.end() ? Json::object() : found->second;
        if (result.is_null()) continue;
        Json reply = {{"id", Member(command, "id")}};
        if (const std::string& method = Text(command, "method");
            unknown_.contains(method)) {
          reply["error"] = {{"code", -32601}, {"message", "no " + method}};
        } else {
          reply["result"] = result;
        }
        if (!Text(command, "sessionId").empty())
          reply["sessionId"] = Text(command, "sessionId");
        SendMessage(reply);
      }
    }
  }

  const std::vector<Json>& commands() const { return commands_; }
  void ForgetCommands() { commands_.clear(); }

  // The parameters of the commands of that name, oldest first.
  std::vector<Json> Params(const std::string& method) const {
    std::vector<Json> params;
    for (const Json& command : commands_) {
      if (Text(command, "method") == method)
        params.push_back(Member(command, "params"));
    }
    return params;
  }

  // The engine dies.
  void Close() { const orvane::OwnedDescriptor gone(socket_.Release()); }

 private:
  orvane::EventLoop* const loop_;
  orvane::OwnedDescriptor socket_;
  std::string unread_;
  std::map<std::string, Json> results_;
  std::set<std::string> unknown_;
  std::vector<Json> commands_;
};

}  // namespace chromium::testing

#endif  // ENGINES_CHROMIUM_ENGINE_FIXTURE_H_
