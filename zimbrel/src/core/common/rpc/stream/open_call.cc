#include "zimbrel/src/core/common/rpc/stream/open_call.h"

#include <string>
#include <utility>

#include "absl/log/log.h"
#include "absl/strings/ascii.h"
#include "absl/strings/str_cat.h"
#include "google/protobuf/text_format.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/current_loop.h"

namespace orvane::internal {

using google::protobuf::Message;

namespace {

void EndLater(EventLoop& loop, OpenCall::Outcome outcome,
              OpenCall::OnEnd on_end) {
  loop.Post(
      [on_end = std::move(on_end), outcome = std::move(outcome)]() mutable {
        std::move(on_end)(std::move(outcome));
      });
}

}  // namespace

OpenCall::OpenCall(Place place, OnEnd on_end)
    : place_(place), loop_(place.stream->loop()), on_end_(std::move(on_end)) {}

OpenCall::~OpenCall() {
  if (on_end_ == nullptr) return;
  End(absl::CancelledError(
      "the stream was destroyed before the client answered"));
}

void OpenCall::End(Outcome outcome) {
  if (on_end_ == nullptr) return;
  EndLater(loop_, std::move(outcome), std::exchange(on_end_, nullptr));
}

void OpenCall::Withdraw(absl::Status why) {
  if (on_end_ != nullptr) place_.stream->CancelCall(place_.id);
  End(std::move(why));
  place_.drop(place_.stream, *place_.key, place_.id);
}

void OpenCall::EndAfter(absl::Duration timeout) {
  deadline_ = loop_.RunAfter(timeout, [this, timeout] {
    Withdraw(absl::DeadlineExceededError(absl::StrCat(
        "the client did not answer within ", absl::FormatDuration(timeout))));
  });
}

void OpenCall::Cancel() {
  loop_.CheckServiceThread("CallHandle::Cancel");
  Withdraw(absl::CancelledError("cancelled by the caller"));
}

std::int64_t NextCallId() {
  static std::int64_t last = 0;
  return ++last;
}

absl::Status SendCall(AbstractStream& stream, std::int64_t id,
                      const Message& message) {
  rpc::transport::StreamMessage frame;
  frame.set_call_id(id);
  if (!message.SerializeToString(frame.mutable_payload())) {
    return absl::InvalidArgumentError(
        absl::StrCat("a call of ", message.ByteSizeLong(),
                     " bytes; protobuf's limit is 2147483647"));
  }
  return stream.Send(frame);
}

// Not ShortDebugString, whose text newer protobufs change from run to run.
std::string InOneLine(const Message& message) {
  google::protobuf::TextFormat::Printer printer;
  printer.SetSingleLineMode(true);
  std::string text;
  static_cast<void>(printer.PrintToString(message, &text));  // Into memory.
  absl::StripTrailingAsciiWhitespace(&text);
  return text;
}

CallHandle EndUnserved(const Message& key,
                       const google::protobuf::Descriptor& type,
                       OpenCall::OnEnd on_end) {
  EventLoop* const loop = ServingLoop();
  if (loop == nullptr) {
    LOG(FATAL) << "orvane::Call in a process without an EventLoop, on which "
                  "the continuation would run";
  }
  EndLater(
      *loop,
      absl::NotFoundError(absl::StrCat("no client serves ", type.full_name(),
                                       " for {", InOneLine(key), "}")),
      std::move(on_end));
  return {};
}

CallHandle EndUnsent(AbstractStream& stream, absl::Status why,
                     OpenCall::OnEnd on_end) {
  EndLater(stream.loop(), std::move(why), std::move(on_end));
  return {};
}

absl::Status ToStatus(StreamCallFailure why) {
  switch (why) {
    case StreamCallFailure::kRemoteError:
      return absl::UnknownError("the client answered with an error");
    case StreamCallFailure::kCancelled:
      break;
  }
  return absl::CancelledError(
      "the client unsubscribed the key or ended the stream before it "
      "answered");
}

}  // namespace orvane::internal
