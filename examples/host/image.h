// Pictures as they arrive from a widget.

#ifndef EXAMPLES_HOST_IMAGE_H_
#define EXAMPLES_HOST_IMAGE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"

#include "rpc/browser/surface.pb.h"

namespace host {

struct Image {
  std::size_t width = 0;  // In pixels.
  std::size_t height = 0;
  std::vector<std::uint8_t> bgra;  // 4 bytes a pixel, rows without gaps.
};

// Copies the pixels of a frame, so that it can be given back at once. An error,
// in words, if the frame breaks the rules of PixelFrame, if its memory is not
// there, or if its format is none that this host draws. A widget that shortens
// its memory during the copy ends this process; a host that does not trust its
// widget copies in a process of its own.
absl::StatusOr<Image> ReadFrame(const rpc::PixelFrame& frame);

// "#rrggbb"; the image has at least one pixel.
std::string AverageColor(const Image& image);

// Writes the image as a portable pixmap.
absl::Status SavePpm(const Image& image, const std::string& path);

}  // namespace host

#endif  // EXAMPLES_HOST_IMAGE_H_
