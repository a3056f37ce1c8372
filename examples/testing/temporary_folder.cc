#include "examples/testing/temporary_folder.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "absl/log/log.h"

namespace example_testing {

// Not below $TMPDIR: the path of a socket must not be long.
TemporaryFolder::TemporaryFolder() : path_("/tmp/orvane-test-XXXXXX") {
  if (::mkdtemp(path_.data()) == nullptr)
    LOG(FATAL) << "no folder " << path_ << ": " << std::strerror(errno);
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
  if (error) LOG(ERROR) << path_ << " stays: " << error.message();
}

}  // namespace example_testing
