#include "benchmarks/transport/picture.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "benchmarks/transport/measure.h"

namespace benchmarks {
namespace {

void* Map(int descriptor, int protection) {
  void* const memory = descriptor < 0 ? MAP_FAILED
                                      : mmap(nullptr, kPictureBytes, protection,
                                             MAP_SHARED, descriptor, 0);
  if (memory == MAP_FAILED) Fail("cannot map the picture");
  close(descriptor);
  return memory;
}

}  // namespace

SharedPicture::SharedPicture()
    : name_("/orvane-benchmark-" + std::to_string(getpid())) {
  const int descriptor =
      shm_open(name_.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
  if (descriptor < 0 || ftruncate(descriptor, kPictureBytes) != 0)
    Fail("cannot create shared memory for a picture");
  void* const pixels = Map(descriptor, PROT_READ | PROT_WRITE);
  std::memset(pixels, 0x7f, kPictureBytes);
  munmap(pixels, kPictureBytes);
}

SharedPicture::~SharedPicture() { shm_unlink(name_.c_str()); }

rpc::UpdateSurfaceCall SurfaceUpdate(const std::string& name) {
  rpc::UpdateSurfaceCall update;
  rpc::PixelFrame& frame = *update.mutable_frame();
  frame.set_frame_id(1);
  frame.mutable_size()->set_width(1920);
  frame.mutable_size()->set_height(1080);
  frame.set_stride_bytes(1920 * 4);
  frame.mutable_shared_memory()->set_name(name);
  frame.mutable_shared_memory()->set_length_bytes(kPictureBytes);
  return update;
}

PictureReader::~PictureReader() {
  if (mapped_ != nullptr) munmap(mapped_, kPictureBytes);
}

void PictureReader::Read(const std::string& name) {
  if (name != name_) {
    if (mapped_ != nullptr) munmap(mapped_, kPictureBytes);
    mapped_ = Map(shm_open(name.c_str(), O_RDONLY, 0), PROT_READ);
    name_ = name;
  }
  std::memcpy(pixels_.data(), mapped_, kPictureBytes);
}

}  // namespace benchmarks
