// Bytes that arrive at one end and leave at the other, in one piece of memory.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_BYTE_BUFFER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_BYTE_BUFFER_H_

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string_view>

namespace orvane::internal {

// A queue of bytes whose content is contiguous. Grows by doubling. What it has
// grown to beyond kUsualBytes it keeps for more content of that size, and gives
// back when it has become empty and less than a quarter was used since it was
// empty before.
class ByteBuffer {
 public:
  // What one read takes at the most, and what an idle connection keeps.
  static constexpr std::size_t kUsualBytes = std::size_t{64} << 10;

  // The content. Valid until the next call of Reserve or Consume.
  std::string_view content() const {
    return {bytes_.get() + begin_, end_ - begin_};
  }
  bool empty() const { return begin_ == end_; }

  // Room behind the content for `bytes` more, uninitialised. Commit makes what
  // was written there part of the content.
  char* Reserve(std::size_t bytes);
  void Commit(std::size_t bytes) {
    end_ += bytes;
    used_ = std::max(used_, end_);
  }

  // How much Reserve has room for without moving or growing.
  std::size_t room() const { return capacity_ - end_; }

  // Drops bytes from the front.
  void Consume(std::size_t bytes);

 private:
  std::unique_ptr<char[]> bytes_;
  std::size_t capacity_ = 0;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::size_t used_ = 0;  // The greatest `end_` since it was empty.
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_BYTE_BUFFER_H_
