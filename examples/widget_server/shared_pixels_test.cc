#include "examples/widget_server/shared_pixels.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/match.h"
#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace widget_server {
namespace {

std::unique_ptr<SharedPixels> NewPixels(std::size_t length) {
  auto pixels = SharedPixels::Create(length);
  EXPECT_TRUE(pixels.ok()) << pixels.status();
  return *std::move(pixels);
}

// Opens the object like a host.
orvane::OwnedDescriptor Open(const std::string& name) {
  return orvane::OwnedDescriptor(::shm_open(name.c_str(), O_RDONLY, 0));
}

// How many objects that process has.
std::ptrdiff_t NamesOf(pid_t process) {
  const std::filesystem::directory_iterator objects("/dev/shm");
  return std::count_if(
      begin(objects), end(objects),
      [prefix =
           absl::StrCat("orvane-pixels-", process, "-")](const auto& object) {
        return absl::StartsWith(object.path().filename().string(), prefix);
      });
}

// The name of the object that is created `further` objects after this one.
std::string NameAfter(const std::string& name, std::int64_t further) {
  const std::size_t number_at = name.rfind('.') + 1;
  std::int64_t number = 0;
  EXPECT_TRUE(absl::SimpleAtoi(name.substr(number_at), &number));
  return absl::StrCat(name.substr(0, number_at), number + further);
}

TEST(SharedPixels, AnotherProcessReadsWhatIsWritten) {
  const auto pixels = NewPixels(10000);
  pixels->bytes().front() = 17;
  pixels->bytes().back() = 42;

  const orvane::OwnedDescriptor object = Open(pixels->name());
  ASSERT_GE(object.get(), 0);
  void* const seen =
      ::mmap(nullptr, 10000, PROT_READ, MAP_SHARED, object.get(), 0);
  ASSERT_NE(seen, MAP_FAILED);
  const auto* const bytes = static_cast<const std::uint8_t*>(seen);
  EXPECT_EQ(bytes[0], 17);
  EXPECT_EQ(bytes[9999], 42);
  ::munmap(seen, 10000);
}

TEST(SharedPixels, HasTheLengthAskedForAndIsPrivateToTheUser) {
  const auto pixels = NewPixels(10000);
  EXPECT_EQ(pixels->bytes().size(), 10000u);
  const orvane::OwnedDescriptor object = Open(pixels->name());
  struct stat found = {};
  ASSERT_EQ(::fstat(object.get(), &found), 0);
  EXPECT_EQ(found.st_size, 10000);
  EXPECT_EQ(found.st_mode & 0777U, 0600U);
  EXPECT_EQ(found.st_uid, ::getuid());
}

TEST(SharedPixels, IsNamedAfterTheProcessAndLikeNoOther) {
  const auto one = NewPixels(1);
  const auto other = NewPixels(1);
  EXPECT_TRUE(absl::StartsWith(
      one->name(), absl::StrCat("/orvane-pixels-", ::getpid(), "-")));
  EXPECT_NE(one->name(), other->name());
}

TEST(SharedPixels, ANameThatIsTakenIsPassedOver) {
  const auto one = NewPixels(1);
  const std::string next = NameAfter(one->name(), 1);
  const orvane::OwnedDescriptor stale(
      ::shm_open(next.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600));
  ASSERT_GE(stale.get(), 0);
  EXPECT_NE(NewPixels(1)->name(), next);
  ::shm_unlink(next.c_str());
}

TEST(SharedPixels, ItsNameIsGoneWithIt) {
  auto pixels = NewPixels(1);
  const std::string name = pixels->name();
  pixels.reset();
  EXPECT_LT(Open(name).get(), 0);
}

TEST(SharedPixels, NothingIsLeftOnceThereAreNone) {
  {
    const auto one = NewPixels(1);
    const auto other = NewPixels(1);
    EXPECT_EQ(NamesOf(::getpid()), 3);  // These, and what is common to them.
  }
  EXPECT_EQ(NamesOf(::getpid()), 0);
}

// As a process has them whose first object has that name.
std::vector<orvane::OwnedDescriptor> Objects(const std::string& first) {
  std::vector<orvane::OwnedDescriptor> made;
  for (const std::string& name : {first, first + ".8"}) {
    made.emplace_back(
        ::shm_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600));
    EXPECT_GE(made.back().get(), 0) << name;
  }
  return made;
}

TEST(SharedPixels, WhatAKilledProcessHasLeftIsRemoved) {
  { const auto left = Objects("/orvane-pixels-1-7"); }
  const auto ours = NewPixels(1);
  EXPECT_LT(Open("/orvane-pixels-1-7.8").get(), 0);
  EXPECT_LT(Open("/orvane-pixels-1-7").get(), 0);
}

TEST(SharedPixels, WhatAnotherProcessUsesStays) {
  const auto theirs = Objects("/orvane-pixels-1-9");
  ASSERT_EQ(::flock(theirs.front().get(), LOCK_EX), 0);
  const auto ours = NewPixels(1);
  EXPECT_GE(Open("/orvane-pixels-1-9.8").get(), 0);
  ::shm_unlink("/orvane-pixels-1-9.8");
  ::shm_unlink("/orvane-pixels-1-9");
}

TEST(SharedPixels, MoreThanThereIsIsRefusedInWordsAndLeavesNoName) {
  const auto pixels = SharedPixels::Create(std::size_t{1} << 62);
  EXPECT_EQ(pixels.status().code(), absl::StatusCode::kResourceExhausted);
  EXPECT_TRUE(absl::StartsWith(
      pixels.status().message(),
      "cannot create 4611686018427387904 bytes of shared memory as "
      "/orvane-pixels-"));
  EXPECT_EQ(NamesOf(::getpid()), 0);
}

}  // namespace
}  // namespace widget_server
