#include "host/pixels.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <thread>
#include <utility>

#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/owned_descriptor.h"
#include "zimbrel/src/core/common/rpc/testing/text.h"

namespace orvane::host {
namespace {

using ::orvane::testing::Parsed;
using ::testing::HasSubstr;

constexpr char kFormat[] = " format: PIXEL_FORMAT_BGRA_8888_PREMULTIPLIED ";

std::string NewName() {
  static int count = 0;
  return absl::StrCat("/orvane-pixels-test-", ::getpid(), "-", ++count);
}

// A shared-memory object with these bytes.
class Memory {
 public:
  explicit Memory(const std::string& bytes)
      : object_(::shm_open(name_.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600)) {
    Write(bytes);
  }
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;
  ~Memory() { ::shm_unlink(name_.c_str()); }

  void Write(const std::string& bytes) {
    EXPECT_EQ(::pwrite(object_.get(), bytes.data(), bytes.size(), 0),
              static_cast<ssize_t>(bytes.size()));
  }
  void Resize(off_t length) {
    EXPECT_EQ(::ftruncate(object_.get(), length), 0);
  }
  int descriptor() const { return object_.get(); }
  const std::string& name() const { return name_; }

  // A frame of 1 x 2 pixels in it, with a stride of 8 bytes.
  rpc::PixelFrame Frame(std::uint64_t offset, std::uint64_t length) const {
    return Parsed<rpc::PixelFrame>(absl::StrCat(
        "size { width: 1 height: 2 } stride_bytes: 8", kFormat,
        "shared_memory { name: '", name_, "' offset_bytes: ", offset,
        " length_bytes: ", length, " }"));
  }

 private:
  const std::string name_ = NewName();
  const OwnedDescriptor object_;
};

rpc::PixelFrame FrameIn(const std::string& name) {
  return Parsed<rpc::PixelFrame>(
      absl::StrCat("size { width: 1 height: 1 } stride_bytes: 4", kFormat,
                   "shared_memory { name: '", name, "' length_bytes: 4 }"));
}

// A frame of one row of pixels, in the message.
rpc::PixelFrame Inline(const std::string& pixels,
                       const std::string& format = kFormat) {
  auto frame = Parsed<rpc::PixelFrame>(
      absl::StrCat("size { width: ", pixels.size() / 4,
                   " height: 1 } stride_bytes: ", pixels.size(), format));
  frame.set_inline_pixels(pixels);
  return frame;
}

// A frame of one pixel a row, in the message.
rpc::PixelFrame Column(const std::string& pixels, const std::string& damage) {
  auto frame = Parsed<rpc::PixelFrame>(
      absl::StrCat("size { width: 1 height: ", pixels.size() / 4,
                   " } stride_bytes: 4", kFormat, damage));
  frame.set_inline_pixels(pixels);
  return frame;
}

std::string BytesOf(const Picture& picture) {
  return {picture.pixels().begin(), picture.pixels().end()};
}

std::string Copied(const rpc::PixelFrame& frame) {
  Picture picture;
  const absl::Status status = picture.Update(frame);
  return status.ok() ? BytesOf(picture) : std::string(status.message());
}

std::string RefusalOfLayout(const std::string& layout) {
  return Copied(Parsed<rpc::PixelFrame>(layout + " inline_pixels: 'abcdefgh'"));
}

// Pictures that are copied

TEST(Pixels, RowsAreCopiedWithoutTheGapsBetweenThem) {
  const Memory memory("....abcd----efgh----");
  Picture picture;
  ASSERT_EQ(picture.Update(memory.Frame(4, 16)), absl::OkStatus());
  EXPECT_EQ(picture.width(), 1);
  EXPECT_EQ(picture.height(), 2);
  EXPECT_EQ(picture.stride_bytes(), 4);
  EXPECT_EQ(BytesOf(picture), "abcdefgh");
}

TEST(Pixels, PixelsMayBeginBehindThePagesBoundary) {
  const Memory memory(absl::StrCat(std::string(5001, '.'), "abcd----efgh----"));
  EXPECT_EQ(Copied(memory.Frame(5001, 16)), "abcdefgh");
}

TEST(Pixels, PixelsMayLieInTheMessage) {
  EXPECT_EQ(Copied(Inline("abcdefgh")), "abcdefgh");
}

TEST(Pixels, EveryFormatOfFourBytesBecomesBgra) {
  const std::string format = " format: PIXEL_FORMAT_";
  EXPECT_EQ(Copied(Inline("abcd", format + "BGRA_8888_PREMULTIPLIED")), "abcd");
  EXPECT_EQ(Copied(Inline("abcd", format + "RGBA_8888_PREMULTIPLIED")), "cbad");
  EXPECT_EQ(Copied(Inline("abcd", format + "BGRX_8888")), "abc\xff");
  EXPECT_EQ(Copied(Inline("abcd", format + "RGBX_8888")), "cba\xff");
}

TEST(Pixels, TheGapsOfTheCallersBufferAreLeftAlone) {
  const Memory memory("abcd----efgh----");
  std::string buffer = "0123456789AB.";
  const PixelBuffer target{{reinterpret_cast<std::uint8_t*>(buffer.data()), 12},
                           8};
  EXPECT_EQ(CopyPixels(memory.Frame(0, 16), target), absl::OkStatus());
  EXPECT_EQ(buffer, "abcd4567efgh.");
}

TEST(Pixels, ABufferThatIsTooSmallIsRefused) {
  const Memory memory("abcd----efgh----");
  std::array<std::uint8_t, 12> buffer{};
  const std::span<std::uint8_t> bytes = buffer;
  EXPECT_EQ(CopyPixels(memory.Frame(0, 16), {bytes.first(11), 8}).message(),
            "a picture of 1 x 2 pixels for a buffer of 11 bytes with a stride "
            "of 8");
  EXPECT_FALSE(CopyPixels(memory.Frame(0, 16), {bytes, 3}).ok());
  EXPECT_FALSE(CopyPixels(memory.Frame(0, 16), {bytes.first(3), 8}).ok());
  EXPECT_FALSE(CopyPixels(memory.Frame(0, 16), {bytes, ~std::size_t{0}}).ok());
  EXPECT_FALSE(CopyPixels(memory.Frame(0, 16), {{}, 0}).ok());
}

TEST(Pixels, TheScaleIsTheWidgetsUnlessItIsNonsense) {
  rpc::PixelFrame frame = Inline("abcd");
  const auto scale_for = [&frame](double said) {
    frame.set_scale_factor(said);
    Picture picture;
    EXPECT_EQ(picture.Update(frame), absl::OkStatus());
    return picture.scale_factor();
  };
  EXPECT_EQ(scale_for(1.5), 1.5);
  EXPECT_EQ(scale_for(0), 1);
  EXPECT_EQ(scale_for(-1), 1);
  EXPECT_EQ(scale_for(std::numeric_limits<double>::quiet_NaN()), 1);
  EXPECT_EQ(scale_for(std::numeric_limits<double>::infinity()), 1);
  EXPECT_EQ(scale_for(1e-300), 1);
  EXPECT_EQ(scale_for(1e300), 1);
}

// Damage

TEST(Pixels, OnlyDamagedRowsAreCopied) {
  Picture picture;
  ASSERT_EQ(picture.Update(Column("aaaabbbbccccdddd", "")), absl::OkStatus());
  ASSERT_EQ(picture.Update(Column("AAAABBBBCCCCDDDD",
                                  "damage { y: 1 width: 1 height: 1 }"
                                  "damage { y: 3 width: 1 height: 1 }")),
            absl::OkStatus());
  EXPECT_EQ(BytesOf(picture), "aaaaBBBBccccDDDD");
}

TEST(Pixels, DamageMayOverlapAndReachBeyondThePicture) {
  Picture picture;
  ASSERT_EQ(picture.Update(Column("aaaabbbbccccdddd", "")), absl::OkStatus());
  ASSERT_EQ(
      picture.Update(Column(
          "AAAABBBBCCCCDDDD",
          "damage { y: -5 width: 1 height: 7 }"
          "damage { y: 1 width: 2147483647 height: 1 }"
          "damage { y: 0 width: 1 height: -1 }"
          "damage { x: 1 y: 2 width: 1 height: 2 }"
          "damage { x: 2147483647 y: 2147483647 width: 2147483647 height: "
          "2147483647 }")),
      absl::OkStatus());
  EXPECT_EQ(BytesOf(picture), "AAAABBBBccccdddd");
}

TEST(Pixels, APictureOfAnotherSizeIsCopiedWhole) {
  Picture picture;
  ASSERT_EQ(picture.Update(Column("aaaabbbb", "")), absl::OkStatus());
  ASSERT_EQ(picture.Update(
                Column("AAAABBBBCCCC", "damage { y: 1 width: 1 height: 1 }")),
            absl::OkStatus());
  EXPECT_EQ(BytesOf(picture), "AAAABBBBCCCC");
}

TEST(Pixels, ARefusedFrameLeavesThePictureAsItWas) {
  Picture picture;
  ASSERT_EQ(picture.Update(Inline("abcdefgh")), absl::OkStatus());
  EXPECT_FALSE(picture.Update(FrameIn("/orvane-nowhere")).ok());
  EXPECT_EQ(BytesOf(picture), "abcdefgh");
}

TEST(Pixels, TheDamageToDrawIsOneRectangleInsideThePicture) {
  const auto damage = [](const std::string& rectangles) {
    return DamageOf(Parsed<rpc::PixelFrame>("size { width: 9 height: 8 } " +
                                            rectangles))
        .ShortDebugString();
  };
  EXPECT_EQ(damage(""), "width: 9 height: 8");
  EXPECT_EQ(damage("damage { x: 1 y: 2 width: 3 height: 1 }"
                   "damage { x: 6 y: 3 width: 99 height: 1 }"),
            "x: 1 y: 2 width: 8 height: 2");
  EXPECT_EQ(damage("damage { x: 9 width: 1 height: 1 }"), "");
}

// Receipts

TEST(Pixels, AReceiptTellsWhetherTheFrameWasCopied) {
  const auto frame = Parsed<rpc::PixelFrame>("frame_id: 4711");
  EXPECT_EQ(ReceiptFor(frame, absl::OkStatus()).ShortDebugString(),
            "frame_id: 4711 outcome: FRAME_OUTCOME_PRESENTED");
  EXPECT_EQ(ReceiptFor(frame, absl::UnavailableError("")).ShortDebugString(),
            "frame_id: 4711 outcome: FRAME_OUTCOME_DISCARDED");
}

// Frames that are refused

TEST(Pixels, AFrameBeyondTheEndOfItsMemoryIsRefused) {
  const Memory memory(std::string(16, '.'));
  EXPECT_EQ(Copied(memory.Frame(0, 16)), "........");
  EXPECT_EQ(
      Copied(memory.Frame(1, 16)),
      "a picture of 16 bytes from byte 1 of a shared-memory object of 16");
  EXPECT_EQ(
      Copied(memory.Frame(17, 16)),
      "a picture of 16 bytes from byte 17 of a shared-memory object of 16");
  EXPECT_THAT(Copied(memory.Frame(~std::uint64_t{0}, 16)),
              HasSubstr("of a shared-memory object of 16"));
}

TEST(Pixels, ARangeThatDoesNotHoldTheFrameIsRefused) {
  const Memory memory(std::string(16, '.'));
  EXPECT_EQ(Copied(memory.Frame(0, 15)),
            "a picture of 16 bytes in a range of 15 bytes of shared memory");
  EXPECT_EQ(Copied(memory.Frame(0, (std::uint64_t{1} << 30) + 1)),
            "a picture of 16 bytes in a range of 1073741825 bytes of shared "
            "memory");
}

TEST(Pixels, MemoryThatIsGoneIsRefused) {
  const auto frame = Memory("").Frame(0, 16);
  EXPECT_THAT(Copied(frame), HasSubstr("No such file or directory"));
}

// A page boundary lies between the rows, and a reader that had mapped the
// memory would be killed.
TEST(Pixels, MemoryThatIsShortenedMeanwhileIsAnErrorAndNotAFault) {
  constexpr off_t kLength = 4 << 20;
  Memory memory("");
  memory.Resize(kLength);
  const auto frame = Parsed<rpc::PixelFrame>(
      absl::StrCat("size { width: 1024 height: 1024 } stride_bytes: 4096",
                   kFormat, "shared_memory { name: '", memory.name(),
                   "' length_bytes: ", kLength, " }"));
  std::atomic<bool> is_over = false;
  std::thread widget([&] {
    while (!is_over) {
      memory.Resize(0);
      memory.Resize(kLength);
    }
  });
  std::string refusal;
  Picture picture;
  do {
    refusal = std::string(picture.Update(frame).message());
  } while (refusal !=
           "shared memory was shortened while its picture was copied");
  EXPECT_TRUE(picture.is_empty());
  is_over = true;
  widget.join();
  EXPECT_EQ(picture.Update(frame), absl::OkStatus());
}

TEST(Pixels, ANameWithMoreThanOneSlashIsRefused) {
  for (const char* const name : {"", "/", "x", "/../etc/passwd", "//x"}) {
    EXPECT_THAT(Copied(FrameIn(name)),
                HasSubstr("is not the name of shared memory"));
  }
  rpc::PixelFrame frame = FrameIn("");
  frame.mutable_shared_memory()->set_name(std::string("/x\0y", 4));
  EXPECT_THAT(Copied(frame), HasSubstr("is not the name of shared memory"));
}

TEST(Pixels, AFifoIsRefusedWithoutWaitingForAWriter) {
  const std::string name = NewName();
  ASSERT_EQ(::mkfifo(("/dev/shm" + name).c_str(), 0600), 0);
  EXPECT_EQ(Copied(FrameIn(name)), name + " is not shared memory");
  ::shm_unlink(name.c_str());
}

TEST(Pixels, MemoryOfAnotherUserIsRefused) {
  if (::geteuid() != 0)
    GTEST_SKIP() << "only root can give memory to another user";
  const Memory memory("abcd");
  ASSERT_EQ(::fchown(memory.descriptor(), 65534, 65534), 0);
  EXPECT_EQ(
      Copied(FrameIn(memory.name())),
      absl::StrCat("shared memory ", memory.name(), " belongs to user 65534"));
}

TEST(Pixels, SidesBeyondTheLimitsAreRefused) {
  for (const char* const size :
       {"width: 0 height: 1", "width: 1 height: 0", "width: -1 height: 1",
        "width: 16385 height: 1", "width: 1 height: 16385"}) {
    EXPECT_THAT(RefusalOfLayout(absl::StrCat("size { ", size,
                                             " } stride_bytes: 8", kFormat)),
                HasSubstr("each side has 1 to 16384"));
  }
}

TEST(Pixels, RowsThatDoNotFitAreRefused) {
  const std::string size = absl::StrCat("size { width: 2 height: 16384 }",
                                        kFormat, "stride_bytes: ");
  for (const char* const stride : {"4", "9", "65540"}) {
    EXPECT_THAT(RefusalOfLayout(size + stride),
                HasSubstr("it must be a multiple of 4 and at least 8, and the "
                          "picture at most 1073741824 bytes"));
  }
}

TEST(Pixels, OtherPixelFormatsAreRefused) {
  const std::string layout = "size { width: 2 height: 1 } stride_bytes: 8";
  EXPECT_EQ(RefusalOfLayout(layout), "a picture of the unknown pixel format 0");
  EXPECT_THAT(
      RefusalOfLayout(layout + " format: PIXEL_FORMAT_RGBA_F16_PREMULTIPLIED"),
      HasSubstr("16-bit floating-point numbers"));
}

TEST(Pixels, PixelsInTheMessageHaveToBeExactlyThoseOfTheFrame) {
  EXPECT_EQ(RefusalOfLayout(absl::StrCat(
                "size { width: 2 height: 2 } stride_bytes: 8", kFormat)),
            "a picture of 16 bytes with 8 bytes in the message; the limit is "
            "1048576");
}

TEST(Pixels, AFrameWithoutPixelsIsRefused) {
  EXPECT_EQ(Copied(Parsed<rpc::PixelFrame>(absl::StrCat(
                "size { width: 2 height: 1 } stride_bytes: 8", kFormat))),
            "a picture without pixels");
}

// Cursors

TEST(Pixels, ABitmapIsAPictureToo) {
  Picture picture;
  ASSERT_EQ(picture.Update(Parsed<rpc::Bitmap>(
                "size { width: 1 height: 2 } scale_factor: 2 "
                "format: PIXEL_FORMAT_RGBX_8888 pixels: 'abcdefgh'")),
            absl::OkStatus());
  EXPECT_EQ(BytesOf(picture), "cba\xffgfe\xff");
  EXPECT_EQ(picture.height(), 2);
  EXPECT_EQ(picture.scale_factor(), 2);
}

TEST(Pixels, ABitmapBeyondItsLimitsIsRefused) {
  const auto refusal = [](const std::string& bitmap) {
    return std::string(Picture().Update(Parsed<rpc::Bitmap>(bitmap)).message());
  };
  EXPECT_THAT(refusal("size { width: 257 height: 1 }"),
              HasSubstr("each side has 1 to 256"));
  EXPECT_THAT(refusal("size { width: 1 height: 1 }"),
              HasSubstr("unknown pixel format 0"));
  EXPECT_EQ(refusal(absl::StrCat("size { width: 1 height: 2 } pixels: 'abcd'",
                                 kFormat)),
            "an image of 8 bytes with 4");
}

// Mapped pixels

TEST(Pixels, AMappedFrameShowsWhatTheWidgetDraws) {
  Memory memory(std::string(5001, '.') + "abcd----efgh----");
  auto mapped = MappedPixels::Map(memory.Frame(5001, 16));
  ASSERT_TRUE(mapped.ok()) << mapped.status();
  const MappedPixels pixels = *std::move(mapped);
  EXPECT_EQ(pixels.stride_bytes(), 8u);
  EXPECT_EQ(std::string(pixels.pixels().begin(), pixels.pixels().end()),
            "abcd----efgh----");
  memory.Write(std::string(5001, '.') + "ABCD");
  EXPECT_EQ(pixels.pixels().front(), 'A');
}

TEST(Pixels, FramesThatHaveToBeCopiedAreNotMapped) {
  const Memory memory("abcd----efgh----");
  EXPECT_FALSE(MappedPixels::Map(memory.Frame(1, 16)).ok());
  EXPECT_TRUE(
      absl::IsUnimplemented(MappedPixels::Map(Inline("abcd")).status()));
  rpc::PixelFrame rgba = memory.Frame(0, 16);
  rgba.set_format(rpc::PIXEL_FORMAT_RGBA_8888_PREMULTIPLIED);
  EXPECT_TRUE(absl::IsUnimplemented(MappedPixels::Map(rgba).status()));
}

}  // namespace
}  // namespace orvane::host
