#include "zimbrel/src/core/common/rpc/characters.h"

namespace orvane {

Utf8Character FirstCharacter(absl::string_view text) {
  const auto byte = [text](std::size_t i) {
    return static_cast<unsigned char>(text[i]);
  };
  struct Form {
    unsigned char mask;  // Of the bits that tell the form.
    unsigned char bits;
    char32_t first;  // Those before have a shorter form.
  };
  constexpr Form kForms[] = {{0x80, 0x00, 0x0},
                             {0xe0, 0xc0, 0x80},
                             {0xf0, 0xe0, 0x800},
                             {0xf8, 0xf0, 0x10000}};
  if (text.empty()) return {};
  std::size_t bytes = 0;
  for (const Form& form : kForms) {
    ++bytes;
    if ((byte(0) & form.mask) != form.bits) continue;
    if (text.size() < bytes) return {};
    char32_t code = byte(0) & ~form.mask;
    for (std::size_t i = 1; i < bytes; ++i) {
      if ((byte(i) & 0xc0) != 0x80) return {};
      code = code << 6 | (byte(i) & 0x3f);
    }
    const bool is_half = code >= 0xd800 && code <= 0xdfff;
    if (code < form.first || code > 0x10ffff || is_half) return {};
    return {bytes, code};
  }
  return {};
}

}  // namespace orvane
