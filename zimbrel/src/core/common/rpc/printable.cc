#include "zimbrel/src/core/common/rpc/printable.h"

#include <algorithm>
#include <array>

#include "absl/strings/escaping.h"

namespace orvane {
namespace {

struct Range {
  char32_t first;
  char32_t last;

  bool Has(char32_t character) const {
    return first <= character && character <= last;
  }
};

constexpr std::array<Range, 6> kNotShown = {{
    {0x00, 0x1f},
    {0x7f, 0x9f},      // One of these begins an escape sequence, like ESC.
    {0x200e, 0x200f},  // Direction marks.
    {0x2028, 0x202e},  // Ends of lines and paragraphs, directions.
    {0x2066, 0x2069},  // Directions too.
    {0xd800, 0xdfff},  // Halves of characters in UTF-16.
}};

// The length in bytes of the UTF-8 character at the beginning of the text; 0 if
// there is none, or none to be shown.
std::size_t LengthOfShown(absl::string_view text) {
  const auto byte = [text](std::size_t i) {
    return static_cast<unsigned char>(text[i]);
  };
  struct Form {
    Range lead;
    Range characters;  // Others have a shorter form, or none.
  };
  constexpr std::array<Form, 4> kForms = {
      {{{0x00, 0x7f}, {0x00, 0x7f}},
       {{0xc0, 0xdf}, {0x80, 0x7ff}},
       {{0xe0, 0xef}, {0x800, 0xffff}},
       {{0xf0, 0xf7}, {0x10000, 0x10ffff}}}};
  for (std::size_t more = 0; more < kForms.size(); ++more) {
    const Form& form = kForms[more];
    if (!form.lead.Has(byte(0))) continue;
    if (text.size() <= more) return 0;
    char32_t character = byte(0) - form.lead.first;
    for (std::size_t i = 1; i <= more; ++i) {
      if ((byte(i) & 0xc0) != 0x80) return 0;
      character = character << 6 | (byte(i) & 0x3f);
    }
    const bool is_shown =
        form.characters.Has(character) &&
        std::none_of(kNotShown.begin(), kNotShown.end(),
                     [character](Range range) { return range.Has(character); });
    return is_shown ? more + 1 : 0;
  }
  return 0;
}

}  // namespace

std::string Printable(absl::string_view text, std::size_t max_bytes) {
  std::string printable;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t shown = LengthOfShown(text.substr(at));
    const std::size_t length = std::max<std::size_t>(shown, 1);
    if (at + length > max_bytes) return printable + "...";
    const absl::string_view character = text.substr(at, length);
    printable += shown > 0 ? std::string(character) : absl::CEscape(character);
    at += length;
  }
  return printable;
}

}  // namespace orvane
