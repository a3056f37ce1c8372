#include "zimbrel/src/core/common/rpc/transport/wire/byte_buffer.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace orvane::internal {

char* ByteBuffer::Reserve(std::size_t bytes) {
  if (bytes > room()) {
    const std::size_t held = end_ - begin_;
    if (held + bytes <= capacity_) {
      std::memmove(bytes_.get(), bytes_.get() + begin_, held);
    } else {
      const std::size_t grown =
          std::max({held + bytes, 2 * capacity_, kUsualBytes});
      auto memory = std::make_unique_for_overwrite<char[]>(grown);
      if (held > 0) std::memcpy(memory.get(), bytes_.get() + begin_, held);
      bytes_ = std::move(memory);
      capacity_ = grown;
    }
    begin_ = 0;
    end_ = held;
  }
  return bytes_.get() + end_;
}

void ByteBuffer::OnEmptied() {
  begin_ = end_ = 0;
  const std::size_t used = std::exchange(used_, 0);
  if (capacity_ > kUsualBytes && used < capacity_ / 4) {
    bytes_.reset();
    capacity_ = 0;
  }
}

}  // namespace orvane::internal
