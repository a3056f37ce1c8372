// A queue of bytes in contiguous memory.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_BYTE_BUFFER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_BYTE_BUFFER_H_

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string_view>

namespace orvane::internal {

// Bytes are added at the end and removed at the front. Grows by doubling. When
// it becomes empty, memory of more than kUsualBytes is freed if less than a
// quarter of it has been used since the buffer was empty before; otherwise it
// is kept for more content of that size.
class ByteBuffer {
 public:
  // The most that a usual read takes, and the memory that an idle connection
  // keeps.
  static constexpr std::size_t kUsualBytes = std::size_t{64} << 10;

  // The content. Valid until the next call of Reserve or Consume.
  std::string_view content() const {
    return {bytes_.get() + begin_, end_ - begin_};
  }
  bool empty() const { return begin_ == end_; }

  // Returns uninitialised room behind the content for `bytes` more. Commit adds
  // what was written there to the content.
  char* Reserve(std::size_t bytes);
  void Commit(std::size_t bytes) {
    end_ += bytes;
    used_ = std::max(used_, end_);
  }

  // How many bytes Reserve can give without moving the content or growing.
  std::size_t room() const { return capacity_ - end_; }

  // Drops bytes from the front.
  void Consume(std::size_t bytes) {
    begin_ += bytes;
    if (empty() && end_ > 0) OnEmptied();
  }

 private:
  void OnEmptied();

  std::unique_ptr<char[]> bytes_;
  std::size_t capacity_ = 0;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::size_t used_ = 0;  // The greatest `end_` since it was empty.
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_BYTE_BUFFER_H_
