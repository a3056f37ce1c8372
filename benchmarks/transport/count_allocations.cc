// A library that is preloaded into a server and counts its heap allocations,
// including those of C code and of other libraries.

#include <atomic>
#include <cstddef>
#include <cstdint>

extern "C" {

// The C library's own functions, under names that are never replaced.
// NOLINTBEGIN(bugprone-reserved-identifier)
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t nmemb, std::size_t size);
void* __libc_realloc(void* ptr, std::size_t size);
// NOLINTEND(bugprone-reserved-identifier)

}  // extern "C"

namespace {

std::atomic<std::atomic<std::uint64_t>*> counter{nullptr};

void Count() {
  if (auto* const allocations = counter.load(std::memory_order_relaxed))
    allocations->fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

extern "C" {

// From now on each allocation adds one to `allocations`.
void CountAllocationsIn(std::atomic<std::uint64_t>* allocations) {
  counter = allocations;
}

void* malloc(std::size_t size) {
  Count();
  return __libc_malloc(size);
}

void* calloc(std::size_t nmemb, std::size_t size) {
  Count();
  return __libc_calloc(nmemb, size);
}

void* realloc(void* ptr, std::size_t size) {
  Count();
  return __libc_realloc(ptr, size);
}

}  // extern "C"
