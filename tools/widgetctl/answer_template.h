// Answers that take fields over from the call which they answer.

#ifndef TOOLS_WIDGETCTL_ANSWER_TEMPLATE_H_
#define TOOLS_WIDGETCTL_ANSWER_TEMPLATE_H_

#include <string>
#include <utility>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "tools/widgetctl/call.h"
#include "tools/widgetctl/session_file.h"

namespace widgetctl {

// Reads an answer to a call of a callback stream. Wrong JSON is an error with a
// text for the user.
Answer ReadAnswer(const google::protobuf::MethodDescriptor& method,
                  const RecordedAnswer& recorded);

// An answer to a call of a callback stream. In its JSON, a string such as
// "${frame.frameId}" stands for that field of the call, by JSON names.
class AnswerTemplate {
 public:
  // Wrong JSON, and a field that calls of the method do not have, are errors
  // with a text for the user. `method` is a callback stream of a generated
  // service.
  static absl::StatusOr<AnswerTemplate> Read(
      const google::protobuf::MethodDescriptor& method,
      const RecordedAnswer& recorded);

  // `message` carries the call.
  Answer For(const google::protobuf::Message& message) const;

  // As it stands in a session file.
  std::string text() const;

 private:
  // The fields that lead from the call to a value.
  using Path = std::vector<const google::protobuf::FieldDescriptor*>;

  // `names` are JSON names with dots between them.
  static absl::StatusOr<Path> FindPath(
      const google::protobuf::MethodDescriptor& method,
      absl::string_view names);

  AnswerTemplate(const google::protobuf::MethodDescriptor* method,
                 RecordedAnswer recorded)
      : method_(method), recorded_(std::move(recorded)) {}

  const google::protobuf::MethodDescriptor* method_;
  RecordedAnswer recorded_;
  // The JSON around the values, which are between each two of these.
  std::vector<std::string> texts_;
  std::vector<Path> paths_;
};

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_ANSWER_TEMPLATE_H_
