// Two clients watch the same events, and one of them dies at a random moment,
// many times over. Takes --gtest_random_seed.

#include <cstddef>
#include <cstdint>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/forked_process.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"

namespace orvane::testing {
namespace {

using ::rpc::transport::StreamMessage;

constexpr int kRounds = 10000;
constexpr int kRoundsPerProcess = 200;

// By stream, in order of arrival.
using Events = std::map<std::uint64_t, std::vector<std::string>>;

void Collect(RawPeer* from, Events* into) {
  from->Receive();
  for (const StreamMessage& frame : from->frames) {
    if (frame.kind() != StreamMessage::KIND_NEXT) continue;
    rpc::TooltipChanged event;
    EXPECT_TRUE(event.ParseFromString(frame.payload()));
    (*into)[frame.stream_id()].push_back(event.text());
  }
  from->frames.clear();
}

// What a client sends before it dies: frames that open up to three streams and
// make them subscribe, unsubscribe and complete, in a valid order.
class Speech {
 public:
  void Open() { Add(OpenFrame(++last_, kWhenTooltipChanged)); }
  void Subscribe(std::uint64_t id) {
    Add(NextFrame(id, orvane::testing::Subscribe(7)));
  }
  void Unsubscribe(std::uint64_t id) {
    Add(NextFrame(id, orvane::testing::Unsubscribe(7)));
  }
  void Complete(std::uint64_t id) { Add(CompleteFrame(id)); }

  std::uint64_t last_stream() const { return last_; }
  const std::string& bytes() const { return bytes_; }
  const std::vector<StreamMessage>& frames() const { return frames_; }
  // Where each frame ends.
  const std::vector<std::size_t>& ends() const { return ends_; }

 private:
  void Add(const StreamMessage& frame) {
    frames_.push_back(frame);
    bytes_ += RawPeer::Bytes(frame);
    ends_.push_back(bytes_.size());
  }

  std::uint64_t last_ = 0;
  std::string bytes_;
  std::vector<StreamMessage> frames_;
  std::vector<std::size_t> ends_;
};

// The client that stays is subscribed to browser 7 all the time.
class SharedKeyTest : public StreamFixture {
 protected:
  SharedKeyTest() {
    const auto given = GTEST_FLAG_GET(random_seed);
    const auto seed = given != 0 ? static_cast<std::uint32_t>(given)
                                 : std::random_device()() % 100000;
    std::cout << "To repeat: --gtest_random_seed=" << seed << std::endl;
    random_.seed(seed);
    stays_.Send(OpenFrame(1, kWhenTooltipChanged));
    stays_.Send(NextFrame(1, Subscribe(7)));
    loop.RunUntilIdle();
  }

  std::size_t Random(std::size_t below) {
    return std::uniform_int_distribution<std::size_t>(0, below - 1)(random_);
  }

  // The other client is a socket of this process. Its last frame may be cut
  // anywhere when it dies, and the test knows each time who must get an event.
  void DieAtAnyByte() {
    const Speech speech = MakeSpeech();
    std::optional<RawPeer> dies = ConnectRaw(*server);
    Events received;
    due_.clear();
    std::size_t said = 0;
    std::size_t heard = 0;
    const std::size_t last_byte = Random(speech.bytes().size() + 1);
    while (said < last_byte) {
      const std::size_t part = 1 + Random(last_byte - said);
      dies->SendBytes(speech.bytes().substr(said, part));
      said += part;
      if (Random(3) == 0) PublishToAll();
      if (Random(3) != 0) {
        loop.RunUntilIdle();
        for (; heard < speech.ends().size() && speech.ends()[heard] <= said;
             ++heard) {
          Hear(speech.frames()[heard]);
        }
        EXPECT_EQ(ListedForTooltips(7), 1 + listening_.size());
        Collect(&*dies, &received);
        EXPECT_EQ(received, due_);
      }
      if (Random(2) == 0) PublishToAll();
    }
    // Sometimes it has not read everything, and sometimes its last frames have
    // not been handled yet.
    dies.reset();
    if (Random(2) == 0) PublishToAll();
    listening_.clear();
    loop.RunUntilIdle();
  }

  // The other client is a process that subscribes and unsubscribes until it is
  // killed.
  void DieByKill() {
    auto pair = ConnectedPair();
    std::optional<RawPeer> its_end(std::move(pair->second));
    ForkedProcess dies([&its_end] {
      its_end->Send(OpenFrame(1, kWhenTooltipChanged));
      while (!::testing::Test::HasFailure()) {
        its_end->Send(NextFrame(1, Subscribe(7)));
        its_end->Receive();
        its_end->Send(NextFrame(1, Unsubscribe(7)));
      }
    });
    its_end.reset();
    EXPECT_TRUE(server->Adopt(pair->first.Release()).ok());
    loop.RunUntil([] { return ListedForTooltips(7) == 2; });
    for (std::size_t left = Random(50); left > 0; --left) {
      const std::size_t listed = ListedForTooltips(7);
      EXPECT_EQ(Publish(Browser(7), Tooltip(NextText())), listed);
      RunOneStep();
    }
    EXPECT_TRUE(dies.Kill());
    loop.RunUntilIdle();
  }

  // Only the client that stays is connected, and it has missed nothing.
  void CheckWhatIsLeft() {
    EXPECT_EQ(server->connections(), 1u);
    EXPECT_EQ(ListedForTooltips(7), 1u);
    EXPECT_EQ(RegisteredKeys(), 1u);
    EXPECT_EQ(Publish(Browser(7), Tooltip(NextText())), 1u);
    loop.RunUntilIdle();
    Events received;
    Collect(&stays_, &received);
    EXPECT_EQ(received, (Events{{1, std::exchange(published_, {})}}));
  }

 private:
  Speech MakeSpeech() {
    Speech speech;
    std::vector<std::uint64_t> open;
    speech.Open();
    open.push_back(speech.last_stream());
    speech.Subscribe(1);
    for (std::size_t left = Random(12); left > 0 && !open.empty(); --left) {
      const std::size_t i = Random(open.size());
      switch (Random(8)) {
        case 0:
          speech.Complete(open[i]);
          open.erase(open.begin() + static_cast<std::ptrdiff_t>(i));
          break;
        case 1:
          speech.Open();
          open.push_back(speech.last_stream());
          break;
        case 2:
        case 3:
        case 4:
          speech.Unsubscribe(open[i]);
          break;
        default:
          speech.Subscribe(open[i]);
      }
    }
    return speech;
  }

  void RunOneStep() {
    loop.RunUntil(
        [done = false]() mutable { return std::exchange(done, true); });
  }

  // The server has handled this frame.
  void Hear(const StreamMessage& frame) {
    rpc::EventSubscription request;
    EXPECT_TRUE(request.ParseFromString(frame.payload()));
    if (frame.kind() == StreamMessage::KIND_COMPLETE ||
        request.has_unsubscribe()) {
      std::erase(listening_, frame.stream_id());
    } else if (request.has_subscribe()) {
      std::erase(listening_, frame.stream_id());
      listening_.push_back(frame.stream_id());
    }
  }

  void PublishToAll() {
    const std::string text = NextText();
    EXPECT_EQ(Publish(Browser(7), Tooltip(text)), 1 + listening_.size());
    for (const std::uint64_t id : listening_) due_[id].push_back(text);
  }

  std::string NextText() {
    return published_.emplace_back(std::to_string(++last_text_));
  }

  std::mt19937 random_;
  RawPeer stays_ = ConnectRaw(*server);
  std::vector<std::string> published_;  // Since the staying client was checked.
  int last_text_ = 0;

  // Of the client that dies: its subscribed streams, and the events that they
  // must receive.
  std::vector<std::uint64_t> listening_;
  Events due_;
};

TEST_F(SharedKeyTest, EveryEventReachesThoseToWhomItIsDue) {
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    if (round % kRoundsPerProcess == 0) {
      DieByKill();
    } else {
      DieAtAnyByte();
    }
    CheckWhatIsLeft();
  }
}

}  // namespace
}  // namespace orvane::testing
