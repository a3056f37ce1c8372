#include "engines/chromium/picture.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "engines/chromium/png.h"

namespace chromium {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(DecodePicture, GivesBlueGreenRedAndOpaqueAlpha) {
  const auto picture = DecodePicture(Png(2, 3, 10, 20, 30), 2, 3, nullptr);
  ASSERT_TRUE(picture.ok()) << picture.status();
  const auto bytes = picture->pixels->bytes();
  ASSERT_EQ(bytes.size(), 24u);
  for (std::size_t at = 0; at < bytes.size(); at += 4) {
    EXPECT_THAT(bytes.subspan(at, 4), ElementsAre(30, 20, 10, 255));
  }
}

TEST(DecodePicture, UsesMemoryOfTheRightLengthAgain) {
  auto first = DecodePicture(Png(2, 2, 1, 2, 3), 2, 2, nullptr);
  ASSERT_TRUE(first.ok());
  const std::string name = first->pixels->name();
  auto second =
      DecodePicture(Png(2, 2, 4, 5, 6), 2, 2, std::move(first->pixels));
  ASSERT_TRUE(second.ok());
  EXPECT_EQ(second->pixels->name(), name);
  const auto third =
      DecodePicture(Png(2, 1, 4, 5, 6), 2, 1, std::move(second->pixels));
  ASSERT_TRUE(third.ok());
  EXPECT_NE(third->pixels->name(), name);
}

TEST(DecodePicture, RefusesAnotherSizeInWords) {
  EXPECT_EQ(DecodePicture(Png(2, 3, 0, 0, 0), 3, 2, nullptr).status(),
            absl::InvalidArgumentError(
                "a picture of 2 x 3 pixels for a view of 3 x 2"));
}

TEST(DecodePicture, RefusesWhatIsNoPicture) {
  const std::string whole = Png(64, 64, 1, 2, 3);
  for (const std::string& text :
       {std::string(), std::string("?"), absl::Base64Escape("no PNG at all"),
        whole.substr(0, whole.size() / 2 / 4 * 4)}) {
    EXPECT_TRUE(
        absl::IsInvalidArgument(DecodePicture(text, 64, 64, nullptr).status()))
        << text;
  }
}

// Damage

class DamageTest : public ::testing::Test {
 protected:
  // "x,y w*h" of each rectangle.
  std::vector<std::string> Damage() const {
    std::vector<std::string> all;
    for (const rpc::RectPx& rect :
         FindDamage(before_, after_, kWidth, kHeight)) {
      all.push_back(std::to_string(rect.x()) + "," + std::to_string(rect.y()) +
                    " " + std::to_string(rect.width()) + "*" +
                    std::to_string(rect.height()));
    }
    return all;
  }
  void Change(std::size_t x, std::size_t y) {
    after_[4 * (y * kWidth + x) + 2] ^= 1;
  }

  static constexpr int kWidth = 200;  // Three tiles and a bit.
  static constexpr int kHeight = 130;
  std::vector<std::uint8_t> before_ =
      std::vector<std::uint8_t>(4 * kWidth * kHeight, 7);
  std::vector<std::uint8_t> after_ = before_;
};

TEST_F(DamageTest, IsNoneWhereNothingChanged) {
  EXPECT_THAT(Damage(), IsEmpty());
}

TEST_F(DamageTest, IsTheTileOfAPixel) {
  Change(63, 63);
  EXPECT_THAT(Damage(), ElementsAre("0,0 64*64"));
}

TEST_F(DamageTest, EndsWithThePicture) {
  Change(199, 129);
  EXPECT_THAT(Damage(), ElementsAre("192,128 8*2"));
}

TEST_F(DamageTest, JoinsNeighboursInARow) {
  Change(0, 0);
  Change(64, 0);
  Change(199, 0);
  Change(128, 64);
  EXPECT_THAT(Damage(),
              ElementsAre("0,0 128*64", "192,0 8*64", "128,64 64*64"));
}

}  // namespace
}  // namespace chromium
