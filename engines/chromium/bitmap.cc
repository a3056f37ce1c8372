#include "engines/chromium/bitmap.h"

#include <cstddef>
#include <string>
#include <utility>

#include "absl/strings/escaping.h"

namespace chromium {
namespace {

void Premultiply(std::string* pixels) {
  for (std::size_t i = 0; i + 3 < pixels->size(); i += 4) {
    const auto alpha = static_cast<unsigned char>((*pixels)[i + 3]);
    for (std::size_t j = i; j < i + 3; ++j) {
      const auto color = static_cast<unsigned char>((*pixels)[j]);
      (*pixels)[j] = static_cast<char>((color * alpha + 127) / 255);
    }
  }
}

}  // namespace

std::optional<rpc::Bitmap> BitmapOf(const Json& image, int max_side) {
  const double width = Number(image, "width");
  const double height = Number(image, "height");
  std::string pixels;
  if (!(width >= 1) || width > max_side || !(height >= 1) ||
      height > max_side ||
      !absl::Base64Unescape(Text(image, "pixels"), &pixels)) {
    return std::nullopt;
  }
  rpc::Bitmap bitmap;
  bitmap.mutable_size()->set_width(static_cast<int>(width));
  bitmap.mutable_size()->set_height(static_cast<int>(height));
  const auto size = static_cast<std::size_t>(bitmap.size().width()) *
                    static_cast<std::size_t>(bitmap.size().height());
  if (pixels.size() != 4 * size) return std::nullopt;
  Premultiply(&pixels);
  bitmap.set_format(rpc::PIXEL_FORMAT_RGBA_8888_PREMULTIPLIED);
  bitmap.set_pixels(std::move(pixels));
  bitmap.set_scale_factor(1);
  return bitmap;
}

}  // namespace chromium
