// The comments of the protos, which the generated pool does not keep.

#ifndef TOOLS_WIDGETCTL_DOCUMENTED_H_
#define TOOLS_WIDGETCTL_DOCUMENTED_H_

#include "google/protobuf/descriptor.h"

namespace widgetctl {

// The same service in a pool of its own, built from the protos as they were
// compiled into this program, comments included. It lives as long as the
// process. Only for looking at: its messages are not those of generated code.
const google::protobuf::ServiceDescriptor& WithComments(
    const google::protobuf::ServiceDescriptor& service);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_DOCUMENTED_H_
