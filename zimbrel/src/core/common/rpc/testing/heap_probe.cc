#include "zimbrel/src/core/common/rpc/testing/heap_probe.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <new>
#include <span>

namespace orvane::testing::heap_probe {
namespace {

// Addresses, without a heap of their own.
class AddressList {
 public:
  void Add(const void* address) {
    if (size_ == addresses_.size()) std::abort();
    addresses_[size_++] = address;
  }

  bool Remove(const void* address) {
    const auto end = addresses_.begin() + size_;
    const auto found = std::find(addresses_.begin(), end, address);
    if (found == end) return false;
    std::copy(found + 1, end, found);
    --size_;
    return true;
  }

  void Clear() { size_ = 0; }
  std::span<const void* const> addresses() const {
    return {addresses_.data(), size_};
  }

 private:
  std::array<const void*, 16> addresses_{};
  std::size_t size_ = 0;
};

constinit std::atomic<std::size_t> allocated = 0;
constinit std::atomic<std::size_t> freed = 0;
constinit AddressList watched;
constinit AddressList watched_and_freed;

}  // namespace

std::size_t Allocations() { return allocated; }

std::size_t LiveBlocks() { return allocated - freed; }

void Watch(const void* block) { watched.Add(block); }

std::vector<const void*> TakeFreed() {
  const auto addresses = watched_and_freed.addresses();
  std::vector<const void*> result(addresses.begin(), addresses.end());
  watched_and_freed.Clear();
  return result;
}

namespace {

void* Allocate(std::size_t size) {
  void* const block = std::malloc(size);
  if (block == nullptr) std::abort();
  ++allocated;
  return block;
}

void Free(void* block) {
  if (block == nullptr) return;
  ++freed;
  if (watched.Remove(block)) watched_and_freed.Add(block);
  std::free(block);
}

}  // namespace
}  // namespace orvane::testing::heap_probe

// The array and nothrow forms of the library end up here too.
void* operator new(std::size_t size) {
  return orvane::testing::heap_probe::Allocate(size);
}
void operator delete(void* block) noexcept {
  orvane::testing::heap_probe::Free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  orvane::testing::heap_probe::Free(block);
}
