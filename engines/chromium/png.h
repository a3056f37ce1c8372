// For tests: pictures as the engine sends them.

#ifndef ENGINES_CHROMIUM_PNG_H_
#define ENGINES_CHROMIUM_PNG_H_

#include <png.h>

#include <cstdint>
#include <string>
#include <vector>

#include "absl/strings/escaping.h"
#include "gtest/gtest.h"

namespace chromium {

// A PNG of one colour, in base64.
inline std::string Png(std::uint32_t width, std::uint32_t height,
                       std::uint8_t red, std::uint8_t green,
                       std::uint8_t blue) {
  std::vector<std::uint8_t> pixels;
  for (std::uint32_t i = 0; i < width * height; ++i)
    pixels.insert(pixels.end(), {red, green, blue});
  png_image image = {};
  image.version = PNG_IMAGE_VERSION;
  image.width = width;
  image.height = height;
  image.format = PNG_FORMAT_RGB;
  std::string bytes(1 << 20, '\0');
  png_alloc_size_t length = bytes.size();
  EXPECT_NE(png_image_write_to_memory(&image, bytes.data(), &length, 0,
                                      pixels.data(), 0, nullptr),
            0);
  bytes.resize(length);
  return absl::Base64Escape(bytes);
}

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_PNG_H_
