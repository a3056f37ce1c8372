// Small images that our script reports.

#ifndef ENGINES_CHROMIUM_BITMAP_H_
#define ENGINES_CHROMIUM_BITMAP_H_

#include <optional>

#include "engines/chromium/json.h"
#include "rpc/browser/image.pb.h"

namespace chromium {

// `image` has `width`, `height` and `pixels`, straight RGBA in base64. Nothing
// if that is no image, or if a side is longer than `max_side` pixels.
std::optional<rpc::Bitmap> BitmapOf(const Json& image, int max_side);

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_BITMAP_H_
