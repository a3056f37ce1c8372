#include "examples/widget_server/shared_pixels.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/status/status.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"

#include "zimbrel/src/core/common/rpc/mutex.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace widget_server {
namespace {

constexpr absl::string_view kPrefix = "/orvane-pixels-";

absl::Status Failure(const std::string& name, std::size_t length, int error) {
  return absl::ResourceExhaustedError(
      absl::StrCat("cannot create ", length, " bytes of shared memory as ",
                   name, ": ", std::strerror(error)));
}

// The name is the prefix and a number. Below 0 on failure, with errno.
orvane::OwnedDescriptor CreateObject(absl::string_view prefix,
                                     std::string* name) {
  static std::atomic<std::uint64_t> last_number = 0;
  int descriptor = -1;
  // An earlier process with the same id may have left its object behind.
  do {
    *name = absl::StrCat(prefix, ++last_number);
    descriptor = ::shm_open(name->c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
  } while (descriptor < 0 && errno == EEXIST);
  return orvane::OwnedDescriptor(descriptor);
}

// As shm_open knows them. None where the system keeps them elsewhere.
std::vector<std::string> NamesOfObjects() {
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator entry("/dev/shm", error), end;
       !error && entry != end; entry.increment(error)) {
    std::string name = absl::StrCat("/", entry->path().filename().string());
    if (absl::StartsWith(name, kPrefix)) names.push_back(std::move(name));
  }
  return names;
}

}  // namespace

// The objects of one process. Their names begin with that of an empty object,
// which the process keeps locked as long as there are others, so that what a
// process has left that was killed can be told from what is in use.
class SharedPixels::Family {
 public:
  // That of this process. Null if it cannot be made, with errno.
  static std::shared_ptr<const Family> Get() {
    static constinit orvane::Mutex mutex;
    static auto& present ABSL_GUARDED_BY(mutex) =
        *new std::weak_ptr<const Family>;
    const orvane::MutexLock lock(mutex);
    std::shared_ptr<const Family> family = present.lock();
    if (family == nullptr) {
      RemoveWhatWasLeft();
      family = Make();
      present = family;
    }
    return family;
  }

  Family(const Family&) = delete;
  Family& operator=(const Family&) = delete;
  ~Family() { ::shm_unlink(name_.c_str()); }

  // Of each other object.
  std::string prefix() const { return absl::StrCat(name_, "."); }

 private:
  Family(std::string name, orvane::OwnedDescriptor lock)
      : name_(std::move(name)), lock_(std::move(lock)) {}

  static std::shared_ptr<const Family> Make() {
    while (true) {
      std::string name;
      orvane::OwnedDescriptor lock =
          CreateObject(absl::StrCat(kPrefix, ::getpid(), "-"), &name);
      struct stat made = {};
      if (lock.get() < 0 || ::flock(lock.get(), LOCK_EX) != 0 ||
          ::fstat(lock.get(), &made) != 0)
        return nullptr;
      // Another process may just have taken it for one that was left.
      if (made.st_nlink == 0) continue;
      return std::shared_ptr<const Family>(
          new Family(std::move(name), std::move(lock)));
    }
  }

  static void RemoveWhatWasLeft() {
    const std::vector<std::string> names = NamesOfObjects();
    for (const std::string& name : names) {
      if (absl::StrContains(name, '.')) continue;
      const orvane::OwnedDescriptor left(::shm_open(name.c_str(), O_RDWR, 0));
      if (left.get() < 0 || ::flock(left.get(), LOCK_EX | LOCK_NB) != 0)
        continue;
      for (const std::string& other : names) {
        if (absl::StartsWith(other, absl::StrCat(name, ".")))
          ::shm_unlink(other.c_str());
      }
      ::shm_unlink(name.c_str());
    }
  }

  const std::string name_;
  const orvane::OwnedDescriptor lock_;
};

absl::StatusOr<std::unique_ptr<SharedPixels>> SharedPixels::Create(
    std::size_t length) {
  std::shared_ptr<const Family> family = Family::Get();
  if (family == nullptr) return Failure(std::string(kPrefix), length, errno);
  std::string name;
  const orvane::OwnedDescriptor object = CreateObject(family->prefix(), &name);
  const int descriptor = object.get();
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
  if (error != 0) {
    ::shm_unlink(name.c_str());
    return Failure(name, length, error);
  }
  return std::unique_ptr<SharedPixels>(
      new SharedPixels(std::move(family), std::move(name),
                       {static_cast<std::uint8_t*>(memory), length}));
}

SharedPixels::SharedPixels(std::shared_ptr<const Family> family,
                           std::string name, std::span<std::uint8_t> bytes)
    : family_(std::move(family)), name_(std::move(name)), bytes_(bytes) {}

SharedPixels::~SharedPixels() {
  ::munmap(bytes_.data(), bytes_.size());
  ::shm_unlink(name_.c_str());
}

}  // namespace widget_server
