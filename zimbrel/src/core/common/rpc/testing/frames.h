// For tests: the frames that a client sends, and those that it gets, in words.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_FRAMES_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_FRAMES_H_

#include <cstdint>
#include <string>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "google/protobuf/message.h"

#include "rpc/browser/browser_widget.pb.h"
#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"

namespace orvane::testing {

// Positions in the service of what the tests use.
inline constexpr std::uint32_t kDetach = 3;
inline constexpr std::uint32_t kShow = 5;
inline constexpr std::uint32_t kHide = 6;
inline constexpr std::uint32_t kMinimize = 7;
inline constexpr std::uint32_t kRestore = 8;
inline constexpr std::uint32_t kSetDisplay = 9;
inline constexpr std::uint32_t kGetChromiumWindowHandle = 11;
inline constexpr std::uint32_t kGetAccessibilityToken = 25;
inline constexpr std::uint32_t kFirstStream = 40;
inline constexpr std::uint32_t kWhenTooltipChanged = 41;
inline constexpr std::uint32_t kWhenLiveRegionChanged = 45;
inline constexpr std::uint32_t kFirstCallbackStream = 46;
inline constexpr std::uint32_t kOnCreateWebDialog = 46;
inline constexpr std::uint32_t kMethods = 52;

// Messages that travel on streams.

inline rpc::TooltipChanged Tooltip(const std::string& text) {
  rpc::TooltipChanged event;
  event.set_text(text);
  return event;
}

inline rpc::CreateWebDialog About(std::uint64_t browser) {
  rpc::CreateWebDialog message;
  *message.mutable_browser_id() = Browser(browser);
  return message;
}

inline rpc::CreateWebDialog Serve(std::uint64_t browser, bool serve = true) {
  rpc::CreateWebDialog message = About(browser);
  message.set_subscribe(serve);
  return message;
}

inline rpc::CreateWebDialog Answer(std::uint64_t browser,
                                   const std::string& text) {
  rpc::CreateWebDialog message = About(browser);
  message.mutable_response()->set_text(text);
  return message;
}

// Frames of a client.

inline rpc::transport::StreamMessage Frame(
    rpc::transport::StreamMessage::Kind kind, std::uint64_t id,
    const std::string& payload = "") {
  rpc::transport::StreamMessage frame;
  frame.set_kind(kind);
  frame.set_stream_id(id);
  frame.set_payload(payload);
  return frame;
}

inline rpc::transport::StreamMessage CallFrame(std::uint64_t id,
                                               std::uint32_t method,
                                               std::uint64_t browser = 1) {
  auto frame = Frame(rpc::transport::StreamMessage::KIND_CALL, id,
                     Browser(browser).SerializeAsString());
  frame.set_method(method);
  return frame;
}

inline rpc::transport::StreamMessage OpenFrame(std::uint64_t id,
                                               std::uint32_t method) {
  auto frame = Frame(rpc::transport::StreamMessage::KIND_OPEN, id);
  frame.set_method(method);
  return frame;
}

inline rpc::transport::StreamMessage NextFrame(
    std::uint64_t id, const google::protobuf::Message& message,
    std::int64_t call_id = 0) {
  auto frame = Frame(rpc::transport::StreamMessage::KIND_NEXT, id,
                     message.SerializeAsString());
  frame.set_call_id(call_id);
  return frame;
}

// The call fails.
inline rpc::transport::StreamMessage ErrorFrame(
    std::uint64_t id, const google::protobuf::Message& message,
    std::int64_t call_id) {
  auto frame = NextFrame(id, message, call_id);
  frame.set_kind(rpc::transport::StreamMessage::KIND_ERROR);
  frame.set_error_code(static_cast<int>(absl::StatusCode::kUnknown));
  return frame;
}

inline rpc::transport::StreamMessage CompleteFrame(std::uint64_t id) {
  return Frame(rpc::transport::StreamMessage::KIND_COMPLETE, id);
}

// What a server has said: "ERROR 3 NOT_FOUND: words", "COMPLETE 3", "NEXT 3".
inline std::string InWords(const rpc::transport::StreamMessage& frame) {
  using rpc::transport::StreamMessage;
  const std::string kind =
      StreamMessage::Kind_Name(frame.kind()).substr(sizeof "KIND_" - 1);
  std::string what = absl::StrCat(kind, " ", frame.stream_id());
  if (frame.kind() != StreamMessage::KIND_ERROR) return what;
  const auto code = static_cast<absl::StatusCode>(frame.error_code());
  return absl::StrCat(what, " ", absl::StatusCodeToString(code), ": ",
                      frame.error_text());
}

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_FRAMES_H_
