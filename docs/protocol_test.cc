// The worked example of docs/protocol.md, byte by byte, against a real server.

#include <sys/socket.h>

#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/ascii.h"
#include "absl/strings/escaping.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Field;

// One ```hex block of the page, under its heading.
struct Exchange {
  std::string heading;
  std::string from_client;
  std::string from_server;
};

// A line of a block begins with the sender of its bytes: `>` the client, `<`
// the server, `=` both; a line without one continues the line before. `#`
// begins a remark.
void ReadBytes(std::string line, char* sender, Exchange* exchange) {
  line = line.substr(0, line.find('#'));
  if (!line.empty() && line[0] != ' ') *sender = line[0];
  std::string digits;
  for (const char c : line) {
    if (absl::ascii_isxdigit(c)) digits.push_back(c);
  }
  ASSERT_EQ(digits.size() % 2, 0u) << line;
  std::string bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes.push_back(static_cast<char>(
        std::strtol(digits.substr(i, 2).c_str(), nullptr, 16)));
  }
  if (*sender == '>' || *sender == '=') exchange->from_client += bytes;
  if (*sender == '<' || *sender == '=') exchange->from_server += bytes;
}

// Reads the page at PROTOCOL_PAGE.
std::vector<Exchange> ReadPage() {
  std::ifstream page(PROTOCOL_PAGE);
  std::vector<Exchange> exchanges;
  std::string heading;
  bool is_in_block = false;
  char sender = ' ';
  for (std::string line; std::getline(page, line);) {
    if (is_in_block && line == "```") {
      is_in_block = false;
    } else if (is_in_block) {
      ReadBytes(line, &sender, &exchanges.back());
    } else if (line == "```hex") {
      is_in_block = true;
      exchanges.push_back({heading, "", ""});
    } else if (line.starts_with("#")) {
      heading = line.substr(line.find_first_not_of("# "));
    }
  }
  return exchanges;
}

std::string Hex(const std::string& bytes) {
  return absl::BytesToHexString(bytes);
}

// Answers Show at once, but Minimize only when the test says so.
class Widget final : public rpc::BrowserWidgetRpc {
 public:
  void Show(google::protobuf::RpcController*, const BrowserId* request,
            google::protobuf::Empty*,
            google::protobuf::Closure* done) override {
    happened.push_back(absl::StrCat("Show ", request->value()));
    done->Run();
  }
  void Minimize(google::protobuf::RpcController* controller, const BrowserId*,
                google::protobuf::Empty*,
                google::protobuf::Closure* done) override {
    minimizing = {controller, done};
  }

  std::vector<std::string> happened;
  std::pair<google::protobuf::RpcController*, google::protobuf::Closure*>
      minimizing;
};

BrowserId Browser9() {
  BrowserId browser;
  browser.set_value(9);
  return browser;
}

class WorkedExample : public testing::Test {
 protected:
  WorkedExample() {
    auto pair = orvane::ConnectedPair();
    EXPECT_TRUE(pair.ok()) << pair.status();
    client_ = pair->second.Release();
    const absl::Status adopted = server_.Adopt(pair->first.Release());
    EXPECT_TRUE(adopted.ok()) << adopted;
  }
  ~WorkedExample() override { const orvane::OwnedDescriptor closed(client_); }

  void Send(const std::string& bytes) {
    ASSERT_EQ(::send(client_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
    loop_.RunUntilIdle();
  }

  std::string Receive() {
    loop_.RunUntilIdle();
    std::string bytes(4096, '\0');
    const ssize_t got =
        ::recv(client_, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (got == 0) is_closed_ = true;
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
  }

  static void ChangeTooltip() {
    rpc::TooltipChanged event;
    *event.mutable_browser_id() = Browser9();
    event.set_text("Hi");
    orvane::Publish<rpc::TooltipChanged>(Browser9(), event);
  }

  orvane::CallHandle LeaveTheLastElement() {
    rpc::TakeFocusCall call;
    call.set_direction(rpc::FOCUS_DIRECTION_FORWARD);
    return orvane::Call<rpc::TakeFocus>(
        Browser9(), call,
        [this](const absl::StatusOr<rpc::TakeFocusResponse>& answer) {
          widget_.happened.push_back(
              answer.ok()
                  ? absl::StrCat("TakeFocus taken ", answer->taken())
                  : absl::StrCat("TakeFocus ", absl::StatusCodeToString(
                                                   answer.status().code())));
        });
  }

  void FinishMinimizing() {
    widget_.happened.emplace_back(widget_.minimizing.first->IsCanceled()
                                      ? "Minimize cancelled"
                                      : "Minimize");
    widget_.minimizing.second->Run();
  }

  orvane::EventLoop loop_;
  Widget widget_;
  orvane::SocketServer server_{&loop_, &widget_};
  int client_ = -1;
  bool is_closed_ = false;
};

TEST_F(WorkedExample, HasTheBytesThatTravel) {
  // What the server does after the client's bytes under a heading.
  std::map<std::string, std::function<void()>> of_server = {
      {"An event", [] { ChangeTooltip(); }},
      {"A call of the server", [this] { LeaveTheLastElement(); }},
      {"A call of the server that fails", [this] { LeaveTheLastElement(); }},
      {"A call that the server gives up",
       [this] { LeaveTheLastElement().Cancel(); }},
      {"A call that is given up", [this] { FinishMinimizing(); }},
  };
  std::vector<Exchange> page = ReadPage();
  ASSERT_FALSE(page.empty()) << PROTOCOL_PAGE;
  // The page begins with a part of the conversation.
  const Exchange opening = page.front();
  page.erase(page.begin());
  EXPECT_THAT(page, Contains(AllOf(
                        Field(&Exchange::from_client, opening.from_client),
                        Field(&Exchange::from_server, opening.from_server))));
  for (const Exchange& exchange : page) {
    SCOPED_TRACE(exchange.heading);
    Send(exchange.from_client);
    if (auto acts = of_server.extract(exchange.heading); !acts.empty())
      acts.mapped()();
    ASSERT_EQ(Hex(Receive()), Hex(exchange.from_server));
  }
  EXPECT_TRUE(of_server.empty())
      << "the page has no " << of_server.begin()->first;

  EXPECT_THAT(widget_.happened,
              ElementsAre("Show 9", "Minimize cancelled", "TakeFocus taken 1",
                          "TakeFocus UNKNOWN", "TakeFocus CANCELLED"));
  Receive();
  EXPECT_TRUE(is_closed_);
}

}  // namespace
