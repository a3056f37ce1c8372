#include "examples/host/image.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "absl/strings/str_cat.h"

#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace host {
namespace {

constexpr std::int32_t kMaxSide = 16384;
constexpr std::uint64_t kMaxBytes = std::uint64_t{1} << 30;
constexpr std::uint64_t kMaxInlineBytes = std::uint64_t{1} << 20;
constexpr std::uint64_t kBytesPerPixel = 4;

absl::Status CheckLayout(const rpc::PixelFrame& frame) {
  const rpc::SizePx& size = frame.size();
  if (size.width() < 1 || size.width() > kMaxSide || size.height() < 1 ||
      size.height() > kMaxSide) {
    return absl::InvalidArgumentError(
        absl::StrCat("a frame of ", size.width(), " x ", size.height(),
                     " pixels; each side has 1 to ", kMaxSide));
  }
  if (frame.format() != rpc::PIXEL_FORMAT_BGRA_8888_PREMULTIPLIED) {
    return absl::UnimplementedError(absl::StrCat(
        "a frame of pixel format ", static_cast<int>(frame.format()),
        "; this host only draws format ",
        static_cast<int>(rpc::PIXEL_FORMAT_BGRA_8888_PREMULTIPLIED)));
  }
  const std::uint64_t stride = frame.stride_bytes();
  const std::uint64_t row =
      kBytesPerPixel * static_cast<std::uint64_t>(size.width());
  if (stride < row || stride % 4 != 0 ||
      stride * static_cast<std::uint64_t>(size.height()) > kMaxBytes) {
    return absl::InvalidArgumentError(
        absl::StrCat("a frame with a stride of ", stride,
                     " bytes; it must be a multiple of 4 and at least ", row,
                     ", and the frame at most ", kMaxBytes, " bytes"));
  }
  return absl::OkStatus();
}

Image CopyRows(const rpc::PixelFrame& frame, const std::uint8_t* pixels) {
  Image image;
  image.width = static_cast<std::size_t>(frame.size().width());
  image.height = static_cast<std::size_t>(frame.size().height());
  image.bgra.reserve(image.width * image.height * kBytesPerPixel);
  for (std::size_t y = 0; y < image.height; ++y) {
    const std::uint8_t* const row = pixels + y * frame.stride_bytes();
    image.bgra.insert(image.bgra.end(), row,
                      row + image.width * kBytesPerPixel);
  }
  return image;
}

absl::Status SystemError(const std::string& what) {
  return absl::UnavailableError(absl::StrCat(what, ": ", std::strerror(errno)));
}

absl::StatusOr<Image> CopySharedMemory(const rpc::PixelFrame& frame,
                                       std::uint64_t needed) {
  const rpc::SharedMemory& memory = frame.shared_memory();
  if (memory.length_bytes() < needed || memory.length_bytes() > kMaxBytes) {
    return absl::InvalidArgumentError(
        absl::StrCat("a frame of ", needed, " bytes in a range of ",
                     memory.length_bytes(), " bytes of shared memory"));
  }
  const orvane::OwnedDescriptor object(
      ::shm_open(memory.name().c_str(), O_RDONLY, 0));
  if (object.get() < 0)
    return SystemError(
        absl::StrCat("cannot open shared memory ", memory.name()));
  struct stat found = {};
  if (::fstat(object.get(), &found) != 0)
    return SystemError(
        absl::StrCat("cannot inspect shared memory ", memory.name()));
  const auto size = static_cast<std::uint64_t>(found.st_size);
  // Compared without adding, since the sum could overflow.
  if (memory.offset_bytes() > size ||
      memory.length_bytes() > size - memory.offset_bytes()) {
    return absl::InvalidArgumentError(absl::StrCat(
        "a frame of ", memory.length_bytes(), " bytes from byte ",
        memory.offset_bytes(), " of a shared-memory object of ", size));
  }

  const auto page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
  const std::uint64_t skipped = memory.offset_bytes() % page;
  const auto length = static_cast<std::size_t>(skipped + needed);
  void* const mapped =
      ::mmap(nullptr, length, PROT_READ, MAP_SHARED, object.get(),
             static_cast<off_t>(memory.offset_bytes() - skipped));
  if (mapped == MAP_FAILED)
    return SystemError(
        absl::StrCat("cannot map shared memory ", memory.name()));
  Image image =
      CopyRows(frame, static_cast<const std::uint8_t*>(mapped) + skipped);
  ::munmap(mapped, length);
  return image;
}

}  // namespace

absl::StatusOr<Image> ReadFrame(const rpc::PixelFrame& frame) {
  if (absl::Status status = CheckLayout(frame); !status.ok()) return status;
  const std::uint64_t needed =
      std::uint64_t{frame.stride_bytes()} *
      static_cast<std::uint64_t>(frame.size().height());
  switch (frame.pixels_case()) {
    case rpc::PixelFrame::kSharedMemory:
      return CopySharedMemory(frame, needed);
    case rpc::PixelFrame::kInlinePixels: {
      const std::string& pixels = frame.inline_pixels();
      if (pixels.size() != needed || needed > kMaxInlineBytes) {
        return absl::InvalidArgumentError(absl::StrCat(
            "a frame of ", needed, " bytes with ", pixels.size(),
            " bytes in the message; the limit is ", kMaxInlineBytes));
      }
      return CopyRows(frame,
                      reinterpret_cast<const std::uint8_t*>(pixels.data()));
    }
    case rpc::PixelFrame::PIXELS_NOT_SET:
      break;
  }
  return absl::InvalidArgumentError("a frame without pixels");
}

std::string AverageColor(const Image& image) {
  std::array<std::uint64_t, 3> sums = {};
  for (std::size_t at = 0; at < image.bgra.size(); at += kBytesPerPixel) {
    for (std::size_t color = 0; color < sums.size(); ++color)
      sums[color] += image.bgra[at + color];
  }
  std::string name = "#";
  std::reverse(sums.begin(), sums.end());  // To red, green, blue.
  for (const std::uint64_t sum : sums) {
    absl::StrAppend(
        &name, absl::Hex(sum / (image.width * image.height), absl::kZeroPad2));
  }
  return name;
}

absl::Status SavePpm(const Image& image, const std::string& path) {
  std::ofstream file(path, std::ios::binary);
  file << "P6\n" << image.width << " " << image.height << "\n255\n";
  for (std::size_t at = 0; at < image.bgra.size(); at += kBytesPerPixel) {
    file.put(static_cast<char>(image.bgra[at + 2]))
        .put(static_cast<char>(image.bgra[at + 1]))
        .put(static_cast<char>(image.bgra[at]));
  }
  file.close();
  if (!file) return absl::UnavailableError("cannot write " + path);
  return absl::OkStatus();
}

}  // namespace host
