// The end of a loop: what it still holds is destroyed unrun, inside its
// destructor, whoever owns whom.

#include "zimbrel/src/core/common/rpc/event_loop.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <csignal>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "absl/time/time.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/when_destroyed.h"

namespace orvane {
namespace {

using testing::WhenDestroyed;

using SharedTimer = std::shared_ptr<std::unique_ptr<EventLoop::Timer>>;
using SharedWatch = std::shared_ptr<std::unique_ptr<EventLoop::Watch>>;

class EventLoopEndTest : public ::testing::Test {
 protected:
  EventLoopEndTest() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    watched_.emplace(ends[0]);
    peer_.emplace(ends[1]);
  }

  // Nothing has run, and nothing is left of the tasks that hold `held_`.
  void ExpectAllIsDestroyed() const { EXPECT_EQ(held_.use_count(), 1); }

  std::unique_ptr<EventLoop::Watch> Watch() {
    return *loop_->WatchDescriptor(
        OwnedDescriptor(std::exchange(watched_, std::nullopt)->Release()));
  }
  bool PeerSeesTheEnd() const {
    pollfd end{.fd = peer_->get(), .events = POLLRDHUP, .revents = 0};
    return ::poll(&end, 1, 0) == 1;
  }

  std::unique_ptr<EventLoop> loop_ = std::make_unique<EventLoop>();
  std::shared_ptr<int> held_ = std::make_shared<int>();
  std::optional<OwnedDescriptor> watched_;
  std::optional<OwnedDescriptor> peer_;
};

TEST_F(EventLoopEndTest, IsNotWaitedForByTheDestructorOfATask) {
  int waits = 0;
  loop_->Post([held = held_, waiting = WhenDestroyed([&, loop = loop_.get()] {
                               loop->Run();
                               loop->RunReady();
                               EXPECT_FALSE(
                                   loop->RunUntil([] { return false; }));
                               ++waits;
                             })] { FAIL(); });
  loop_.reset();
  EXPECT_EQ(waits, 1);
  ExpectAllIsDestroyed();
}

TEST_F(EventLoopEndTest, DestroysTasksThatAnotherThreadHasPosted) {
  std::thread([this] { loop_->Post([held = held_] { FAIL(); }); }).join();
  loop_.reset();
  ExpectAllIsDestroyed();
}

TEST_F(EventLoopEndTest, DestroysTasksThatARunHasLeft) {
  loop_->Post([this] { loop_->Stop(); });
  loop_->Post([held = held_] { FAIL(); });
  loop_->Run();
  loop_.reset();
  ExpectAllIsDestroyed();
}

TEST_F(EventLoopEndTest, DestroysWhatWasToRunBeforeWaiting) {
  loop_->RunBeforeWaiting([held = held_] { FAIL(); });
  loop_.reset();
  ExpectAllIsDestroyed();
}

TEST_F(EventLoopEndTest, DestroysTheTaskOfASignalThatHasComeToo) {
  loop_->OnSignal({SIGUSR1}, [held = held_] { FAIL(); });
  std::raise(SIGUSR1);
  loop_.reset();
  ExpectAllIsDestroyed();
}

TEST_F(EventLoopEndTest, DestroysATimerThatAQueuedTaskOwns) {
  auto timer = loop_->RunAfter(absl::Hours(1), [held = held_] { FAIL(); });
  loop_->Post([timer = std::move(timer)] { FAIL(); });
  loop_.reset();
  ExpectAllIsDestroyed();
}

// It used to be taken out of the table that was just being destroyed.
TEST_F(EventLoopEndTest, DestroysATimerThatItsOwnTaskOwns) {
  {
    const auto timer = std::make_shared<SharedTimer::element_type>();
    *timer = loop_->RunAfter(absl::Hours(1), [timer, held = held_] { FAIL(); });
  }
  loop_.reset();
  ExpectAllIsDestroyed();
}

TEST_F(EventLoopEndTest, DestroysTimersOfWhichEachTaskOwnsTheNext) {
  std::unique_ptr<EventLoop::Timer> last;
  for (int i = 0; i < 10; ++i) {
    last = loop_->RunAfter(absl::Hours(i + 1), [before = std::move(last),
                                                held = held_] { FAIL(); });
  }
  loop_->Post([last = std::move(last)] { FAIL(); });
  loop_.reset();
  ExpectAllIsDestroyed();
}

TEST_F(EventLoopEndTest, ClosesAWatchThatAQueuedTaskOwns) {
  auto watch = Watch();
  watch->WhenReadable([held = held_] { FAIL(); });
  loop_->Post([watch = std::move(watch)] { FAIL(); });
  loop_.reset();
  ExpectAllIsDestroyed();
  EXPECT_TRUE(PeerSeesTheEnd());
}

// Nobody used to.
TEST_F(EventLoopEndTest, ClosesAWatchThatItsOwnTaskOwns) {
  {
    const auto watch = std::make_shared<SharedWatch::element_type>(Watch());
    (*watch)->WhenReadable([watch, held = held_] { FAIL(); });
    (*watch)->WhenWritable([watch, held = held_] { FAIL(); });
  }
  loop_.reset();
  ExpectAllIsDestroyed();
  EXPECT_TRUE(PeerSeesTheEnd());
}

TEST_F(EventLoopEndTest, DestroysWhatATaskThatIsDestroyedLeaves) {
  EventLoop* const loop = loop_.get();
  const auto leave = [loop, held = held_] {
    loop->Post([held] { FAIL(); });
    loop->RunBeforeWaiting([held] { FAIL(); });
    loop->mailbox()->Post([held] { FAIL(); });
  };
  loop->Post([end = WhenDestroyed(leave)] { FAIL(); });
  loop->RunBeforeWaiting([end = WhenDestroyed(leave)] { FAIL(); });
  {
    const auto timer = std::make_shared<SharedTimer::element_type>();
    *timer = loop->RunAfter(absl::Hours(1),
                            [timer, end = WhenDestroyed(leave)] { FAIL(); });
  }
  {
    const auto watch = std::make_shared<SharedWatch::element_type>(Watch());
    (*watch)->WhenReadable([watch, end = WhenDestroyed(leave)] { FAIL(); });
  }
  loop_.reset();
  EXPECT_EQ(held_.use_count(), 2) << "one of them is leave's";
}

}  // namespace
}  // namespace orvane
