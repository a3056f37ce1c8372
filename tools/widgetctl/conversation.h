// What the frames between a host and a widget mean.

#ifndef TOOLS_WIDGETCTL_CONVERSATION_H_
#define TOOLS_WIDGETCTL_CONVERSATION_H_

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/functional/function_ref.h"
#include "absl/strings/string_view.h"
#include "absl/time/time.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "rpc/transport/stream_message.pb.h"
#include "tools/widgetctl/relay.h"
#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"

namespace widgetctl {

// One frame, in the words of the service.
struct Said {
  Side from;

  // hello, call, reply, error, cancel, open, subscribe, unsubscribe, event,
  // answer or complete; frame for one that has no meaning where it stands, and
  // unreadable for what follows and is no frame.
  absl::string_view what;

  std::uint64_t stream = 0;               // 0: the connection itself.
  std::optional<std::int64_t> call = {};  // Of the widget, on `stream`.

  // Null if it is not known.
  const google::protobuf::MethodDescriptor* method = nullptr;

  // Of a host's hello. Null if it is not known.
  const google::protobuf::ServiceDescriptor* service = nullptr;

  std::optional<std::uint64_t> browser = {};

  // Since the call that the frame answers or ends.
  std::optional<absl::Duration> elapsed = {};

  // Null if the frame has none, if it was not asked for or cannot be read.
  std::unique_ptr<google::protobuf::Message> payload = nullptr;

  std::int32_t error_code = 0;  // Of an error.
  std::string error = "";
};

// Reads both directions of one connection.
class Conversation {
 public:
  // Knows the methods of these services, of which the connection speaks one.
  // Payloads take most of the time; without them few browsers are known.
  Conversation(std::vector<const google::protobuf::ServiceDescriptor*> services,
               bool wants_payloads);

  // Takes bytes of one direction, split anyhow, and calls `on_said` for each
  // frame that they complete.
  void Take(Side from, absl::string_view bytes, absl::Time now,
            absl::FunctionRef<void(Said)> on_said);

 private:
  using StreamMessage = rpc::transport::StreamMessage;

  struct Stream {
    const google::protobuf::MethodDescriptor* method;
    std::optional<std::uint64_t> browser;
    absl::Time begun;
    // When the widget made those that have no answer yet, by id and, if it is
    // known, browser: ids repeat under other keys.
    std::map<std::pair<std::int64_t, std::optional<std::uint64_t>>, absl::Time>
        calls;
  };

  struct Direction {
    std::unique_ptr<orvane::internal::FrameReader> reader;  // Null: unreadable.
    StreamMessage frame;
  };

  Said Explain(Side from, const StreamMessage& frame, absl::string_view payload,
               absl::Time now);
  void Begin(const StreamMessage& frame, absl::string_view payload,
             absl::Time now, Said& said);
  void ExplainHello(absl::string_view payload, Said& said);
  void ExplainNext(absl::string_view payload, absl::Time now, Stream& stream,
                   Said& said);
  void ExplainEnd(absl::Time now, Said& said);
  void Read(const google::protobuf::Descriptor* type, absl::string_view payload,
            Said& said) const;

  const std::vector<const google::protobuf::ServiceDescriptor*> services_;
  const bool wants_payloads_;
  const google::protobuf::ServiceDescriptor* service_ = nullptr;
  std::map<std::uint64_t, Stream> streams_;  // Calls of the host too.
  Direction from_host_;
  Direction from_widget_;
};

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_CONVERSATION_H_
