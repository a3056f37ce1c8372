// The scripts of the corpus (README.md), played by the C++ client against a
// scripted widget.

#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/ascii.h"
#include "absl/strings/escaping.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "absl/strings/strip.h"
#include "google/protobuf/util/message_differencer.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "tools/widgetctl/call.h"
#include "tools/widgetctl/json.h"
#include "tools/widgetctl/streams.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace {

using google::protobuf::Message;
using google::protobuf::util::MessageDifferencer;
using std::filesystem::path;

struct Step {
  std::string word;
  std::string rest;
};

std::vector<Step> ReadSteps(const path& script) {
  std::vector<Step> steps;
  std::ifstream text(script);
  for (std::string line; std::getline(text, line);) {
    if (line.empty() || line[0] == '#') continue;
    if (line[0] == ' ') {
      steps.back().rest += line;
      continue;
    }
    const std::pair<std::string, std::string> parts =
        absl::StrSplit(line, absl::MaxSplits(' ', 1));
    steps.push_back({parts.first, parts.second});
  }
  return steps;
}

std::string BytesOf(std::string hex) {
  hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
  std::string bytes;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    bytes.push_back(
        static_cast<char>(std::strtol(hex.substr(i, 2).c_str(), nullptr, 16)));
  }
  return bytes;
}

std::vector<path> ScriptsIn(const std::string& folder) {
  std::vector<path> scripts;
  for (const auto& entry :
       std::filesystem::directory_iterator(path(CORPUS) / "scripts" / folder)) {
    if (entry.path().extension() == ".script") scripts.push_back(entry.path());
  }
  std::sort(scripts.begin(), scripts.end());
  return scripts;
}

std::string InWords(const absl::Status& status) {
  return absl::StrCat(absl::StatusCodeToString(status.code()), ": ",
                      status.message());
}

// Something that has happened at the host.
struct Happening {
  std::string verb;
  absl::Status error;                // Of what failed or ended.
  std::unique_ptr<Message> message;  // Of a reply, an event or a call.
};

// One play of one script.
class Player {
 public:
  Player() {
    auto pair = orvane::ConnectedPair();
    EXPECT_TRUE(pair.ok()) << pair.status();
    widget_.emplace(std::move(pair->second));
    auto client = orvane::SocketClient::Adopt(&loop_, pair->first.Release());
    EXPECT_TRUE(client.ok()) << client.status();
    client_ = *std::move(client);
  }

  bool one_by_one = false;
  // Until the widget dies.
  std::size_t bytes_left = std::numeric_limits<std::size_t>::max();

  bool is_dead() const { return !widget_.has_value(); }

  absl::Status Take(const Step& step) {
    const auto& [word, rest] = step;
    if (word == "call") return MakeCall(rest);
    if (word == "watch" || word == "serve")
      return OpenStream(rest, word == "watch");
    if (word == "cancel") {
      calls_.at(rest).Cancel();
      return absl::OkStatus();
    }
    if (word == "end") {
      streams_.erase(rest);
      open_.erase(rest);
      return absl::OkStatus();
    }
    if (word == "hello") return AnswerHello();
    if (word == ">") {
      const std::string expected = BytesOf(rest);
      const std::string actual = Receive(expected.size());
      if (actual == expected) return absl::OkStatus();
      return absl::UnknownError(
          absl::StrCat("sent ", absl::BytesToHexString(actual), ", not ",
                       absl::BytesToHexString(expected)));
    }
    if (word == "<" && rest == "end") {
      ::shutdown(widget_->get(), SHUT_WR);
      loop_.RunUntilIdle();
      return absl::OkStatus();
    }
    if (word == "<") {
      Send(BytesOf(rest));
      return absl::OkStatus();
    }
    if (word == "connection") {
      loop_.RunUntilIdle();
      return CheckError(client_->status(),
                        std::string(absl::StripPrefix(rest, "ends ")));
    }
    return Expect(word, rest);
  }

  // Wherever the widget has died: all that was begun has ended.
  void CheckAllEnded() {
    loop_.RunUntilIdle();
    EXPECT_EQ(client_->status().code(), absl::StatusCode::kUnavailable);
    EXPECT_TRUE(open_.empty()) << *open_.begin() << " is still in progress";
    for (const auto& [name, call] : calls_) {
      EXPECT_FALSE(happened_[name].empty() && answered_[name] == 0)
          << name << " is still in progress";
    }
  }

  // The host has sent nothing else, and nothing else has happened.
  void Finish() {
    loop_.RunUntilIdle();
    client_.reset();
    streams_.clear();
    std::string more(4096, '\0');
    const ssize_t got =
        ::recv(widget_->get(), more.data(), more.size(), MSG_DONTWAIT);
    EXPECT_EQ(got, 0) << "the host sent more";
    for (const auto& [name, all] : happened_) {
      for (const Happening& happening : all) {
        EXPECT_EQ(happening.error.code(), absl::StatusCode::kCancelled)
            << "nobody expected that " << name << " " << happening.verb;
      }
    }
  }

 private:
  absl::Status MakeCall(const std::string& rest) {
    const std::vector<std::string> words =
        absl::StrSplit(rest, absl::MaxSplits(' ', 2));
    auto made = widgetctl::PrepareCall(service_, words.at(1), words.at(2));
    if (!made.ok()) return made.status();
    std::deque<Happening>* const happened = &happened_[words[0]];
    calls_.insert_or_assign(
        words[0],
        client_->Call(
            made->method, *made->request, [happened](widgetctl::Answer answer) {
              if (answer.ok()) {
                happened->push_back({"replies", {}, *std::move(answer)});
              } else {
                happened->push_back({"fails", answer.status(), nullptr});
              }
            }));
    return absl::OkStatus();
  }

  absl::Status OpenStream(const std::string& rest, bool is_watch) {
    const std::vector<std::string> words =
        absl::StrSplit(rest, absl::MaxSplits(' ', 2));
    const std::string& name = words.at(0);
    const std::pair<std::string, std::string> key_and_answer =
        absl::StrSplit(words.at(2), absl::MaxSplits(" => ", 1));
    auto subscription =
        is_watch
            ? widgetctl::PrepareWatch(service_, words[1], words[2])
            : widgetctl::PrepareServe(service_, words[1], key_and_answer.first);
    if (!subscription.ok()) return subscription.status();
    std::deque<Happening>* const happened = &happened_[name];
    open_.insert(name);
    auto on_end = [this, happened, name](const absl::Status& why) {
      happened->push_back({"ends", why, nullptr});
      open_.erase(name);
    };
    if (is_watch) {
      streams_[name] = widgetctl::OpenWatch(
          *subscription, *client_,
          [happened](const Message& event) {
            std::unique_ptr<Message> copy(event.New());
            copy->CopyFrom(event);
            happened->push_back({"event", {}, std::move(copy)});
          },
          std::move(on_end));
      return absl::OkStatus();
    }
    std::string answer = key_and_answer.second;
    streams_[name] = widgetctl::OpenServe(
        *subscription, *client_,
        [this, happened, answer,
         method = subscription->method](widgetctl::WidgetCall call) {
          if (answer == "never") {
            std::unique_ptr<Message> copy(call.message().New());
            copy->CopyFrom(call.message());
            happened->push_back({"called", {}, std::move(copy)});
            call.OnGivenUp([happened] {
              happened->push_back({"given_up", {}, nullptr});
            });
            never_answered_.push_back(std::move(call));
            return;
          }
          const bool fails = absl::StartsWith(answer, "error: ");
          const widgetctl::Answer given =
              fails ? widgetctl::Answer(absl::UnknownError(
                          absl::StripPrefix(answer, "error: ")))
                    : widgetctl::ReadResponse(*method, answer);
          call.Give(given).IgnoreError();  // An error is what is wanted.
          happened->push_back({"called", {}, std::move(call).TakeMessage()});
        },
        std::move(on_end));
    return absl::OkStatus();
  }

  absl::Status AnswerHello() {
    const std::string length = Receive(4);
    if (length.size() < 4) return absl::UnknownError("the host says no hello");
    const auto byte = [&](int i) {
      return static_cast<std::size_t>(static_cast<unsigned char>(length[i]));
    };
    const std::size_t size = byte(0) + (byte(1) << 8);
    Send(length + Receive(size));
    return absl::OkStatus();
  }

  // Fewer bytes if the host has sent no more.
  std::string Receive(std::size_t count) {
    loop_.RunUntilIdle();
    std::string bytes(count, '\0');
    const ssize_t got =
        ::recv(widget_->get(), bytes.data(), count, MSG_DONTWAIT);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
  }

  void Send(const std::string& bytes) {
    const bool dies = bytes_left < bytes.size();
    const std::string sent = bytes.substr(0, bytes_left);
    bytes_left -= sent.size();
    const std::size_t piece =
        one_by_one ? 1 : std::max<std::size_t>(sent.size(), 1);
    for (std::size_t i = 0; i < sent.size(); i += piece) {
      // The host may have closed the connection.
      ::send(widget_->get(), sent.data() + i, piece, MSG_NOSIGNAL);
      loop_.RunUntilIdle();
    }
    if (dies) widget_.reset();
    loop_.RunUntilIdle();
  }

  absl::Status Expect(const std::string& name, const std::string& expected) {
    loop_.RunUntilIdle();
    std::deque<Happening>& happened = happened_[name];
    if (happened.empty()) {
      return absl::UnknownError(absl::StrCat("nothing happened to ", name));
    }
    const Happening happening = std::move(happened.front());
    happened.pop_front();
    ++answered_[name];
    const std::pair<std::string, std::string> words =
        absl::StrSplit(expected, absl::MaxSplits(' ', 1));
    if (happening.verb != words.first) {
      return absl::UnknownError(absl::StrCat(name, " ", happening.verb, " ",
                                             InWords(happening.error)));
    }
    if (happening.message == nullptr)
      return CheckError(happening.error, words.second);
    auto wanted = widgetctl::NewMessage(happening.message->GetDescriptor());
    if (absl::Status read =
            widgetctl::ReadJson(name, words.second, wanted.get());
        !read.ok()) {
      return read;
    }
    if (MessageDifferencer::Equals(*wanted, *happening.message))
      return absl::OkStatus();
    return absl::UnknownError(absl::StrCat(
        name, " ", words.first, " ", widgetctl::ToJson(*happening.message)));
  }

  // Only the code counts where no text is expected.
  static absl::Status CheckError(const absl::Status& actual,
                                 const std::string& expected) {
    const std::string code(absl::StatusCodeToString(actual.code()));
    const bool matches = expected.empty() ? actual.ok()
                         : absl::StrContains(expected, ':')
                             ? absl::StripAsciiWhitespace(InWords(actual)) ==
                                   absl::StripAsciiWhitespace(expected)
                             : code == expected;
    if (matches) return absl::OkStatus();
    return absl::UnknownError(
        absl::StrCat(InWords(actual), ", not ", expected));
  }

  const google::protobuf::ServiceDescriptor& service_ =
      *rpc::BrowserWidgetRpc::descriptor();
  orvane::EventLoop loop_;
  std::optional<orvane::OwnedDescriptor> widget_;  // None once it is dead.
  std::map<std::string, std::deque<Happening>> happened_;
  std::map<std::string, int> answered_;  // What was expected, and came.
  std::set<std::string> open_;           // Streams that have not ended.
  std::map<std::string, orvane::CallHandle> calls_;
  std::vector<widgetctl::WidgetCall> never_answered_;
  std::unique_ptr<orvane::SocketClient> client_;
  std::map<std::string, std::unique_ptr<orvane::ClientStream>> streams_;
};

void Play(const path& script, Player& player) {
  SCOPED_TRACE(script.stem().string());
  bool ends_connection = false;
  for (const Step& step : ReadSteps(script)) {
    ends_connection = ends_connection || step.word == "connection";
    const absl::Status taken = player.Take(step);
    ASSERT_TRUE(taken.ok()) << step.word << " " << step.rest << "\n" << taken;
    if (player.is_dead()) return player.CheckAllEnded();
  }
  if (!ends_connection) player.Finish();
}

std::vector<path> AllScripts() {
  std::vector<path> scripts = ScriptsIn("conversations");
  for (path& script : ScriptsIn("peers")) scripts.push_back(std::move(script));
  return scripts;
}

TEST(Corpus, EachScriptGoesAsItSays) {
  const std::vector<path> scripts = AllScripts();
  ASSERT_GT(scripts.size(), 50u);
  for (const path& script : scripts) {
    Player player;
    Play(script, player);
  }
  std::cout << "C++: " << scripts.size() << " scripts agree" << std::endl;
}

TEST(Corpus, EachGoesSoWhenBytesComeOneByOne) {
  for (const path& script : AllScripts()) {
    Player player;
    player.one_by_one = true;
    Play(script, player);
  }
}

TEST(Corpus, AllInProgressEndsWhereverTheWidgetDies) {
  std::size_t places = 0;
  for (const path& script : ScriptsIn("conversations")) {
    for (std::size_t bytes = 0;; ++bytes) {
      Player player;
      player.bytes_left = bytes;
      Play(script, player);
      if (!player.is_dead() || HasFailure()) break;
      ++places;
    }
  }
  EXPECT_GT(places, 1000u);
  std::cout << "C++: the widget died at " << places << " places" << std::endl;
}

}  // namespace
