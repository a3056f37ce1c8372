// Descriptors that a loop watches.

#include "zimbrel/src/core/common/rpc/event_loop.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/when_destroyed.h"

namespace orvane {
namespace {

using testing::WhenDestroyed;

// One end of a pair of sockets is watched, the other is the test's.
class WatchTest : public ::testing::Test {
 protected:
  WatchTest() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    watch_ = *loop_.WatchDescriptor(OwnedDescriptor(ends[0]));
    peer_.emplace(ends[1]);
  }

  void Send() { EXPECT_EQ(::send(peer_->get(), "x", 1, 0), 1); }
  void Watch() {
    watch_->WhenReadable([this] { ++told_; });
  }
  int Told() {
    loop_.RunUntilIdle();
    return told_;
  }
  // Until no more goes in.
  void Fill() {
    const std::string bytes(4096, 'x');
    while (::send(watch_->descriptor(), bytes.data(), bytes.size(),
                  MSG_NOSIGNAL) > 0) {
    }
    EXPECT_EQ(errno, EAGAIN);
  }
  void Drain() {
    std::array<char, 65536> bytes;
    while (::recv(peer_->get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
    }
  }

  EventLoop loop_;
  std::unique_ptr<EventLoop::Watch> watch_;
  std::optional<OwnedDescriptor> peer_;
  int told_ = 0;
};

TEST_F(WatchTest, MakesItsDescriptorNonBlockingAndClosedInOtherPrograms) {
  EXPECT_NE(::fcntl(watch_->descriptor(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(::fcntl(watch_->descriptor(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(WatchTest, TellsOfWhatComes) {
  Watch();
  EXPECT_EQ(Told(), 0);
  Send();
  EXPECT_EQ(Told(), 1);
}

TEST_F(WatchTest, TellsOnceForEachTimeItIsAsked) {
  Watch();
  Send();
  EXPECT_EQ(Told(), 1);
  Send();
  EXPECT_EQ(Told(), 1);
}

TEST_F(WatchTest, TellsOfWhatCameBeforeItWasAsked) {
  Send();
  loop_.RunUntilIdle();
  Watch();
  EXPECT_EQ(told_, 0);  // Not inside the call.
  EXPECT_EQ(Told(), 1);
}

TEST_F(WatchTest, TellsOfWhatWasThereBeforeItWasMade) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe(ends.data()), 0);
  const OwnedDescriptor write_end(ends[1]);
  ASSERT_EQ(::write(write_end.get(), "x", 1), 1);
  watch_ = *loop_.WatchDescriptor(OwnedDescriptor(ends[0]));
  Watch();
  EXPECT_EQ(Told(), 1);
}

TEST_F(WatchTest, TellsAgainOfWhatComesAfterItHasTold) {
  Watch();
  Send();
  EXPECT_EQ(Told(), 1);
  Watch();
  EXPECT_EQ(Told(), 1);
  Send();
  EXPECT_EQ(Told(), 2);
}

TEST_F(WatchTest, TellsOfTheEndAsOftenAsItIsAsked) {
  peer_.reset();
  for (int times = 1; times <= 3; ++times) {
    Watch();
    EXPECT_EQ(Told(), times);
  }
}

// No event follows that of the last bytes and the end together.
TEST_F(WatchTest, TellsOfTheEndThatCameTogetherWithTheLastBytes) {
  Send();
  peer_.reset();
  Watch();
  EXPECT_EQ(Told(), 1);
  Watch();
  EXPECT_EQ(Told(), 2);
}

TEST_F(WatchTest, TellsOfTheEndOfAPipe) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe(ends.data()), 0);
  watch_ = *loop_.WatchDescriptor(OwnedDescriptor(ends[0]));
  ASSERT_EQ(::close(ends[1]), 0);
  Watch();
  EXPECT_EQ(Told(), 1);
}

TEST_F(WatchTest, TellsOfRoomToWrite) {
  bool told = false;
  watch_->WhenWritable([&told] { told = true; });
  loop_.RunUntilIdle();
  EXPECT_TRUE(told);
}

TEST_F(WatchTest, TellsOfRoomOnceTheOtherEndHasRead) {
  Fill();
  bool told = false;
  watch_->WhenWritable([&told] { told = true; });
  loop_.RunUntilIdle();
  EXPECT_FALSE(told);
  Drain();
  loop_.RunUntilIdle();
  EXPECT_TRUE(told);
}

TEST_F(WatchTest, TellsAWriterThatNobodyIsLeftToRead) {
  Fill();
  bool told = false;
  watch_->WhenWritable([&told] { told = true; });
  peer_.reset();
  loop_.RunUntilIdle();
  EXPECT_TRUE(told);
}

TEST_F(WatchTest, ASecondTaskReplacesTheFirst) {
  const auto held = std::make_shared<int>(0);
  watch_->WhenReadable([held] { FAIL(); });
  Watch();
  EXPECT_EQ(held.use_count(), 1);
  Send();
  EXPECT_EQ(Told(), 1);
}

TEST_F(WatchTest, ATaskThatIsReplacedMayAskAgain) {
  watch_->WhenReadable([end = WhenDestroyed([this] { Watch(); })] { FAIL(); });
  watch_->WhenReadable([] { FAIL(); });
  Send();
  EXPECT_EQ(Told(), 1);
}

TEST_F(WatchTest, ATaskThatIsReplacedMayDestroyIt) {
  const auto drop = [this] { watch_.reset(); };
  watch_->WhenReadable([end = WhenDestroyed(drop)] { FAIL(); });
  watch_->WhenReadable([] { FAIL(); });
  EXPECT_EQ(watch_, nullptr);
}

TEST_F(WatchTest, ATaskThatIsReplacedMayDestroyItWhileItAwaitsRoom) {
  const auto drop = [this] { watch_.reset(); };
  watch_->WhenWritable([end = WhenDestroyed(drop)] { FAIL(); });
  watch_->WhenWritable([] { FAIL(); });
  EXPECT_EQ(watch_, nullptr);
}

TEST_F(WatchTest, AnEmptyTaskWaitsForNothing) {
  Watch();
  watch_->WhenReadable(nullptr);
  Send();
  EXPECT_EQ(Told(), 0);
}

TEST_F(WatchTest, DestroyedItDropsItsTasks) {
  const auto held = std::make_shared<int>(0);
  watch_->WhenReadable([held] { FAIL(); });
  watch_->WhenWritable([held] { FAIL(); });
  watch_.reset();
  EXPECT_EQ(held.use_count(), 1);
  loop_.RunUntilIdle();
}

TEST_F(WatchTest, MayBeDestroyedInItsOwnTask) {
  watch_->WhenReadable([this] {
    watch_.reset();
    ++told_;
  });
  Send();
  EXPECT_EQ(Told(), 1);
}

TEST_F(WatchTest, MayBeDestroyedWhileItsTaskIsQueued) {
  Send();
  loop_.RunUntilIdle();
  loop_.Post([this] { watch_.reset(); });
  Watch();  // Queued behind it, since there is something to read.
  EXPECT_EQ(Told(), 0);
}

// A child process that has inherited the socket keeps it in the set.
TEST_F(WatchTest, DestroyedItIsNotToldOfWhatHappensToACopyOfItsDescriptor) {
  const OwnedDescriptor copy(::dup(watch_->descriptor()));
  Watch();
  watch_.reset();
  Send();
  EXPECT_EQ(loop_.RunUntilIdle(), 0u);
}

TEST_F(WatchTest, RefusesAFileOnDisk) {
  OwnedDescriptor file(::memfd_create("file", MFD_CLOEXEC));
  const int number = file.get();
  EXPECT_EQ(loop_.WatchDescriptor(std::move(file)).status().code(),
            absl::StatusCode::kPermissionDenied);
  EXPECT_EQ(::fcntl(number, F_GETFD), -1);  // Closed.
}

TEST_F(WatchTest, RefusesWhatIsNoDescriptor) {
  EXPECT_FALSE(loop_.WatchDescriptor(OwnedDescriptor(-1)).ok());
}

}  // namespace
}  // namespace orvane
