// Characters of UTF-8.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_CHARACTERS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_CHARACTERS_H_

#include <cstddef>

#include "absl/strings/string_view.h"

namespace orvane {

struct Utf8Character {
  std::size_t bytes = 0;  // 0: the text does not begin with a character.
  char32_t code = 0;
};

// The character that a text begins with. Of those that can be written with a
// different number of bytes, only the shortest form counts; halves of UTF-16 do
// not count either.
Utf8Character FirstCharacter(absl::string_view text);

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_CHARACTERS_H_
