#include "engines/chromium/addresses.h"

#include <filesystem>
#include <fstream>
#include <string>

#include "absl/status/status.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"

namespace chromium {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(Addresses, TheWebIsAllowedAndNothingElse) {
  const Addresses addresses;
  for (const char* const allowed : {"http://a/", "https://a/", "HTTPS://a/",
                                    "data:text/html,x", "about:blank"}) {
    EXPECT_EQ(addresses.Check(allowed), absl::OkStatus()) << allowed;
  }
  for (const char* const refused :
       {"chrome://crash", "javascript:alert(1)", "view-source:http://a/",
        "file:///etc/passwd", "devtools://x", "blob:http://a/1"}) {
    EXPECT_TRUE(absl::IsPermissionDenied(addresses.Check(refused))) << refused;
  }
}

TEST(Addresses, WhatHasNoSchemeIsNoAddress) {
  EXPECT_THAT(Addresses().Check("example.com").message(),
              HasSubstr("'example.com' is not an address"));
}

TEST(Addresses, SchemesCanBeNarrowed) {
  Addresses addresses;
  ASSERT_EQ(addresses.SetSchemes("https"), absl::OkStatus());
  EXPECT_EQ(addresses.Check("https://a/"), absl::OkStatus());
  EXPECT_EQ(addresses.Check("http://a/").message(),
            "addresses of scheme 'http' are not allowed here; allowed are "
            "https");
}

TEST(Addresses, OnlyKnownSchemesCanBeAllowed) {
  Addresses addresses;
  EXPECT_TRUE(
      absl::IsInvalidArgument(addresses.SetSchemes("https,javascript")));
  EXPECT_TRUE(absl::IsInvalidArgument(addresses.SetSchemes("file")));
  EXPECT_EQ(addresses.Check("http://a/"), absl::OkStatus());  // As before.
}

TEST(Addresses, PatternsNameWhatIsNotAllowedAnyway) {
  Addresses addresses;
  EXPECT_THAT(addresses.PatternsToCheck(), ElementsAre("file://*"));
  ASSERT_EQ(addresses.SetSchemes("https"), absl::OkStatus());
  EXPECT_THAT(addresses.PatternsToCheck(), ElementsAre("file://*", "http://*"));
}

class AddressesOfFilesTest : public ::testing::Test {
 protected:
  AddressesOfFilesTest() {
    std::filesystem::create_directories(folder_.path() + "/in/deep");
    std::filesystem::create_directories(folder_.path() + "/inside");
    for (const char* const name :
         {"/in/a b.html", "/in/deep/b", "/inside/c", "/d"}) {
      std::ofstream(folder_.path() + name) << "x";
    }
    std::filesystem::create_symlink(folder_.path() + "/d",
                                    folder_.path() + "/in/link");
    EXPECT_EQ(addresses_.AddFolder(folder_.path() + "/in"), absl::OkStatus());
  }

  bool IsAllowed(const std::string& path) {
    return addresses_.Check("file://" + path).ok();
  }

  const orvane::testing::TemporaryFolder folder_;
  Addresses addresses_;
};

TEST_F(AddressesOfFilesTest, FilesInTheFolderAreAllowed) {
  EXPECT_TRUE(IsAllowed(folder_.path() + "/in/a%20b.html"));
  EXPECT_TRUE(IsAllowed(folder_.path() + "/in/deep/b?query#fragment"));
  EXPECT_TRUE(IsAllowed("localhost" + folder_.path() + "/in/deep/b"));
  EXPECT_TRUE(IsAllowed(folder_.path() + "/in/there/is/none"));
}

TEST_F(AddressesOfFilesTest, FilesElsewhereAreNot) {
  for (const std::string& path :
       {folder_.path() + "/d", folder_.path() + "/inside/c",
        folder_.path() + "/in/../d", folder_.path() + "/in/%2e%2e/d",
        folder_.path() + "/in/deep/../../d", folder_.path() + "/in/link",
        std::string("other.machine") + folder_.path() + "/in/deep/b",
        folder_.path() + "/in/deep/b%00"}) {
    EXPECT_FALSE(IsAllowed(path)) << path;
  }
}

TEST_F(AddressesOfFilesTest, AFolderMustBeThere) {
  EXPECT_TRUE(absl::IsNotFound(addresses_.AddFolder("/nowhere")));
  EXPECT_TRUE(absl::IsNotFound(addresses_.AddFolder(folder_.path() + "/d")));
}

}  // namespace
}  // namespace chromium
