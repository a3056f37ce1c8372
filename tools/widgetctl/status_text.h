// What `widgetctl status` prints.

#ifndef TOOLS_WIDGETCTL_STATUS_TEXT_H_
#define TOOLS_WIDGETCTL_STATUS_TEXT_H_

#include <string>

#include "rpc/transport/status.pb.h"

namespace widgetctl {

// A few lines and tables, of a bounded size whatever the server tells, which a
// terminal can show without obeying it.
std::string StatusInWords(const rpc::transport::ServerStatus& status);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_STATUS_TEXT_H_
