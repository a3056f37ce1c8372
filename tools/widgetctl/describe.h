// Descriptions of a service for people who call it from a terminal.

#ifndef TOOLS_WIDGETCTL_DESCRIBE_H_
#define TOOLS_WIDGETCTL_DESCRIBE_H_

#include <string>

#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "google/protobuf/descriptor.h"

namespace widgetctl {

// All methods, one a line: index, name, kind, request and response.
std::string ListMethods(const google::protobuf::ServiceDescriptor& service);

// The service and its methods, with their comments.
std::string DescribeService(const google::protobuf::ServiceDescriptor& service);

// A method, message or enum by its name, and every type that is needed to write
// it as JSON, each once. A type of the service's package may be named without
// the package. kNotFound, with the nearest names, if nothing has that name.
//
// Comments appear only if the descriptors have them; those of the generated
// pool do not.
absl::StatusOr<std::string> DescribeNamed(
    const google::protobuf::ServiceDescriptor& service, absl::string_view name);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_DESCRIBE_H_
