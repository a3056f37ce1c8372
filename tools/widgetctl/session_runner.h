// Playing a recorded session to a widget.

#ifndef TOOLS_WIDGETCTL_SESSION_RUNNER_H_
#define TOOLS_WIDGETCTL_SESSION_RUNNER_H_

#include <memory>
#include <ostream>
#include <string>
#include <variant>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "absl/time/time.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "tools/widgetctl/call.h"
#include "tools/widgetctl/session_file.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace widgetctl {

class SessionRunner {
 public:
  // Reads the text of a session file. Finds every method and reads all JSON, so
  // that a session with a mistake in its last line makes no calls. An error
  // names its line.
  static absl::StatusOr<SessionRunner> Load(
      const google::protobuf::ServiceDescriptor& service,
      absl::string_view text);

  // Makes the calls one after the other, each with this timeout, and writes
  // down what came of them. True if all was as expected. Goes on after a call
  // that was not, unless the connection is gone.
  bool Run(absl::Duration timeout, orvane::SocketClient& client,
           std::ostream& transcript) const;

 private:
  struct Step {
    bool IsExpected(const absl::Status& status) const;
    void Report(const absl::Status& status, absl::Duration spent,
                std::ostream& transcript) const;

    int line;
    UnaryCall call;
    std::unique_ptr<google::protobuf::Message> expected_response;
    std::string expected_error;  // If there is no expected response.
  };

  static absl::StatusOr<Step> LoadCall(
      const google::protobuf::ServiceDescriptor& service, int line,
      const RecordedCall& recorded);

  std::vector<std::variant<Remark, Step>> steps_;
};

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_SESSION_RUNNER_H_
