#include "examples/host/image.h"

#include <fstream>
#include <iterator>
#include <string>

#include "gtest/gtest.h"

#include "host/pixels.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"

namespace host {
namespace {

// A row of pixels.
orvane::host::Picture PictureOf(const std::string& bgra) {
  rpc::Bitmap bitmap;
  bitmap.mutable_size()->set_width(static_cast<int>(bgra.size() / 4));
  bitmap.mutable_size()->set_height(1);
  bitmap.set_format(rpc::PIXEL_FORMAT_BGRA_8888_PREMULTIPLIED);
  bitmap.set_pixels(bgra);
  orvane::host::Picture picture;
  EXPECT_EQ(picture.Update(bitmap), absl::OkStatus());
  return picture;
}

TEST(Image, TheAverageIsInRedGreenAndBlue) {
  EXPECT_EQ(AverageColor(PictureOf("\x01\x02\xff\xff\x03\x04\xff\xff")),
            "#ff0302");
}

TEST(Image, ASavedImageIsAPixmapOfRedGreenAndBlue) {
  const orvane::testing::TemporaryFolder folder;
  const std::string path = folder.path() + "/image.ppm";
  ASSERT_EQ(SavePpm(PictureOf("bgraBGRA"), path), absl::OkStatus());
  std::ifstream file(path, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}),
            "P6\n2 1\n255\nrgbRGB");
}

TEST(Image, AFileThatCannotBeWrittenIsToldInWords) {
  EXPECT_EQ(SavePpm(PictureOf("bgra"), "/nowhere/image.ppm").message(),
            "cannot write /nowhere/image.ppm");
}

}  // namespace
}  // namespace host
