// What this host does with pictures, since it has no screen.

#ifndef EXAMPLES_HOST_IMAGE_H_
#define EXAMPLES_HOST_IMAGE_H_

#include <string>

#include "absl/status/status.h"

#include "host/pixels.h"

namespace host {

// As "#rrggbb". The picture must not be empty.
std::string AverageColor(const orvane::host::Picture& picture);

// Writes the picture as a portable pixmap.
absl::Status SavePpm(const orvane::host::Picture& picture,
                     const std::string& path);

}  // namespace host

#endif  // EXAMPLES_HOST_IMAGE_H_
