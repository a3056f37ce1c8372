// A mutex that clang's thread-safety analysis knows, and its lock. Abseil's has
// locks that older releases take by pointer and newer ones by reference only;
// and the thread sanitizer sees into the standard library's, however it was
// built.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_MUTEX_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_MUTEX_H_

#include <mutex>

#include "absl/base/thread_annotations.h"

namespace orvane {

class ABSL_LOCKABLE Mutex {
 public:
  void Lock() ABSL_EXCLUSIVE_LOCK_FUNCTION() { mutex_.lock(); }
  void Unlock() ABSL_UNLOCK_FUNCTION() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// Holds a mutex, which outlives it, from construction to destruction.
class ABSL_SCOPED_LOCKABLE MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ABSL_EXCLUSIVE_LOCK_FUNCTION(mutex)
      : mutex_(mutex) {
    mutex_.Lock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;
  ~MutexLock() ABSL_UNLOCK_FUNCTION() { mutex_.Unlock(); }

 private:
  Mutex& mutex_;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_MUTEX_H_
