// A picture in memory that both processes map, as a widget's surface is.

#ifndef BENCHMARKS_TRANSPORT_PICTURE_H_
#define BENCHMARKS_TRANSPORT_PICTURE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "benchmarks/transport/peer.pb.h"

namespace benchmarks {

// Of kPictureBytes. Its name goes away with it.
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

// The call that shows it.
rpc::UpdateSurfaceCall SurfaceUpdate(const std::string& name);

// Copies pictures into memory of its own, as a host does that draws them later.
class PictureReader {
 public:
  PictureReader() : pixels_(std::size_t{1920} * 1080 * 4) {}
  PictureReader(const PictureReader&) = delete;
  PictureReader& operator=(const PictureReader&) = delete;
  ~PictureReader();

  // Maps the memory once, when its name is new.
  void Read(const std::string& name);

 private:
  std::string name_;
  void* mapped_ = nullptr;
  std::vector<std::uint8_t> pixels_;
};

}  // namespace benchmarks

#endif  // BENCHMARKS_TRANSPORT_PICTURE_H_
