#include "examples/host/image.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>

#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/testing/text.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace host {
namespace {

using ::orvane::testing::Parsed;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr char kFormat[] = " format: PIXEL_FORMAT_BGRA_8888_PREMULTIPLIED ";

// A shared-memory object with these bytes.
class Memory {
 public:
  explicit Memory(const std::string& bytes)
      : name_(absl::StrCat("/orvane-image-test-", ::getpid())) {
    const orvane::OwnedDescriptor object(
        ::shm_open(name_.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600));
    EXPECT_EQ(::write(object.get(), bytes.data(), bytes.size()),
              static_cast<ssize_t>(bytes.size()));
  }
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;
  ~Memory() { ::shm_unlink(name_.c_str()); }

  // A frame of 1 x 2 pixels in it, with a stride of 8 bytes.
  rpc::PixelFrame Frame(std::uint64_t offset, std::uint64_t length) const {
    return Parsed<rpc::PixelFrame>(absl::StrCat(
        "size { width: 1 height: 2 } stride_bytes: 8", kFormat,
        "shared_memory { name: '", name_, "' offset_bytes: ", offset,
        " length_bytes: ", length, " }"));
  }

 private:
  const std::string name_;
};

std::string Refusal(const rpc::PixelFrame& frame) {
  return std::string(ReadFrame(frame).status().message());
}

std::string RefusalOfLayout(const std::string& layout) {
  return Refusal(
      Parsed<rpc::PixelFrame>(layout + " inline_pixels: 'abcdefgh'"));
}

// Frames that are drawn

TEST(Image, RowsAreCopiedWithoutTheGapsBetweenThem) {
  const Memory memory("....abcd----efgh----");
  const auto image = ReadFrame(memory.Frame(4, 16));
  ASSERT_TRUE(image.ok()) << image.status();
  EXPECT_EQ(image->width, 1u);
  EXPECT_EQ(image->height, 2u);
  EXPECT_THAT(image->bgra, ElementsAre('a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'));
}

TEST(Image, PixelsMayBeginBehindThePagesBoundary) {
  const Memory memory(std::string(5001, '.') + "abcd----efgh----");
  const auto image = ReadFrame(memory.Frame(5001, 16));
  ASSERT_TRUE(image.ok()) << image.status();
  EXPECT_EQ(image->bgra.front(), 'a');
  EXPECT_EQ(image->bgra.back(), 'h');
}

TEST(Image, PixelsMayLieInTheMessage) {
  const auto image = ReadFrame(Parsed<rpc::PixelFrame>(
      absl::StrCat("size { width: 2 height: 1 } stride_bytes: 8", kFormat,
                   "inline_pixels: 'abcdefgh'")));
  ASSERT_TRUE(image.ok()) << image.status();
  EXPECT_EQ(image->bgra.size(), 8u);
}

// Frames that are refused

TEST(Image, AFrameBeyondTheEndOfItsMemoryIsRefused) {
  const Memory memory(std::string(16, '.'));
  EXPECT_TRUE(ReadFrame(memory.Frame(0, 16)).ok());
  EXPECT_EQ(Refusal(memory.Frame(1, 16)),
            "a frame of 16 bytes from byte 1 of a shared-memory object of 16");
  EXPECT_EQ(Refusal(memory.Frame(17, 16)),
            "a frame of 16 bytes from byte 17 of a shared-memory object of 16");
  EXPECT_THAT(Refusal(memory.Frame(~std::uint64_t{0}, 16)),
              HasSubstr("of a shared-memory object of 16"));
}

TEST(Image, ARangeThatDoesNotHoldTheFrameIsRefused) {
  const Memory memory(std::string(16, '.'));
  EXPECT_EQ(Refusal(memory.Frame(0, 15)),
            "a frame of 16 bytes in a range of 15 bytes of shared memory");
  EXPECT_EQ(
      Refusal(memory.Frame(0, (std::uint64_t{1} << 30) + 1)),
      "a frame of 16 bytes in a range of 1073741825 bytes of shared memory");
}

TEST(Image, MemoryThatIsGoneIsRefused) {
  const auto frame = Memory("").Frame(0, 16);
  EXPECT_THAT(Refusal(frame), HasSubstr("No such file or directory"));
}

TEST(Image, SidesBeyondTheLimitsAreRefused) {
  for (const char* const size :
       {"width: 0 height: 1", "width: 1 height: 0", "width: -1 height: 1",
        "width: 16385 height: 1", "width: 1 height: 16385"}) {
    EXPECT_THAT(RefusalOfLayout(absl::StrCat("size { ", size,
                                             " } stride_bytes: 8", kFormat)),
                HasSubstr("each side has 1 to 16384"));
  }
}

TEST(Image, RowsThatDoNotFitAreRefused) {
  const std::string size = absl::StrCat("size { width: 2 height: 16384 }",
                                        kFormat, "stride_bytes: ");
  for (const char* const stride : {"4", "9", "65540"}) {
    EXPECT_THAT(RefusalOfLayout(size + stride),
                HasSubstr("it must be a multiple of 4 and at least 8, and "
                          "the frame at most 1073741824 bytes"));
  }
}

TEST(Image, AnotherPixelFormatIsRefused) {
  EXPECT_EQ(RefusalOfLayout("size { width: 2 height: 1 } stride_bytes: 8"),
            "a frame of pixel format 0; this host only draws format 1");
}

TEST(Image, PixelsInTheMessageHaveToBeExactlyThoseOfTheFrame) {
  EXPECT_EQ(
      RefusalOfLayout(
          absl::StrCat("size { width: 2 height: 2 } stride_bytes: 8", kFormat)),
      "a frame of 16 bytes with 8 bytes in the message; the limit is 1048576");
}

TEST(Image, AFrameWithoutPixelsIsRefused) {
  EXPECT_EQ(Refusal(Parsed<rpc::PixelFrame>(absl::StrCat(
                "size { width: 2 height: 1 } stride_bytes: 8", kFormat))),
            "a frame without pixels");
}

// What can be done with an image

TEST(Image, TheAverageIsInRedGreenAndBlue) {
  EXPECT_EQ(AverageColor({2, 1, {1, 2, 255, 255, 3, 4, 255, 255}}), "#ff0302");
}

TEST(Image, ASavedImageIsAPixmapOfRedGreenAndBlue) {
  const orvane::testing::TemporaryFolder folder;
  const std::string path = folder.path() + "/image.ppm";
  ASSERT_EQ(SavePpm({2, 1, {'b', 'g', 'r', 'a', 'B', 'G', 'R', 'A'}}, path),
            absl::OkStatus());
  std::ifstream file(path, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}),
            "P6\n2 1\n255\nrgbRGB");
}

TEST(Image, AFileThatCannotBeWrittenIsToldInWords) {
  EXPECT_EQ(SavePpm({1, 1, {0, 0, 0, 0}}, "/nowhere/image.ppm").message(),
            "cannot write /nowhere/image.ppm");
}

}  // namespace
}  // namespace host
