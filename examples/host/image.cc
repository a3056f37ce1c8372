#include "examples/host/image.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <span>

#include "absl/strings/str_cat.h"

namespace host {
namespace {

constexpr std::size_t kBytesPerPixel = 4;

}  // namespace

std::string AverageColor(const orvane::host::Picture& picture) {
  const std::span<const std::uint8_t> bgra = picture.pixels();
  std::array<std::uint64_t, 3> sums = {};
  for (std::size_t at = 0; at < bgra.size(); at += kBytesPerPixel) {
    for (std::size_t color = 0; color < sums.size(); ++color)
      sums[color] += bgra[at + color];
  }
  std::string name = "#";
  std::reverse(sums.begin(), sums.end());  // To red, green, blue.
  for (const std::uint64_t sum : sums) {
    absl::StrAppend(&name, absl::Hex(sum / (bgra.size() / kBytesPerPixel),
                                     absl::kZeroPad2));
  }
  return name;
}

absl::Status SavePpm(const orvane::host::Picture& picture,
                     const std::string& path) {
  const std::span<const std::uint8_t> bgra = picture.pixels();
  std::ofstream file(path, std::ios::binary);
  file << "P6\n" << picture.width() << " " << picture.height() << "\n255\n";
  for (std::size_t at = 0; at < bgra.size(); at += kBytesPerPixel) {
    file.put(static_cast<char>(bgra[at + 2]))
        .put(static_cast<char>(bgra[at + 1]))
        .put(static_cast<char>(bgra[at]));
  }
  file.close();
  if (!file) return absl::UnavailableError("cannot write " + path);
  return absl::OkStatus();
}

}  // namespace host
