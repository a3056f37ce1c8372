#include "host/input_calls.h"

#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "host/recording_widget_fixture.h"

namespace orvane::host {
namespace {

using google::protobuf::Empty;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using Client = InputCalls::Client;

class InputCallsTest : public RecordingWidgetFixture {
 protected:
  template <typename Request>
  static Request At(double x, double y) {
    Request request;
    request.mutable_pointer()->mutable_position()->set_x(x);
    request.mutable_pointer()->mutable_position()->set_y(y);
    return request;
  }
  void Move(double x, double y) {
    calls->Move(At<rpc::MouseMoveRequest>(x, y));
  }
  void Press(double x, double y) {
    calls->Send(&Client::ForwardMousePress, At<rpc::MousePressRequest>(x, y));
  }
  static rpc::TouchMoveRequest Touch(int finger, double x) {
    rpc::TouchMoveRequest request;
    rpc::TouchPoint& point = *request.add_changed_points();
    point.set_id(finger);
    point.mutable_position()->set_x(x);
    return request;
  }
};

TEST_F(InputCallsTest, EveryCallNamesTheBrowser) {
  Press(1, 2);
  EXPECT_EQ(Latest<rpc::MousePressRequest>().browser_id().value(), 7u);
  Move(1, 2);
  EXPECT_EQ(Latest<rpc::MouseMoveRequest>().browser_id().value(), 7u);
  calls->Send(&Client::Hide);
  EXPECT_EQ(Latest<BrowserId>().value(), 7u);
}

TEST_F(InputCallsTest, MovementsAreSentAsTheyComeWhileTheyAreAnswered) {
  for (int x = 1; x <= 4; ++x) {
    Move(x, 0);
    EXPECT_THAT(Calls(), SizeIs(1));
  }
}

TEST_F(InputCallsTest, TheNewestMovementWaitsWhileTwoHaveNoAnswer) {
  widget.is_holding = true;
  for (int x = 1; x <= 100; ++x) Move(x, 0);
  EXPECT_THAT(Calls(), ElementsAre("MouseMove 1,0", "MouseMove 2,0"));
  widget.AnswerAll();
  EXPECT_THAT(Calls(), ElementsAre("MouseMove 100,0"));
  widget.AnswerAll();
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(InputCallsTest, AnythingElseSendsTheMovementThatWaitsFirst) {
  widget.is_holding = true;
  for (int x = 1; x <= 9; ++x) Move(x, 0);
  Press(9, 0);
  for (int x = 10; x <= 19; ++x) Move(x, 0);
  calls->Send(&Client::Hide);
  EXPECT_THAT(
      Calls(),
      ElementsAre("MouseMove 1,0", "MouseMove 2,0", "MouseMove 9,0",
                  "MousePress 9,0 UNSPECIFIED x0", "MouseMove 19,0", "Hide"));
  widget.AnswerAll();
}

TEST_F(InputCallsTest, MovementsOfDifferentKindsAreNotMerged) {
  widget.is_holding = true;
  for (int x = 1; x <= 3; ++x) Move(x, 0);
  calls->Move(At<rpc::MouseDragRequest>(4, 0));
  calls->Move(At<rpc::MouseDragRequest>(5, 0));
  EXPECT_THAT(Calls(),
              ElementsAre("MouseMove 1,0", "MouseMove 2,0", "MouseMove 3,0"));
  widget.AnswerAll();
  EXPECT_THAT(Calls(), ElementsAre("MouseDrag 5,0"));
  widget.AnswerAll();
}

TEST_F(InputCallsTest, TheMovementOfMergedMovesIsTheirSum) {
  widget.is_holding = true;
  for (int x = 1; x <= 5; ++x) {
    auto move = At<rpc::MouseMoveRequest>(0, 0);
    move.mutable_movement()->set_dx(x);
    move.mutable_movement()->set_dy(-1);
    calls->Move(move);
  }
  Calls();
  widget.AnswerAll();
  const auto merged = Latest<rpc::MouseMoveRequest>();
  EXPECT_EQ(merged.movement().dx(), 3 + 4 + 5);
  EXPECT_EQ(merged.movement().dy(), -3);
  widget.AnswerAll();
}

TEST_F(InputCallsTest, MovesOfAnotherDeviceAreNotMerged) {
  widget.is_holding = true;
  for (int x = 1; x <= 3; ++x) Move(x, 0);
  auto other = At<rpc::MouseMoveRequest>(4, 0);
  other.mutable_input()->set_device_id(1);
  calls->Move(other);
  EXPECT_THAT(Calls(), SizeIs(3));
  widget.AnswerAll();
  EXPECT_THAT(Calls(), ElementsAre("MouseMove 4,0"));
  widget.AnswerAll();
}

TEST_F(InputCallsTest, EveryFingerThatMovedMeanwhileIsInTheMergedMovement) {
  widget.is_holding = true;
  calls->Move(Touch(1, 1));
  calls->Move(Touch(2, 1));
  for (int x = 2; x <= 9; ++x) {
    calls->Move(Touch(1, x));
    calls->Move(Touch(2, 10 * x));
  }
  Calls();
  widget.AnswerAll();
  const auto merged = Latest<rpc::TouchMoveRequest>();
  ASSERT_EQ(merged.changed_points_size(), 2);
  EXPECT_EQ(merged.changed_points(0).id(), 2);
  EXPECT_EQ(merged.changed_points(0).position().x(), 90);
  EXPECT_EQ(merged.changed_points(1).id(), 1);
  EXPECT_EQ(merged.changed_points(1).position().x(), 9);
  widget.AnswerAll();
}

// A widget whose process is stopped reads nothing.
TEST_F(InputCallsTest, AStoppedWidgetIsSentAHandfulOfMovementsAndEveryPress) {
  EventLoop stopped_loop;
  RecordingWidget stopped;
  SocketServer stopped_server(&stopped_loop, &stopped);
  const auto client = testing::Connect(&loop, stopped_server);
  InputCalls input(client.get(), kBrowser);
  for (int x = 1; x <= 100000; ++x) {
    input.Move(At<rpc::MouseMoveRequest>(x, 0));
    if (x % 1000 == 0) loop.RunUntilIdle();
  }
  input.Send(&Client::ForwardMousePress, At<rpc::MousePressRequest>(0, 0));
  loop.RunUntilIdle();
  stopped_loop.RunUntilIdle();
  EXPECT_THAT(stopped.calls, ElementsAre("MouseMove 1,0", "MouseMove 2,0",
                                         "MouseMove 100000,0",
                                         "MousePress 0,0 UNSPECIFIED x0"));
}

TEST_F(InputCallsTest, AMovementThatFailsMakesRoomLikeAnAnsweredOne) {
  widget.failing = {"MouseMove"};
  std::vector<absl::Status> answers;
  for (int x = 1; x <= 3; ++x) {
    calls->Move(At<rpc::MouseMoveRequest>(x, 0),
                [&](const absl::StatusOr<Empty>& answer) {
                  answers.push_back(answer.status());
                });
  }
  EXPECT_THAT(Calls(), SizeIs(3));
  EXPECT_THAT(answers, SizeIs(3));
  EXPECT_EQ(answers[0].message(), "refused");
}

TEST_F(InputCallsTest, OnlyTheMovementThatIsSentTellsItsAnswer) {
  widget.is_holding = true;
  std::vector<int> answered;
  for (int x = 1; x <= 9; ++x) {
    calls->Move(At<rpc::MouseMoveRequest>(x, 0),
                [&answered, x](const absl::StatusOr<Empty>&) {
                  answered.push_back(x);
                });
  }
  Calls();
  widget.is_holding = false;
  widget.AnswerAll();
  Calls();
  EXPECT_THAT(answered, ElementsAre(1, 2, 9));
}

TEST_F(InputCallsTest, AnswersAfterItsEndAreDropped) {
  widget.is_holding = true;
  for (int x = 1; x <= 9; ++x) {
    calls->Move(At<rpc::MouseMoveRequest>(x, 0),
                [](const absl::StatusOr<Empty>&) { FAIL(); });
  }
  Calls();
  calls.reset();
  widget.AnswerAll();
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(InputCallsTest, ItMayBeDestroyedByAnAnswer) {
  widget.is_holding = true;
  for (int x = 1; x <= 9; ++x) {
    calls->Move(At<rpc::MouseMoveRequest>(x, 0),
                [this](const absl::StatusOr<Empty>&) { calls.reset(); });
  }
  Calls();
  widget.AnswerAll();
  EXPECT_THAT(Calls(), ElementsAre("MouseMove 9,0"));
  EXPECT_FALSE(calls.has_value());
  widget.AnswerAll();
}

TEST_F(InputCallsTest, AWidgetThatIsGoneCostsNothingMore) {
  server.reset();
  for (int x = 1; x <= 9; ++x) Move(x, 0);
  EXPECT_THAT(Calls(), IsEmpty());
  EXPECT_FALSE(connection->status().ok());
}

}  // namespace
}  // namespace orvane::host
