// A picture in shared memory, like a widget's surface.

#ifndef BENCHMARKS_TRANSPORT_PICTURE_H_
#define BENCHMARKS_TRANSPORT_PICTURE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "benchmarks/transport/peer.pb.h"

namespace benchmarks {

// Has kPictureBytes. Its destructor removes its name.
class SharedPicture {
 public:
  SharedPicture();
  SharedPicture(const SharedPicture&) = delete;
  SharedPicture& operator=(const SharedPicture&) = delete;
  ~SharedPicture();

  const std::string& name() const { return name_; }

 private:
  const std::string name_;
};

// The call that shows the picture of that name.
rpc::UpdateSurfaceCall SurfaceUpdate(const std::string& name);

// Copies pictures into its own memory, like a host that draws them later.
class PictureReader {
 public:
  PictureReader() : pixels_(std::size_t{1920} * 1080 * 4) {}
  PictureReader(const PictureReader&) = delete;
  PictureReader& operator=(const PictureReader&) = delete;
  ~PictureReader();

  // Copies the picture of that name. Maps its memory only if the name differs
  // from the last one.
  void Read(const std::string& name);

 private:
  std::string name_;
  void* mapped_ = nullptr;
  std::vector<std::uint8_t> pixels_;
};

}  // namespace benchmarks

#endif  // BENCHMARKS_TRANSPORT_PICTURE_H_
