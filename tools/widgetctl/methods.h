// Finds the methods of a service by what a user types.

#ifndef TOOLS_WIDGETCTL_METHODS_H_
#define TOOLS_WIDGETCTL_METHODS_H_

#include <set>
#include <string>

#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "absl/types/span.h"
#include "google/protobuf/descriptor.h"

#include "zimbrel/src/core/common/rpc/method_kind.h"

namespace widgetctl {

// "unary", "event stream" or "callback stream". `method` is one of a generated
// service.
absl::string_view KindName(const google::protobuf::MethodDescriptor& method);

// The first of `services`, at least one, that has such a method; if none has,
// the first of all.
const google::protobuf::ServiceDescriptor& ServiceWithMethod(
    absl::Span<const google::protobuf::ServiceDescriptor* const> services,
    absl::string_view method);

// kNotFound, with the nearest names, if the service has no such method. Names
// are case-sensitive.
absl::StatusOr<const google::protobuf::MethodDescriptor*> FindMethod(
    const google::protobuf::ServiceDescriptor& service, absl::string_view name);

// Like FindMethod, but kInvalidArgument if the method is of another kind: "Show
// cannot be watched: it is of kind unary, not event stream" if `use` is
// "watched".
absl::StatusOr<const google::protobuf::MethodDescriptor*> FindMethodOfKind(
    const google::protobuf::ServiceDescriptor& service, absl::string_view name,
    orvane::MethodKind kind, absl::string_view use);

// "; did you mean A, B or C?" with the candidates most similar to `name`, the
// most similar first; "" if none is similar. Ignores case.
std::string DidYouMean(absl::string_view name,
                       const std::set<std::string>& candidates);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_METHODS_H_
