#include "host/pixels.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"

#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace orvane::host {
namespace {

constexpr std::int32_t kMaxSide = 16384;
constexpr std::int32_t kMaxBitmapSide = 256;
constexpr std::uint64_t kMaxBytes = std::uint64_t{1} << 30;
constexpr std::uint64_t kMaxInlineBytes = std::uint64_t{1} << 20;
constexpr std::uint64_t kBytesPerPixel = 4;

absl::Status SystemError(absl::string_view what) {
  return absl::UnavailableError(absl::StrCat(what, ": ", std::strerror(errno)));
}

// What is checked of every picture

absl::Status CheckFormat(rpc::PixelFormat format) {
  switch (format) {
    case rpc::PIXEL_FORMAT_BGRA_8888_PREMULTIPLIED:
    case rpc::PIXEL_FORMAT_RGBA_8888_PREMULTIPLIED:
    case rpc::PIXEL_FORMAT_BGRX_8888:
    case rpc::PIXEL_FORMAT_RGBX_8888:
      return absl::OkStatus();
    case rpc::PIXEL_FORMAT_RGBA_F16_PREMULTIPLIED:
      return absl::UnimplementedError(
          "a picture of 16-bit floating-point numbers; this host only draws "
          "those with 8 bits a colour");
    default:
      return absl::InvalidArgumentError(absl::StrCat(
          "a picture of the unknown pixel format ", static_cast<int>(format)));
  }
}

absl::Status CheckSides(const rpc::SizePx& size, std::int32_t max_side) {
  if (size.width() >= 1 && size.width() <= max_side && size.height() >= 1 &&
      size.height() <= max_side) {
    return absl::OkStatus();
  }
  return absl::InvalidArgumentError(
      absl::StrCat("a picture of ", size.width(), " x ", size.height(),
                   " pixels; each side has 1 to ", max_side));
}

// The size of a picture that has been checked.
struct Layout {
  std::uint64_t width;
  std::uint64_t height;
  std::uint64_t stride;

  std::uint64_t row_bytes() const { return width * kBytesPerPixel; }
  std::uint64_t length() const { return stride * height; }
};

absl::StatusOr<Layout> LayoutOf(const rpc::PixelFrame& frame) {
  if (absl::Status status = CheckSides(frame.size(), kMaxSide); !status.ok())
    return status;
  if (absl::Status status = CheckFormat(frame.format()); !status.ok())
    return status;
  const Layout layout{static_cast<std::uint64_t>(frame.size().width()),
                      static_cast<std::uint64_t>(frame.size().height()),
                      frame.stride_bytes()};
  if (layout.stride < layout.row_bytes() || layout.stride % 4 != 0 ||
      layout.length() > kMaxBytes) {
    return absl::InvalidArgumentError(absl::StrCat(
        "a picture with a stride of ", layout.stride,
        " bytes; it must be a multiple of 4 and at least ", layout.row_bytes(),
        ", and the picture at most ", kMaxBytes, " bytes"));
  }
  return layout;
}

absl::StatusOr<OwnedDescriptor> OpenSharedMemory(
    const rpc::SharedMemory& memory, const Layout& layout) {
  const std::string& name = memory.name();
  if (!absl::StartsWith(name, "/") || name.size() < 2 ||
      name.find('/', 1) != std::string::npos ||
      name.find('\0') != std::string::npos) {
    return absl::InvalidArgumentError(absl::StrCat(
        "\"", name,
        "\" is not the name of shared memory, which begins with its only "
        "slash"));
  }
  if (memory.length_bytes() < layout.length() ||
      memory.length_bytes() > kMaxBytes) {
    return absl::InvalidArgumentError(
        absl::StrCat("a picture of ", layout.length(), " bytes in a range of ",
                     memory.length_bytes(), " bytes of shared memory"));
  }
  // Opening a FIFO of that name would wait for a writer.
  OwnedDescriptor object(::shm_open(name.c_str(), O_RDONLY | O_NONBLOCK, 0));
  if (object.get() < 0)
    return SystemError(absl::StrCat("cannot open shared memory ", name));
  struct stat found = {};
  if (::fstat(object.get(), &found) != 0)
    return SystemError(absl::StrCat("cannot inspect shared memory ", name));
  if (!S_ISREG(found.st_mode))
    return absl::InvalidArgumentError(name + " is not shared memory");
  if (found.st_uid != ::geteuid()) {
    return absl::PermissionDeniedError(absl::StrCat(
        "shared memory ", name, " belongs to user ", found.st_uid));
  }
  const auto size = static_cast<std::uint64_t>(found.st_size);
  // Compared without adding, since the sum could overflow.
  if (memory.offset_bytes() > size ||
      memory.length_bytes() > size - memory.offset_bytes()) {
    return absl::InvalidArgumentError(absl::StrCat(
        "a picture of ", memory.length_bytes(), " bytes from byte ",
        memory.offset_bytes(), " of a shared-memory object of ", size));
  }
  return object;
}

// Reading and converting pixels

// Where the pixels of a frame are, once everything about them was checked.
class Source {
 public:
  // `frame` outlives the source.
  static absl::StatusOr<Source> Open(const rpc::PixelFrame& frame) {
    const absl::StatusOr<Layout> layout = LayoutOf(frame);
    if (!layout.ok()) return layout.status();
    switch (frame.pixels_case()) {
      case rpc::PixelFrame::kSharedMemory: {
        auto object = OpenSharedMemory(frame.shared_memory(), *layout);
        if (!object.ok()) return object.status();
        return Source(frame, *layout, *std::move(object));
      }
      case rpc::PixelFrame::kInlinePixels: {
        const std::size_t size = frame.inline_pixels().size();
        if (size != layout->length() || size > kMaxInlineBytes) {
          return absl::InvalidArgumentError(absl::StrCat(
              "a picture of ", layout->length(), " bytes with ", size,
              " bytes in the message; the limit is ", kMaxInlineBytes));
        }
        return Source(frame, *layout, OwnedDescriptor(-1));
      }
      case rpc::PixelFrame::PIXELS_NOT_SET:
        break;
    }
    return absl::InvalidArgumentError("a picture without pixels");
  }

  const Layout& layout() const { return layout_; }

  // Copies rows from `first` to before `end`.
  absl::Status CopyRows(std::uint64_t first, std::uint64_t end,
                        PixelBuffer buffer) const;

 private:
  Source(const rpc::PixelFrame& frame, const Layout& layout,
         OwnedDescriptor object)
      : frame_(frame), layout_(layout), object_(std::move(object)) {}

  // From a distance in bytes from the first pixel.
  absl::Status Read(std::uint64_t from, std::span<std::uint8_t> to) const;

  const rpc::PixelFrame& frame_;
  Layout layout_;
  OwnedDescriptor object_;  // None if the pixels are in the message.
};

absl::Status Source::Read(std::uint64_t from,
                          std::span<std::uint8_t> to) const {
  if (object_.get() < 0) {
    std::memcpy(to.data(), frame_.inline_pixels().data() + from, to.size());
    return absl::OkStatus();
  }
  from += frame_.shared_memory().offset_bytes();
  while (!to.empty()) {
    const ssize_t got =
        ::pread(object_.get(), to.data(), to.size(), static_cast<off_t>(from));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return SystemError("cannot read shared memory");
    if (got == 0) {
      return absl::UnavailableError(
          "shared memory was shortened while its picture was copied");
    }
    from += static_cast<std::uint64_t>(got);
    to = to.subspan(static_cast<std::size_t>(got));
  }
  return absl::OkStatus();
}

void ConvertToBgra(rpc::PixelFormat format, std::span<std::uint8_t> pixels) {
  const bool begins_with_red =
      format == rpc::PIXEL_FORMAT_RGBA_8888_PREMULTIPLIED ||
      format == rpc::PIXEL_FORMAT_RGBX_8888;
  const bool is_opaque = format == rpc::PIXEL_FORMAT_BGRX_8888 ||
                         format == rpc::PIXEL_FORMAT_RGBX_8888;
  if (begins_with_red) {
    for (std::size_t at = 0; at < pixels.size(); at += kBytesPerPixel)
      std::swap(pixels[at], pixels[at + 2]);
  }
  if (is_opaque) {
    for (std::size_t at = 0; at < pixels.size(); at += kBytesPerPixel)
      pixels[at + 3] = 255;
  }
}

absl::Status Source::CopyRows(std::uint64_t first, std::uint64_t end,
                              PixelBuffer buffer) const {
  const std::uint64_t row_bytes = layout_.row_bytes();
  // One read for all rows if neither side has gaps between them.
  const bool has_gaps =
      layout_.stride != row_bytes || buffer.stride_bytes != row_bytes;
  const std::uint64_t rows_at_once = has_gaps ? 1 : end - first;
  for (std::uint64_t row = first; row < end; row += rows_at_once) {
    const auto to = buffer.bytes.subspan(row * buffer.stride_bytes,
                                         rows_at_once * row_bytes);
    if (absl::Status read = Read(row * layout_.stride, to); !read.ok())
      return read;
    ConvertToBgra(frame_.format(), to);
  }
  return absl::OkStatus();
}

// Damage

// The part of a rectangle that lies inside a picture.
struct Area {
  std::int64_t left;
  std::int64_t top;
  std::int64_t right;
  std::int64_t bottom;
};

std::optional<Area> Inside(const rpc::RectPx& rectangle,
                           const rpc::SizePx& size) {
  const std::int64_t x = rectangle.x();
  const std::int64_t y = rectangle.y();
  const Area area{
      std::max<std::int64_t>(x, 0), std::max<std::int64_t>(y, 0),
      std::min<std::int64_t>(x + rectangle.width(), size.width()),
      std::min<std::int64_t>(y + rectangle.height(), size.height())};
  if (area.left >= area.right || area.top >= area.bottom) return std::nullopt;
  return area;
}

absl::Status CopyDamagedRows(const Source& source, const rpc::PixelFrame& frame,
                             PixelBuffer buffer) {
  // For each row, how many rectangles begin there, less those that have ended
  // above: linear, however many rectangles a widget sends.
  std::vector<std::int64_t> begins(source.layout().height + 1);
  for (const rpc::RectPx& rectangle : frame.damage()) {
    const std::optional<Area> area = Inside(rectangle, frame.size());
    if (!area.has_value()) continue;
    ++begins[static_cast<std::size_t>(area->top)];
    --begins[static_cast<std::size_t>(area->bottom)];
  }
  std::int64_t open = 0;
  std::uint64_t first = 0;
  for (std::uint64_t row = 0; row < begins.size(); ++row) {
    const bool was_damaged = open > 0;
    open += begins[row];
    if (!was_damaged && open > 0) first = row;
    if (was_damaged && open == 0) {
      if (absl::Status copied = source.CopyRows(first, row, buffer);
          !copied.ok()) {
        return copied;
      }
    }
  }
  return absl::OkStatus();
}

absl::Status Copy(const Source& source, const rpc::PixelFrame& frame,
                  PixelBuffer buffer, Rows rows) {
  if (rows == Rows::kDamaged && !frame.damage().empty())
    return CopyDamagedRows(source, frame, buffer);
  return source.CopyRows(0, source.layout().height, buffer);
}

}  // namespace

absl::Status CopyPixels(const rpc::PixelFrame& frame, PixelBuffer buffer,
                        Rows rows) {
  const absl::StatusOr<Source> source = Source::Open(frame);
  if (!source.ok()) return source.status();
  const Layout& layout = source->layout();
  const std::uint64_t row_bytes = layout.row_bytes();
  // Divided instead of multiplied, since the product could overflow.
  if (buffer.stride_bytes < row_bytes || buffer.bytes.size() < row_bytes ||
      (buffer.bytes.size() - row_bytes) / buffer.stride_bytes <
          layout.height - 1) {
    return absl::InvalidArgumentError(
        absl::StrCat("a picture of ", layout.width, " x ", layout.height,
                     " pixels for a buffer of ", buffer.bytes.size(),
                     " bytes with a stride of ", buffer.stride_bytes));
  }
  return Copy(*source, frame, buffer, rows);
}

rpc::RectPx DamageOf(const rpc::PixelFrame& frame) {
  std::optional<Area> all;
  for (const rpc::RectPx& rectangle : frame.damage()) {
    const std::optional<Area> area = Inside(rectangle, frame.size());
    if (!area.has_value()) continue;
    if (!all.has_value()) all = area;
    all = {std::min(all->left, area->left), std::min(all->top, area->top),
           std::max(all->right, area->right),
           std::max(all->bottom, area->bottom)};
  }
  rpc::RectPx damage;
  if (frame.damage().empty()) {
    damage.set_width(frame.size().width());
    damage.set_height(frame.size().height());
  } else if (all.has_value()) {
    damage.set_x(static_cast<std::int32_t>(all->left));
    damage.set_y(static_cast<std::int32_t>(all->top));
    damage.set_width(static_cast<std::int32_t>(all->right - all->left));
    damage.set_height(static_cast<std::int32_t>(all->bottom - all->top));
  }
  return damage;
}

rpc::FrameReceipt ReceiptFor(const rpc::PixelFrame& frame,
                             const absl::Status& copied) {
  rpc::FrameReceipt receipt;
  receipt.set_frame_id(frame.frame_id());
  receipt.set_outcome(copied.ok() ? rpc::FRAME_OUTCOME_PRESENTED
                                  : rpc::FRAME_OUTCOME_DISCARDED);
  return receipt;
}

double ScaleFactorFrom(double told) {
  constexpr double kMax = 64;
  return told >= 1 / kMax && told <= kMax ? told : 1;  // False for NaN.
}

// Picture ---------------------------------------------------------------------

absl::Status Picture::Update(const rpc::PixelFrame& frame) {
  const absl::StatusOr<Source> source = Source::Open(frame);
  if (!source.ok()) return source.status();
  Rows rows = Rows::kDamaged;
  if (frame.size().width() != width_ || frame.size().height() != height_) {
    width_ = frame.size().width();
    height_ = frame.size().height();
    pixels_ = std::vector<std::uint8_t>(source->layout().row_bytes() *
                                        source->layout().height);
    rows = Rows::kAll;
  }
  scale_factor_ = ScaleFactorFrom(frame.scale_factor());
  absl::Status copied =
      Copy(*source, frame, {pixels_, static_cast<std::size_t>(stride_bytes())},
           rows);
  if (!copied.ok()) *this = Picture();
  return copied;
}

absl::Status Picture::Update(const rpc::Bitmap& bitmap) {
  if (absl::Status status = CheckSides(bitmap.size(), kMaxBitmapSide);
      !status.ok()) {
    return status;
  }
  if (absl::Status status = CheckFormat(bitmap.format()); !status.ok())
    return status;
  const auto length = kBytesPerPixel *
                      static_cast<std::uint64_t>(bitmap.size().width()) *
                      static_cast<std::uint64_t>(bitmap.size().height());
  if (bitmap.pixels().size() != length) {
    return absl::InvalidArgumentError(absl::StrCat(
        "an image of ", length, " bytes with ", bitmap.pixels().size()));
  }
  width_ = bitmap.size().width();
  height_ = bitmap.size().height();
  scale_factor_ = ScaleFactorFrom(bitmap.scale_factor());
  pixels_.assign(bitmap.pixels().begin(), bitmap.pixels().end());
  ConvertToBgra(bitmap.format(), pixels_);
  return absl::OkStatus();
}

// MappedPixels ----------------------------------------------------------------

MappedPixels::MappedPixels(Mapping mapping,
                           std::span<const std::uint8_t> pixels,
                           std::size_t stride_bytes)
    : mapping_(std::move(mapping)),
      pixels_(pixels),
      stride_bytes_(stride_bytes) {}

void MappedPixels::Unmap::operator()(void* mapping) const {
  ::munmap(mapping, length);
}

absl::StatusOr<MappedPixels> MappedPixels::Map(const rpc::PixelFrame& frame) {
  const absl::StatusOr<Layout> layout = LayoutOf(frame);
  if (!layout.ok()) return layout.status();
  if (!frame.has_shared_memory() ||
      frame.format() != rpc::PIXEL_FORMAT_BGRA_8888_PREMULTIPLIED) {
    return absl::UnimplementedError(
        "only premultiplied BGRA in shared memory can be mapped");
  }
  const rpc::SharedMemory& memory = frame.shared_memory();
  const absl::StatusOr<OwnedDescriptor> object =
      OpenSharedMemory(memory, *layout);
  if (!object.ok()) return object.status();
  const auto page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
  const std::uint64_t skipped = memory.offset_bytes() % page;
  const std::size_t length = skipped + layout->length();
  void* const mapped =
      ::mmap(nullptr, length, PROT_READ, MAP_SHARED, object->get(),
             static_cast<off_t>(memory.offset_bytes() - skipped));
  if (mapped == MAP_FAILED)
    return SystemError(
        absl::StrCat("cannot map shared memory ", memory.name()));
  return MappedPixels(
      Mapping(mapped, Unmap{length}),
      {static_cast<const std::uint8_t*>(mapped) + skipped, layout->length()},
      layout->stride);
}

}  // namespace orvane::host
