// For tests: folders for sockets.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_TEMPORARY_FOLDER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_TEMPORARY_FOLDER_H_

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "gtest/gtest.h"

namespace orvane::testing {

// A new folder that only this user can enter. It goes away with its owner, and
// with everything in it.
class TemporaryFolder {
 public:
  // Not below $TMPDIR: the path of a socket must not be long.
  TemporaryFolder() : path_("/tmp/orvane-test-XXXXXX") {
    EXPECT_NE(::mkdtemp(path_.data()), nullptr) << path_;
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
    EXPECT_FALSE(error) << path_ << " stays: " << error.message();
  }

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_TEMPORARY_FOLDER_H_
