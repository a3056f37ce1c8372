// How a command line that somebody is typing may go on.

#ifndef TOOLS_WIDGETCTL_COMPLETION_H_
#define TOOLS_WIDGETCTL_COMPLETION_H_

#include <string>
#include <vector>

#include "absl/strings/string_view.h"
#include "absl/types/span.h"
#include "google/protobuf/descriptor.h"

namespace widgetctl {

// What the completion has to know of a command.
struct CompletedCommand {
  std::string name;
  std::string options;  // As its help shows them; those of all are not there.
};

// `line` is a shell's command line up to the cursor, with the program's name.
// Returns texts that can follow, at once behind the cursor, in alphabetical
// order: the rest of a command, option, method, type, or of a field or value in
// JSON. Nothing where files are named, or where everything fits.
std::vector<std::string> Continuations(
    absl::Span<const google::protobuf::ServiceDescriptor* const> services,
    absl::Span<const CompletedCommand> commands, absl::string_view line);

// Likewise for the beginning of a message in JSON.
std::vector<std::string> JsonContinuations(
    const google::protobuf::Descriptor& type, absl::string_view json);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_COMPLETION_H_
