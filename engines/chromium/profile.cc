#include "engines/chromium/profile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"

#include "engines/chromium/engine_process.h"

namespace chromium {

absl::StatusOr<orvane::OwnedDescriptor> LockProfile(const std::string& folder) {
  if (folder.empty()) return orvane::OwnedDescriptor(-1);
  const auto cannot = [&folder](const char* what) {
    return absl::FailedPreconditionError(absl::StrCat("the profile ", folder,
                                                      " cannot be ", what, ": ",
                                                      std::strerror(errno)));
  };
  std::error_code error;
  std::filesystem::create_directories(
      std::filesystem::path(folder).parent_path(), error);
  if (::mkdir(folder.c_str(), 0700) == 0) {
    if (::geteuid() == 0 &&
        ::chown(folder.c_str(), kUnprivilegedUser, kUnprivilegedUser) != 0)
      return cannot("given to the engine");
  } else if (errno != EEXIST) {
    return cannot("made");
  }
  orvane::OwnedDescriptor lock(
      ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (lock.get() < 0) return cannot("opened");
  if (::flock(lock.get(), LOCK_EX | LOCK_NB) == 0) return lock;
  if (errno != EWOULDBLOCK) return cannot("locked");
  return absl::FailedPreconditionError(
      absl::StrCat("another process uses the profile ", folder));
}

}  // namespace chromium
