#include "engines/chromium/downloads.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "gtest/gtest.h"

#include "engines/chromium/engine_process.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"

namespace chromium {
namespace {

class DownloadFolderTest : public testing::Test {
 protected:
  DownloadFolderTest() { ::setenv("TMPDIR", folder_.path().c_str(), 1); }
  ~DownloadFolderTest() override { ::unsetenv("TMPDIR"); }

  // As a process leaves it that is killed.
  std::string Leave(const std::string& name) {
    const std::string path = folder_.path() + "/" + name;
    std::filesystem::create_directory(path);
    std::ofstream(path + "/part") << "of a file";
    if (::geteuid() == 0) {
      EXPECT_EQ(::chown(path.c_str(), kUnprivilegedUser, kUnprivilegedUser), 0);
    }
    return path;
  }

  const orvane::testing::TemporaryFolder folder_;
};

TEST_F(DownloadFolderTest, IsGoneAtTheEnd) {
  auto folder = DownloadFolder::Make();
  ASSERT_TRUE(folder.ok()) << folder.status();
  const std::string path = (*folder)->path();
  EXPECT_TRUE(std::filesystem::exists(path));
  folder->reset();
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(DownloadFolderTest, WhatWasLeftBehindIsRemoved) {
  const std::string left = Leave("orvane-chromium-a1b2c3");
  const auto folder = DownloadFolder::Make();
  ASSERT_TRUE(folder.ok()) << folder.status();
  EXPECT_FALSE(std::filesystem::exists(left));
}

TEST_F(DownloadFolderTest, WhatAnotherProcessUsesStays) {
  const auto first = DownloadFolder::Make();
  ASSERT_TRUE(first.ok()) << first.status();
  const auto second = DownloadFolder::Make();
  ASSERT_TRUE(second.ok()) << second.status();
  EXPECT_TRUE(std::filesystem::exists((*first)->path()));
}

TEST_F(DownloadFolderTest, WhatHasAnotherNameStays) {
  const std::string other = Leave("chromium-a1b2c3");
  const auto folder = DownloadFolder::Make();
  ASSERT_TRUE(folder.ok()) << folder.status();
  EXPECT_TRUE(std::filesystem::exists(other));
}

}  // namespace
}  // namespace chromium
