#include "zimbrel/src/core/common/rpc/characters.h"

#include "gtest/gtest.h"

namespace orvane {
namespace {

TEST(Characters, ACharacterHasOneToFourBytes) {
  const auto is_first = [](absl::string_view text, std::size_t bytes,
                           char32_t code) {
    const Utf8Character first = FirstCharacter(text);
    EXPECT_EQ(first.bytes, bytes) << text;
    EXPECT_EQ(first.code, code) << text;
  };
  is_first("az", 1, U'a');
  is_first(absl::string_view("\0", 1), 1, 0);
  is_first("\x7f", 1, 0x7f);
  is_first("\xc2\x80z", 2, 0x80);
  is_first("\u00e4", 2, 0xe4);
  is_first("\u20ac", 3, 0x20ac);
  is_first("\xed\x9f\xbf", 3, 0xd7ff);
  is_first("\xee\x80\x80", 3, 0xe000);
  is_first("\U0001f600", 4, 0x1f600);
  is_first("\xf4\x8f\xbf\xbf", 4, 0x10ffff);
}

TEST(Characters, OtherBytesAreNone) {
  for (const absl::string_view text :
       {"", "\x80", "\xbfz", "\xff", "\xc3", "\xc3z", "\xe2\x82", "\xe2z\x82",
        "\xf0\x9f\x98", "\xf8\x88\x80\x80\x80",
        // Longer than they need to be.
        "\xc0\x80", "\xc1\xbf", "\xe0\x80\x80", "\xe0\x9f\xbf",
        "\xf0\x8f\xbf\xbf",
        // Halves of UTF-16, and beyond the last one.
        "\xed\xa0\x80", "\xed\xbf\xbf", "\xf4\x90\x80\x80"}) {
    EXPECT_EQ(FirstCharacter(text).bytes, 0u) << text;
  }
}

}  // namespace
}  // namespace orvane
