#include "engines/chromium/picture.h"

#include <png.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/escaping.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"

namespace chromium {
namespace {

constexpr std::size_t kBytesPerPixel = 4;
constexpr std::int32_t kTile = 64;

}  // namespace

absl::StatusOr<Picture> DecodePicture(
    absl::string_view base64, std::int32_t width, std::int32_t height,
    std::unique_ptr<widget_server::SharedPixels> memory) {
  std::string bytes;
  if (!absl::Base64Unescape(base64, &bytes))
    return absl::InvalidArgumentError("a picture that is not in base64");
  png_image image = {};
  image.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_memory(&image, bytes.data(), bytes.size()) ==
      0) {
    return absl::InvalidArgumentError(
        absl::StrCat("a picture that is not a PNG: ", image.message));
  }
  if (image.width != static_cast<png_uint_32>(width) ||
      image.height != static_cast<png_uint_32>(height)) {
    const std::string size = absl::StrCat(image.width, " x ", image.height);
    png_image_free(&image);
    return absl::InvalidArgumentError(absl::StrCat(
        "a picture of ", size, " pixels for a view of ", width, " x ", height));
  }
  const std::size_t length = kBytesPerPixel * static_cast<std::size_t>(width) *
                             static_cast<std::size_t>(height);
  if (memory == nullptr || memory->bytes().size() != length) {
    memory.reset();  // Before there is more.
    auto created = widget_server::SharedPixels::Create(length);
    if (!created.ok()) {
      png_image_free(&image);
      return created.status();
    }
    memory = *std::move(created);
  }
  image.format = PNG_FORMAT_BGRA;
  if (png_image_finish_read(&image, nullptr, memory->bytes().data(),
                            /*row_stride=*/0, nullptr) == 0) {
    return absl::InvalidArgumentError(
        absl::StrCat("a picture that is damaged: ", image.message));
  }
  return Picture{width, height, std::move(memory)};
}

std::vector<rpc::RectPx> FindDamage(std::span<const std::uint8_t> before,
                                    std::span<const std::uint8_t> after,
                                    std::int32_t width, std::int32_t height) {
  std::vector<rpc::RectPx> damage;
  for (std::int32_t top = 0; top < height; top += kTile) {
    const std::int32_t bottom = std::min(top + kTile, height);
    bool goes_on = false;  // The tile to the left has changed too.
    for (std::int32_t left = 0; left < width; left += kTile) {
      const std::int32_t right = std::min(left + kTile, width);
      bool has_changed = false;
      for (std::int32_t y = top; y < bottom && !has_changed; ++y) {
        const std::size_t at =
            kBytesPerPixel *
            (static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
             static_cast<std::size_t>(left));
        has_changed =
            std::memcmp(
                &before[at], &after[at],
                kBytesPerPixel * static_cast<std::size_t>(right - left)) != 0;
      }
      if (has_changed && goes_on) {
        damage.back().set_width(right - damage.back().x());
      } else if (has_changed) {
        rpc::RectPx& rect = damage.emplace_back();
        rect.set_x(left);
        rect.set_y(top);
        rect.set_width(right - left);
        rect.set_height(bottom - top);
      }
      goes_on = has_changed;
    }
  }
  return damage;
}

}  // namespace chromium
