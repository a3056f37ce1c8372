#include "host/new_file.h"

#include <filesystem>
#include <fstream>
#include <string>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"

namespace orvane::host {
namespace {

using ::testing::HasSubstr;

TEST(SafeFileNameTest, AnOrdinaryNameStaysAsItIs) {
  EXPECT_EQ(SafeFileName("report.pdf"), "report.pdf");
  EXPECT_EQ(SafeFileName("Ünï cödé – 你好.tar.gz"), "Ünï cödé – 你好.tar.gz");
  EXPECT_EQ(SafeFileName("-rf ~ $(x) 'y' \"z\""), "-rf ~ $(x) 'y' \"z\"");
}

TEST(SafeFileNameTest, OfAPathTheNameIsLeft) {
  EXPECT_EQ(SafeFileName("../../x"), "x");
  EXPECT_EQ(SafeFileName("/etc/passwd"), "passwd");
  EXPECT_EQ(SafeFileName("C:\\Windows\\notes.txt"), "notes.txt");
}

TEST(SafeFileNameTest, NothingIsHidden) {
  EXPECT_EQ(SafeFileName(".bashrc"), "bashrc");
  EXPECT_EQ(SafeFileName(" .. .profile "), "profile");
}

TEST(SafeFileNameTest, WhatIsNoNameBecomesOne) {
  for (const char* const name : {"", ".", "..", "a/", "a\\", " ", ". ."})
    EXPECT_EQ(SafeFileName(name), "download") << name;
}

TEST(SafeFileNameTest, WhatIsNotShownIsReplaced) {
  EXPECT_EQ(SafeFileName(std::string("a\0b\nc\x1b[2J\x7f.txt", 13)),
            "a_b_c_[2J_.tx");
  EXPECT_EQ(SafeFileName("photo\u202egpj.exe"), "photo_gpj.exe");
  EXPECT_EQ(SafeFileName("no \xff utf-8"), "no _ utf-8");
}

TEST(SafeFileNameTest, ALongNameIsCutAndKeepsItsExtension) {
  EXPECT_EQ(SafeFileName(absl::StrCat(std::string(100'000, 'x'), ".pdf")),
            absl::StrCat(std::string(196, 'x'), ".pdf"));
  EXPECT_EQ(SafeFileName("x." + std::string(100'000, 'y')),
            "x." + std::string(198, 'y'));
  std::string umlauts;
  for (int i = 0; i < 1000; ++i) umlauts += "ü";
  EXPECT_EQ(SafeFileName("x" + umlauts), "x" + umlauts.substr(0, 198));
}

class NewFileTest : public ::testing::Test {
 protected:
  std::string Create(absl::string_view suggested) {
    const auto path = CreateNewFile(folder_.path(), suggested);
    EXPECT_TRUE(path.ok()) << path.status();
    return path.ok() ? *path : "";
  }
  std::string PathOf(const std::string& name) const {
    return folder_.path() + "/" + name;
  }

  const orvane::testing::TemporaryFolder folder_;
};

TEST_F(NewFileTest, AFileIsCreatedUnderItsName) {
  EXPECT_EQ(Create("../report.pdf"), PathOf("report.pdf"));
  EXPECT_EQ(std::filesystem::file_size(PathOf("report.pdf")), 0u);
}

TEST_F(NewFileTest, WhatHasTheNameIsLeftAlone) {
  std::ofstream(PathOf("report.pdf")) << "mine";
  EXPECT_EQ(Create("report.pdf"), PathOf("report (2).pdf"));
  EXPECT_EQ(Create("report.pdf"), PathOf("report (3).pdf"));
  EXPECT_EQ(std::filesystem::file_size(PathOf("report.pdf")), 4u);
  std::filesystem::create_directory(PathOf("folder"));
  EXPECT_EQ(Create("folder"), PathOf("folder (2)"));
  std::filesystem::create_symlink("/nowhere", PathOf("link"));
  EXPECT_EQ(Create("link"), PathOf("link (2)"));
}

TEST_F(NewFileTest, TheNumberFitsTheLongestName) {
  const std::string name(255, 'x');
  Create(name);
  EXPECT_EQ(Create(name), PathOf(absl::StrCat(std::string(200, 'x'), " (2)")));
}

TEST_F(NewFileTest, NamesRunOut) {
  std::ofstream(PathOf("x"));
  for (int i = 2; i < 1000; ++i)
    std::ofstream(PathOf(absl::StrCat("x (", i, ")")));
  EXPECT_EQ(Create("x"), PathOf("x (1000)"));
  EXPECT_TRUE(
      absl::IsAlreadyExists(CreateNewFile(folder_.path(), "x").status()));
}

TEST_F(NewFileTest, AFolderThatCannotBeWrittenIsToldInWords) {
  const absl::Status status =
      CreateNewFile(PathOf("no such folder"), "x").status();
  EXPECT_TRUE(absl::IsUnavailable(status));
  EXPECT_THAT(std::string(status.message()),
              HasSubstr("no such folder: No such file or directory"));
}

TEST_F(NewFileTest, OnlyAnEmptyFileIsRemoved) {
  const std::string empty = Create("empty");
  const std::string full = Create("full");
  std::ofstream(full) << "content";
  std::filesystem::create_symlink(full, PathOf("link"));
  for (const std::string& path :
       {empty, full, PathOf("link"), PathOf("missing"), folder_.path()})
    RemoveIfEmpty(path);
  EXPECT_FALSE(std::filesystem::exists(empty));
  EXPECT_TRUE(std::filesystem::exists(full));
  EXPECT_TRUE(std::filesystem::exists(PathOf("link")));
}

}  // namespace
}  // namespace orvane::host
