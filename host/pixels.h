// Pictures that a widget sends, in the form in which toolkits draw them.
//
// Everything here yields premultiplied BGRA with 8 bits a colour, which all of
// them draw without a conversion of their own. On a little-endian machine it is
//
//   Cairo  CAIRO_FORMAT_ARGB32
//   GTK 4  GDK_MEMORY_B8G8R8A8_PREMULTIPLIED
//   Qt     QImage::Format_ARGB32_Premultiplied
//   SDL 2  SDL_PIXELFORMAT_BGRA32, with a blend mode for premultiplied alpha:
//          SDL_ComposeCustomBlendMode(
//              SDL_BLENDFACTOR_ONE, SDL_BLENDFACTOR_ONE_MINUS_SRC_ALPHA,
//              SDL_BLENDOPERATION_ADD, SDL_BLENDFACTOR_ONE,
//              SDL_BLENDFACTOR_ONE_MINUS_SRC_ALPHA, SDL_BLENDOPERATION_ADD)
//
// Colour spaces are left to the caller, who finds them in the frame.
//
// What a widget says about a picture is checked first: the limits are those of
// rpc::PixelFrame and rpc::Bitmap. Errors:
//
//   kInvalidArgument    the picture breaks these limits, or its pixels are not
//                       where it says
//   kUnimplemented      its pixels are 16-bit floating-point numbers
//   kPermissionDenied   its memory belongs to another user
//   kUnavailable        its memory cannot be opened or read, for example
//                       because the widget has removed it
//
// Thread: any; none of the objects is to be used on two at once.

#ifndef HOST_PIXELS_H_
#define HOST_PIXELS_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"

#include "rpc/browser/geometry.pb.h"
#include "rpc/browser/image.pb.h"
#include "rpc/browser/surface.pb.h"

namespace orvane::host {

// Memory for a picture: a QImage's bits, a Cairo image surface, a locked SDL
// texture. The last does not hold the picture before, so copy all rows to it,
// or keep a Picture and pass its rows to SDL_UpdateTexture. Bytes between the
// end of one row and the start of the next are not touched.
struct PixelBuffer {
  std::span<std::uint8_t> bytes;

  // From the start of one row to the start of the next, at least 4 * width.
  std::size_t stride_bytes = 0;
};

enum class Rows {
  kAll,

  // Those that the frame's damage touches. The buffer must hold the picture
  // before, as it was copied: same size, same stride, no frame left out.
  kDamaged,
};

// Copies a frame's pixels into a buffer of the caller. The widget's memory is
// read and not mapped, so that a widget that shortens it meanwhile causes an
// error and not a fault. After an error that the first look at frame, buffer
// and memory could not find (kUnavailable), part of the buffer may have
// changed. kInvalidArgument also if the buffer is too small.
absl::Status CopyPixels(const rpc::PixelFrame& frame, PixelBuffer buffer,
                        Rows rows = Rows::kAll);

// The smallest rectangle that contains a frame's damage, without what lies
// outside the picture: the part of a window to be drawn anew. The whole picture
// if the frame has no damage. In pixels from the picture's top left corner.
rpc::RectPx DamageOf(const rpc::PixelFrame& frame);

// The answer for a frame that was copied, with or without success.
rpc::FrameReceipt ReceiptFor(const rpc::PixelFrame& frame,
                             const absl::Status& copied);

// A scale factor that a widget tells, in pixels per DIP; 1 if it is not a
// number from 1/64 to 64, so that sizes can be divided by it.
double ScaleFactorFrom(double told);

// The latest picture of a view, popup, layer or cursor, in memory of its own.
// Empty until the first one has come.
class Picture {
 public:
  // Replaces the picture; of a frame of the same size, only the damaged rows
  // are copied. Give it every frame that is answered as presented. After an
  // error the picture is as before; it is empty if the widget's memory could
  // not be read to the end.
  absl::Status Update(const rpc::PixelFrame& frame);
  absl::Status Update(const rpc::Bitmap& bitmap);

  bool is_empty() const { return pixels_.empty(); }
  int width() const { return width_; }    // In pixels.
  int height() const { return height_; }  // In pixels.

  // Pixels per DIP, by ScaleFactorFrom.
  double scale_factor() const { return scale_factor_; }

  // The rows, without gaps between them. Valid until the next Update.
  std::span<const std::uint8_t> pixels() const { return pixels_; }
  int stride_bytes() const { return width_ * 4; }

 private:
  int width_ = 0;
  int height_ = 0;
  double scale_factor_ = 1;
  std::vector<std::uint8_t> pixels_;
};

// A frame that is drawn from the widget's own memory, for the cost of mapping
// it. Answer the frame once this object is no longer drawn: from then on the
// widget changes the memory.
//
// Only for a widget that the host trusts: one that shortens the memory ends the
// host's process (SIGBUS). Frames in another format than premultiplied BGRA are
// kUnimplemented, and so are those inside the message: copy them.
class MappedPixels {
 public:
  static absl::StatusOr<MappedPixels> Map(const rpc::PixelFrame& frame);

  std::span<const std::uint8_t> pixels() const { return pixels_; }
  std::size_t stride_bytes() const { return stride_bytes_; }

 private:
  struct Unmap {
    std::size_t length = 0;
    void operator()(void* mapping) const;
  };
  using Mapping = std::unique_ptr<void, Unmap>;

  MappedPixels(Mapping mapping, std::span<const std::uint8_t> pixels,
               std::size_t stride_bytes);

  Mapping mapping_;  // From the page boundary at or below the pixels.
  std::span<const std::uint8_t> pixels_;
  std::size_t stride_bytes_;
};

}  // namespace orvane::host

#endif  // HOST_PIXELS_H_
