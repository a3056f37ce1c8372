// The pictures that a widget sends.

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

// Copies the pixels of a frame, so that the widget can have it back at once.
// Fails if the frame breaks the rules of PixelFrame, if its shared memory does
// not exist, or if this host cannot draw its format. A widget that shrinks the
// shared memory during the copy kills this process (SIGBUS); a host that does
// not trust its widget copies in another process.
absl::StatusOr<Image> ReadFrame(const rpc::PixelFrame& frame);

// As "#rrggbb". The image must have at least one pixel.
std::string AverageColor(const Image& image);

// Writes the image as a portable pixmap.
absl::Status SavePpm(const Image& image, const std::string& path);

}  // namespace host

#endif  // EXAMPLES_HOST_IMAGE_H_
