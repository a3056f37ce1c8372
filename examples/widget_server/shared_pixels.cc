#include "examples/widget_server/shared_pixels.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"

namespace widget_server {
namespace {

absl::Status Failure(const std::string& name, std::size_t length, int error) {
  return absl::ResourceExhaustedError(
      absl::StrCat("cannot create ", length, " bytes of shared memory as ",
                   name, ": ", std::strerror(error)));
}

}  // namespace

absl::StatusOr<std::unique_ptr<SharedPixels>> SharedPixels::Create(
    std::size_t length) {
  static std::atomic<std::uint64_t> last_number = 0;
  std::string name;
  int descriptor = -1;
  // An earlier process with the same id may have been killed and left its
  // object behind.
  do {
    name = absl::StrCat("/orvane-widget-", ::getpid(), "-", ++last_number);
    descriptor = ::shm_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
  } while (descriptor < 0 && errno == EEXIST);
  if (descriptor < 0) return Failure(name, length, errno);

  // Reserves the memory now. Otherwise, if no memory is left, a later write
  // would kill the process (SIGBUS).
  int error = 0;
  do {
    error = ::posix_fallocate(descriptor, 0, static_cast<off_t>(length));
  } while (error == EINTR);
  void* memory = MAP_FAILED;
  if (error == 0) {
    memory = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED,
                    descriptor, 0);
    if (memory == MAP_FAILED) error = errno;
  }
  ::close(descriptor);
  if (error != 0) {
    ::shm_unlink(name.c_str());
    return Failure(name, length, error);
  }
  return std::unique_ptr<SharedPixels>(new SharedPixels(
      std::move(name), {static_cast<std::uint8_t*>(memory), length}));
}

SharedPixels::SharedPixels(std::string name, std::span<std::uint8_t> bytes)
    : name_(std::move(name)), bytes_(bytes) {}

SharedPixels::~SharedPixels() {
  ::munmap(bytes_.data(), bytes_.size());
  ::shm_unlink(name_.c_str());
}

}  // namespace widget_server
