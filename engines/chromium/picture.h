// The engine's pictures: PNG in, pixels in shared memory and what has changed
// out. For a worker thread.

#ifndef ENGINES_CHROMIUM_PICTURE_H_
#define ENGINES_CHROMIUM_PICTURE_H_

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"

#include "examples/widget_server/shared_pixels.h"
#include "rpc/browser/geometry.pb.h"

namespace chromium {

// Opaque, 4 bytes a pixel in the order blue, green, red, alpha, rows without
// gaps.
struct Picture {
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::unique_ptr<widget_server::SharedPixels> pixels;
};

// `base64` is a PNG. `memory` is used again for the picture if it has the right
// length; may be null. kInvalidArgument if it is not a PNG or has another size,
// as pictures have that were taken before the view was resized.
absl::StatusOr<Picture> DecodePicture(
    absl::string_view base64, std::int32_t width, std::int32_t height,
    std::unique_ptr<widget_server::SharedPixels> memory);

// The rectangles in which two pictures of that size differ, in steps of 64
// pixels. None if they are alike.
std::vector<rpc::RectPx> FindDamage(std::span<const std::uint8_t> before,
                                    std::span<const std::uint8_t> after,
                                    std::int32_t width, std::int32_t height);

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_PICTURE_H_
