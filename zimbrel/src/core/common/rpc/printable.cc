#include "zimbrel/src/core/common/rpc/printable.h"

#include <algorithm>
#include <array>

#include "absl/strings/escaping.h"

#include "zimbrel/src/core/common/rpc/characters.h"

namespace orvane {
namespace {

struct Range {
  char32_t first;
  char32_t last;

  bool Has(char32_t character) const {
    return first <= character && character <= last;
  }
};

constexpr std::array<Range, 5> kNotShown = {{
    {0x00, 0x1f},
    {0x7f, 0x9f},      // One of these begins an escape sequence, like ESC.
    {0x200e, 0x200f},  // Direction marks.
    {0x2028, 0x202e},  // Ends of lines and paragraphs, directions.
    {0x2066, 0x2069},  // Directions too.
}};

bool IsShown(char32_t character) {
  return std::none_of(
      kNotShown.begin(), kNotShown.end(),
      [character](Range range) { return range.Has(character); });
}

}  // namespace

std::string Printable(absl::string_view text, std::size_t max_bytes) {
  std::string printable;
  for (std::size_t at = 0; at < text.size();) {
    const Utf8Character first = FirstCharacter(text.substr(at));
    const bool is_shown = first.bytes > 0 && IsShown(first.code);
    const std::size_t length = is_shown ? first.bytes : 1;
    if (at + length > max_bytes) return printable + "...";
    const absl::string_view character = text.substr(at, length);
    printable += is_shown ? std::string(character) : absl::CEscape(character);
    at += length;
  }
  return printable;
}

}  // namespace orvane
