#include "engines/chromium/profile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "absl/status/status.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "engines/chromium/engine_process.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"

namespace chromium {
namespace {

using ::testing::StartsWith;

class ProfileTest : public testing::Test {
 protected:
  const orvane::testing::TemporaryFolder folder_;
  const std::string profile_ = folder_.path() + "/some/profile";
};

TEST_F(ProfileTest, IsMadeForTheUserOfTheEngine) {
  const auto lock = LockProfile(profile_);
  ASSERT_TRUE(lock.ok()) << lock.status();
  struct stat made = {};
  ASSERT_EQ(::stat(profile_.c_str(), &made), 0);
  EXPECT_EQ(made.st_mode & 0777, 0700u);
  EXPECT_EQ(made.st_uid, ::geteuid() == 0 ? kUnprivilegedUser : ::geteuid());
}

TEST_F(ProfileTest, IsForOneProcessAtATime) {
  {
    const auto first = LockProfile(profile_);
    ASSERT_TRUE(first.ok()) << first.status();
    EXPECT_EQ(LockProfile(profile_).status(),
              absl::FailedPreconditionError(
                  "another process uses the profile " + profile_));
  }
  EXPECT_TRUE(LockProfile(profile_).ok());
}

TEST_F(ProfileTest, IsNoFile) {
  const std::string file = folder_.path() + "/file";
  std::ofstream(file).close();
  EXPECT_THAT(std::string(LockProfile(file).status().message()),
              StartsWith("the profile " + file + " cannot be opened: "));
}

}  // namespace
}  // namespace chromium
