#include "host/touch.h"

#include <limits>
#include <string>
#include <vector>

#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "host/recording_widget_fixture.h"

namespace orvane::host {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TouchTest : public RecordingWidgetFixture {
 protected:
  static rpc::InputInfo At(std::int64_t time_ns) {
    rpc::InputInfo input;
    input.set_time_ns(time_ns);
    return input;
  }
  static rpc::TouchPoint Point(double x) {
    rpc::TouchPoint point;
    point.set_id(4711);  // To be replaced.
    point.mutable_position()->set_x(x);
    return point;
  }

  // What the latest request says: "changed / active", each finger as "id@x",
  // with a star if it is primary.
  template <typename Request>
  std::string Fingers() {
    const auto request = Latest<Request>();
    std::string words;
    const auto tell = [&words](const auto& points) {
      for (const rpc::TouchPoint& point : points) {
        absl::StrAppend(&words, point.id(), "@", point.position().x(),
                        point.is_primary() ? "* " : " ");
      }
    };
    tell(request.changed_points());
    words += "/ ";
    tell(request.active_points());
    return words;
  }

  Touch touch{&*calls};
};

TEST_F(TouchTest, AFingerWhosePlaceIsNoNumberStaysWhereItWas) {
  constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
  touch.Start(At(1), 1111, Point(kNan));
  touch.Start(At(2), 2222, Point(10));
  touch.Move(At(3), 2222, Point(kNan));
  EXPECT_EQ(Fingers<rpc::TouchMoveRequest>(), "0@10* / 0@10* ");
  rpc::TouchPoint end = Point(kNan);
  end.set_force(static_cast<float>(kNan));
  end.set_radius_x_dip(kNan);
  end.mutable_screen_position()->set_x(kNan);
  touch.End(At(4), 2222, end);
  EXPECT_EQ(Fingers<rpc::TouchEndRequest>(), "0@10* / ");
  const rpc::TouchPoint last = Latest<rpc::TouchEndRequest>().changed_points(0);
  EXPECT_FALSE(last.has_force());
  EXPECT_EQ(last.radius_x_dip(), 0);
  EXPECT_FALSE(last.has_screen_position());
  EXPECT_THAT(Calls(), ElementsAre("TouchStart", "TouchMove", "TouchEnd"));
}

TEST_F(TouchTest, EveryCallTellsWhatChangedAndAllThatAreDown) {
  touch.Start(At(1), 1111, Point(10));
  EXPECT_EQ(Fingers<rpc::TouchStartRequest>(), "0@10* / 0@10* ");
  touch.Start(At(2), 2222, Point(20));
  EXPECT_EQ(Fingers<rpc::TouchStartRequest>(), "1@20 / 0@10* 1@20 ");
  touch.Move(At(3), 1111, Point(11));
  EXPECT_EQ(Fingers<rpc::TouchMoveRequest>(), "0@11* / 0@11* 1@20 ");
  touch.End(At(4), 1111, Point(12));
  EXPECT_EQ(Fingers<rpc::TouchEndRequest>(), "0@12* / 1@20 ");
  touch.Cancel(At(5), 2222);
  EXPECT_EQ(Fingers<rpc::TouchCancelRequest>(), "1@20 / ");
  EXPECT_EQ(Latest<rpc::TouchCancelRequest>().input().time_ns(), 5);
}

TEST_F(TouchTest, AnIdIsUsedAgainAndTheNextFirstFingerIsPrimary) {
  touch.Start(At(1), 1111, Point(10));
  touch.Start(At(2), 2222, Point(20));
  touch.End(At(3), 1111, Point(10));
  touch.Start(At(4), 3333, Point(30));
  EXPECT_EQ(Fingers<rpc::TouchStartRequest>(), "0@30 / 1@20 0@30 ");
  touch.End(At(5), 2222, Point(20));
  touch.End(At(6), 3333, Point(30));
  touch.Start(At(7), 4444, Point(40));
  EXPECT_EQ(Fingers<rpc::TouchStartRequest>(), "0@40* / 0@40* ");
}

TEST_F(TouchTest, FingersThatDidNotComeDownOnTheViewAreIgnored) {
  touch.Move(At(1), 1111, Point(10));
  touch.End(At(2), 1111, Point(10));
  touch.Cancel(At(3), 1111);
  touch.CancelAll();
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(TouchTest, AContactWhoseEndWasLostIsCancelledBeforeItBeginsAgain) {
  touch.Start(At(1), 1111, Point(10));
  touch.Start(At(2), 1111, Point(20));
  EXPECT_THAT(Calls(), ElementsAre("TouchStart", "TouchCancel", "TouchStart"));
  EXPECT_EQ(Fingers<rpc::TouchStartRequest>(), "0@20* / 0@20* ");
}

TEST_F(TouchTest, AllContactsAreCancelledAtOnce) {
  touch.Start(At(1), 1111, Point(10));
  touch.Start(At(2), 2222, Point(20));
  touch.CancelAll();
  EXPECT_EQ(Fingers<rpc::TouchCancelRequest>(), "0@10* 1@20 / ");
  EXPECT_EQ(Latest<rpc::TouchCancelRequest>().input().time_ns(), 2);
  touch.End(At(3), 1111, Point(10));
  EXPECT_THAT(Calls(), ElementsAre("TouchStart", "TouchStart", "TouchCancel"));
}

}  // namespace
}  // namespace orvane::host
