// Memory in which a picture travels to the host.

#ifndef EXAMPLES_WIDGET_SERVER_SHARED_PIXELS_H_
#define EXAMPLES_WIDGET_SERVER_SHARED_PIXELS_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "absl/status/statusor.h"

namespace widget_server {

// A POSIX shared-memory object that the processes of this user can map, under a
// name that no other has. A process that is killed leaves its objects behind.
class SharedPixels {
 public:
  // Of `length` bytes, which is above 0; all of them exist, so that writing
  // cannot fail later. kResourceExhausted where memory is short.
  static absl::StatusOr<std::unique_ptr<SharedPixels>> Create(
      std::size_t length);

  SharedPixels(const SharedPixels&) = delete;
  SharedPixels& operator=(const SharedPixels&) = delete;

  // Unmaps the object and removes its name. Who has mapped it keeps it.
  ~SharedPixels();

  // For shm_open, with its leading slash.
  const std::string& name() const { return name_; }

  std::span<std::uint8_t> bytes() { return bytes_; }

 private:
  SharedPixels(std::string name, std::span<std::uint8_t> bytes);

  const std::string name_;
  const std::span<std::uint8_t> bytes_;
};

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_SHARED_PIXELS_H_
