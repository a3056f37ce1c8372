// Text that widgetctl reads. The first byte tells what the rest is:
//
//   c   METHOD JSON   of `call`: a method and its request
//   k   METHOD KEY    of `watch` and `serve`: a method and a browser
//   r   METHOD JSON   of `serve`: a method and the answer to its calls
//   s   a session file; so is everything behind any other byte
//
// A message that was read is printed as JSON that reads as the same message.
// Text that cannot be read gives an error with a text.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "tools/widgetctl/call.h"
#include "tools/widgetctl/json.h"
#include "tools/widgetctl/methods.h"
#include "tools/widgetctl/session.h"
#include "tools/widgetctl/streams.h"
#include "zimbrel/src/core/common/rpc/method_kind.h"

using google::protobuf::Message;
using google::protobuf::ServiceDescriptor;
using widgetctl::Answer;
using widgetctl::Subscription;
using widgetctl::UnaryCall;

namespace {

void ExpectWords(const absl::Status& error) {
  EXPECT_FALSE(error.message().empty()) << error;
}

std::unique_ptr<Message> ReadShown(const Message& message) {
  const std::string json = widgetctl::ToJson(message);
  EXPECT_EQ(json.find('\n'), std::string::npos) << json;
  std::unique_ptr<Message> read =
      widgetctl::NewMessage(message.GetDescriptor());
  const absl::Status status = widgetctl::FromJson(json, read.get());
  EXPECT_TRUE(status.ok()) << json << ": " << status;
  return read;
}

// Compares the second reading with the first, not with the original: protobuf
// prints -0, but reads it as 0.
void ExpectReadAsShown(const Message& message) {
  const std::unique_ptr<Message> once = ReadShown(message);
  const std::unique_ptr<Message> twice = ReadShown(*once);
  EXPECT_EQ(twice->SerializeAsString(), once->SerializeAsString());
}

void TryCall(const ServiceDescriptor& service, const std::string& method,
             const std::string& json) {
  const absl::StatusOr<UnaryCall> call =
      widgetctl::PrepareCall(service, method, json);
  if (!call.ok()) return ExpectWords(call.status());
  ExpectReadAsShown(*call->request);
}

void TryKey(const absl::StatusOr<Subscription>& subscription) {
  if (!subscription.ok()) return ExpectWords(subscription.status());
  ExpectReadAsShown(*subscription->key);
  EXPECT_FALSE(subscription->Name().empty());
}

void TryResponse(const ServiceDescriptor& service, const std::string& method,
                 const std::string& json) {
  const auto served = widgetctl::FindMethodOfKind(
      service, method, orvane::MethodKind::kCallbackStream, "served");
  if (!served.ok()) return ExpectWords(served.status());
  const Answer answer = widgetctl::ReadResponse(**served, json);
  if (!answer.ok()) return ExpectWords(answer.status());
  ExpectReadAsShown(**answer);
}

void TrySession(const ServiceDescriptor& service, std::string_view text) {
  const auto steps = widgetctl::LoadSession(
      {&service}, absl::string_view(text.data(), text.size()));
  if (!steps.ok()) return ExpectWords(steps.status());
  int line = 0;
  for (const widgetctl::SessionStep& step : *steps) {
    EXPECT_GT(step.line, std::exchange(line, step.line));
    if (const auto* const call = std::get_if<widgetctl::CallStep>(&step.action))
      ExpectReadAsShown(*call->call.request);
    if (const auto* const arrival =
            std::get_if<widgetctl::ArrivalStep>(&step.action))
      ExpectReadAsShown(*arrival->expected);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  if (size == 0) return 0;
  const ServiceDescriptor& service = *rpc::BrowserWidgetRpc::descriptor();
  const std::string text(data + 1, data + size);
  const std::size_t blank = text.find(' ');
  const std::string method = text.substr(0, blank);
  const std::string json =
      blank == std::string::npos ? "" : text.substr(blank + 1);
  switch (data[0]) {
    case 'c':
      TryCall(service, method, json);
      break;
    case 'k':
      TryKey(widgetctl::PrepareWatch(service, method, json));
      TryKey(widgetctl::PrepareServe(service, method, json));
      break;
    case 'r':
      TryResponse(service, method, json);
      break;
    default:
      TrySession(service, text);
  }
  return 0;
}
