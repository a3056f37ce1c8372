// The comments of the protos, which the generated pool does not keep.

#ifndef TOOLS_WIDGETCTL_DOCUMENTED_H_
#define TOOLS_WIDGETCTL_DOCUMENTED_H_

#include "google/protobuf/descriptor.h"

namespace widgetctl {

// The same service with its comments, in a pool that lives as long as the
// process. It is built from the protos that are embedded in this program. Use
// it for descriptions only: its message types are not those of the generated
// code.
const google::protobuf::ServiceDescriptor& WithComments(
    const google::protobuf::ServiceDescriptor& service);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_DOCUMENTED_H_
