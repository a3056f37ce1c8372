#include "host/new_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "absl/status/status.h"
#include "absl/strings/ascii.h"
#include "absl/strings/str_cat.h"

#include "zimbrel/src/core/common/rpc/characters.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"
#include "zimbrel/src/core/common/rpc/printable.h"

namespace orvane::host {
namespace {

// Most file systems allow 255. The rest is for a number, and for what those who
// write the file append to its name until it is complete.
constexpr std::size_t kMaxNameBytes = 200;

// What is longer is no extension.
constexpr std::size_t kMaxExtensionBytes = 20;

constexpr int kMaxNumber = 1000;

struct Parts {
  absl::string_view stem;
  absl::string_view extension;  // With its dot.
};

Parts Split(absl::string_view name) {
  const std::size_t dot = std::min(name.rfind('.'), name.size());
  if (name.size() - dot > kMaxExtensionBytes) return {name, ""};
  return {name.substr(0, dot), name.substr(dot)};
}

// As many whole characters as fit.
std::string Clean(absl::string_view text, std::size_t max_bytes) {
  std::string clean;
  while (!text.empty()) {
    const std::size_t length =
        std::max<std::size_t>(FirstCharacter(text).bytes, 1);
    const absl::string_view character = text.substr(0, length);
    const bool is_shown = Printable(character) == character;
    if (clean.size() + (is_shown ? length : 1) > max_bytes) break;
    absl::StrAppend(&clean, is_shown ? character : "_");
    text.remove_prefix(length);
  }
  return clean;
}

}  // namespace

std::string SafeFileName(absl::string_view suggested) {
  suggested.remove_prefix(suggested.find_last_of("/\\") + 1);  // npos + 1 is 0.
  suggested = absl::StripAsciiWhitespace(suggested);
  suggested.remove_prefix(
      std::min(suggested.find_first_not_of(". "), suggested.size()));
  if (suggested.empty()) return "download";
  const Parts parts = Split(suggested);
  const std::string extension = Clean(parts.extension, kMaxExtensionBytes);
  return Clean(parts.stem, kMaxNameBytes - extension.size()) + extension;
}

absl::StatusOr<std::string> CreateNewFile(const std::string& folder,
                                          absl::string_view suggested) {
  const std::string name = SafeFileName(suggested);
  const Parts parts = Split(name);
  for (int number = 1; number <= kMaxNumber; ++number) {
    const std::string path = absl::StrCat(
        folder, "/", parts.stem,
        number == 1 ? "" : absl::StrCat(" (", number, ")"), parts.extension);
    const OwnedDescriptor file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (file.get() >= 0) return path;
    if (errno != EEXIST) {
      return absl::UnavailableError(absl::StrCat("no file can be created in ",
                                                 Printable(folder), ": ",
                                                 std::strerror(errno)));
    }
  }
  return absl::AlreadyExistsError(absl::StrCat(
      "there are ", kMaxNumber, " files of that name in ", Printable(folder)));
}

void RemoveIfEmpty(const std::string& path) {
  struct stat found = {};
  if (::lstat(path.c_str(), &found) == 0 && S_ISREG(found.st_mode) &&
      found.st_size == 0) {
    ::unlink(
        path.c_str());  // If that fails, it stays: there is nobody to tell.
  }
}

}  // namespace orvane::host
