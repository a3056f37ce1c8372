#include "zimbrel/src/core/common/rpc/stream_channel.h"

#include <memory>
#include <type_traits>
#include <utility>

#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/abstract_stream.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace orvane {
namespace {

using rpc::transport::StreamMessage;

static_assert(!std::is_copy_constructible_v<StreamChannel>);
static_assert(!std::is_copy_assignable_v<StreamChannel>);
static_assert(std::is_nothrow_move_constructible_v<StreamChannel>);
static_assert(!std::is_copy_constructible_v<AbstractStream>);

// What reached the far end, kept beyond the endpoint's life.
struct Seen {
  int sent = 0;
  std::string last_payload;
  int completed = 0;
  int released = 0;
};

class RecordingEndpoint final : public StreamEndpoint {
 public:
  RecordingEndpoint(EventLoop* loop, Seen* seen) : loop_(loop), seen_(seen) {}
  ~RecordingEndpoint() override { ++seen_->released; }

  absl::Status Send(const StreamMessage& frame) override {
    ++seen_->sent;
    seen_->last_payload = frame.payload();
    return absl::OkStatus();
  }
  void Complete() override { ++seen_->completed; }
  EventLoop& loop() override { return *loop_; }

 private:
  EventLoop* const loop_;
  Seen* const seen_;
};

class CompletingStream final : public AbstractStream {
 public:
  using AbstractStream::AbstractStream;
  void OnNext(StreamMessage*) override {}
  void OnError(StreamMessage*) override {}
  void OnCompleted() override { Complete(); }
};

class StreamChannelTest : public ::testing::Test {
 protected:
  StreamChannel MakeChannel() {
    return StreamChannel(std::make_unique<RecordingEndpoint>(&loop_, &seen));
  }

  Seen seen;

 private:
  EventLoop loop_;
};

TEST_F(StreamChannelTest, ReleasesItsEndpointOnceWhenDestroyed) {
  { const StreamChannel channel = MakeChannel(); }
  EXPECT_EQ(seen.released, 1);
}

TEST_F(StreamChannelTest, DestroyingAMovedFromChannelIsHarmless) {
  {
    StreamChannel first = MakeChannel();
    { const StreamChannel second = std::move(first); }
    EXPECT_EQ(seen.released, 1);
  }
  EXPECT_EQ(seen.released, 1);
}

TEST_F(StreamChannelTest, LivesInsideItsStreamAndEndsWithIt) {
  auto stream = std::make_unique<CompletingStream>(MakeChannel());
  EXPECT_EQ(seen.released, 0);
  stream.reset();
  EXPECT_EQ(seen.released, 1);
}

TEST_F(StreamChannelTest, CarriesWhatItsStreamSends) {
  CompletingStream stream(MakeChannel());
  StreamMessage frame;
  frame.set_payload("bytes");
  EXPECT_TRUE(stream.Send(frame).ok());
  EXPECT_EQ(seen.sent, 1);
  EXPECT_EQ(seen.last_payload, "bytes");
}

TEST_F(StreamChannelTest, HearsOfItsStreamsCompletion) {
  CompletingStream stream(MakeChannel());
  EXPECT_EQ(seen.completed, 0);
  stream.OnCompleted();
  EXPECT_EQ(seen.completed, 1);
}

}  // namespace
}  // namespace orvane
