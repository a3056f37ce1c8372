// Shared memory that carries a picture to the host.

#ifndef EXAMPLES_WIDGET_SERVER_SHARED_PIXELS_H_
#define EXAMPLES_WIDGET_SERVER_SHARED_PIXELS_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "absl/status/statusor.h"

namespace widget_server {

// A POSIX shared-memory object with a unique name, which the processes of this
// user can map. What a process leaves behind that is killed is removed by the
// next one that creates such an object. Thread: any, one at a time.
class SharedPixels {
 public:
  // `length` must be above 0. The memory is reserved at once, so that a write
  // cannot fail later. kResourceExhausted if the object cannot be created.
  static absl::StatusOr<std::unique_ptr<SharedPixels>> Create(
      std::size_t length);

  SharedPixels(const SharedPixels&) = delete;
  SharedPixels& operator=(const SharedPixels&) = delete;

  // Unmaps the object and removes its name. Processes that have mapped it keep
  // their mapping.
  ~SharedPixels();

  // For shm_open, with its leading slash.
  const std::string& name() const { return name_; }

  std::span<std::uint8_t> bytes() { return bytes_; }

 private:
  class Family;

  SharedPixels(std::shared_ptr<const Family> family, std::string name,
               std::span<std::uint8_t> bytes);

  const std::shared_ptr<const Family> family_;
  const std::string name_;
  const std::span<std::uint8_t> bytes_;
};

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_SHARED_PIXELS_H_
