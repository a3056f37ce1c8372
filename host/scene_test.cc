#include "host/scene.h"

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "host/recording_widget_fixture.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"

namespace orvane::host {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class SceneTest : public RecordingWidgetFixture {
 protected:
  SceneTest() {
    scene.Serve(calls->client(), kBrowser);
    loop.RunUntilIdle();
  }

  // A frame of one colour, `shade`, by which tests know it.
  static rpc::PixelFrame Frame(std::uint8_t shade, int width = 2,
                               int height = 1, double scale_factor = 1) {
    rpc::PixelFrame frame;
    frame.set_frame_id(shade);
    frame.mutable_size()->set_width(width);
    frame.mutable_size()->set_height(height);
    frame.set_stride_bytes(static_cast<std::uint32_t>(4 * width));
    frame.set_format(rpc::PIXEL_FORMAT_BGRA_8888_PREMULTIPLIED);
    frame.set_scale_factor(scale_factor);
    frame.set_inline_pixels(
        std::string(static_cast<std::size_t>(4 * width * height),
                    static_cast<char>(shade)));
    return frame;
  }
  static rpc::RectDip Rect(double x, double y, double width, double height) {
    rpc::RectDip rect;
    rect.set_x(x);
    rect.set_y(y);
    rect.set_width(width);
    rect.set_height(height);
    return rect;
  }

  // The widget calls, and gets its answer.
  template <typename T>
  absl::StatusOr<ResponseOf<T>> Ask(CallOf<T> call) {
    absl::StatusOr<ResponseOf<T>> got = absl::UnknownError("no answer");
    Call<T>(kBrowser, std::move(call),
            [&got](absl::StatusOr<ResponseOf<T>> answer) {
              got = std::move(answer);
            });
    loop.RunUntilIdle();
    return got;
  }
  rpc::FrameOutcome ShowView(rpc::PixelFrame frame) {
    rpc::UpdateSurfaceCall call;
    *call.mutable_frame() = std::move(frame);
    return Ask<rpc::UpdateSurface>(call)->receipt().outcome();
  }
  rpc::FrameOutcome ShowPopup(std::uint64_t id, rpc::PixelFrame frame) {
    rpc::UpdateSurfaceCall call;
    call.mutable_popup()->set_popup_id(id);
    *call.mutable_popup()->mutable_bounds() = Rect(10, 20, 999, 999);
    *call.mutable_frame() = std::move(frame);
    return Ask<rpc::UpdateSurface>(call)->receipt().outcome();
  }
  static rpc::UpdateLayerCall Layer(std::uint64_t id, std::int32_t z_order,
                                    std::uint8_t shade) {
    rpc::UpdateLayerCall call;
    call.set_layer_id(id);
    call.set_z_order(z_order);
    *call.mutable_bounds() = Rect(1, 2, 3, 4);
    *call.mutable_frame() = Frame(shade);
    return call;
  }

  // The shades of what is drawn, from bottom to top.
  std::vector<int> Shades() {
    std::vector<int> shades;
    for (const Scene::Item* const item : scene.items())
      shades.push_back(item->picture.pixels()[0]);
    return shades;
  }

  int changes = 0;
  Scene scene{[this] { ++changes; }};
};

TEST_F(SceneTest, NothingIsDrawnBeforeThereIsAPicture) {
  EXPECT_THAT(scene.items(), IsEmpty());
}

TEST_F(SceneTest, TheViewsPictureIsCopiedAndGivenBack) {
  EXPECT_EQ(ShowView(Frame(5, 4, 2, 2.0)), rpc::FRAME_OUTCOME_PRESENTED);
  EXPECT_EQ(changes, 1);
  ASSERT_THAT(Shades(), ElementsAre(5));
  const Scene::Item& view = *scene.items()[0];
  EXPECT_EQ(view.bounds.width(), 2);
  EXPECT_EQ(view.bounds.height(), 1);
  EXPECT_EQ(view.opacity, 1);
}

TEST_F(SceneTest, LayersLieByTheirOrderThenByTheirAgeAndBelowPopups) {
  EXPECT_EQ(ShowPopup(9, Frame(9)), rpc::FRAME_OUTCOME_PRESENTED);
  for (const rpc::UpdateLayerCall& layer :
       {Layer(4, 0, 40), Layer(1, 0, 10), Layer(2, -1, 20), Layer(3, 7, 30)}) {
    EXPECT_TRUE(Ask<rpc::UpdateLayer>(layer).ok());
  }
  EXPECT_EQ(ShowView(Frame(5)), rpc::FRAME_OUTCOME_PRESENTED);
  EXPECT_THAT(Shades(), ElementsAre(5, 20, 40, 10, 30, 9));
}

TEST_F(SceneTest, ALayerIsMovedWithoutItsPicture) {
  const auto added = Ask<rpc::UpdateLayer>(Layer(1, 0, 10));
  ASSERT_TRUE(added.ok());
  EXPECT_EQ(added->receipt().frame_id(), 10u);
  auto call = Layer(1, 3, 0);
  call.clear_frame();
  *call.mutable_bounds() = Rect(7, 8, 3, 4);
  *call.mutable_clip() = Rect(0, 0, 8, 8);
  call.set_opacity(0.5);
  const auto moved = Ask<rpc::UpdateLayer>(call);
  ASSERT_TRUE(moved.ok());
  EXPECT_FALSE(moved->has_receipt());
  ASSERT_THAT(Shades(), ElementsAre(10));
  const Scene::Item& layer = *scene.items()[0];
  EXPECT_EQ(layer.bounds.x(), 7);
  EXPECT_EQ(layer.clip->width(), 8);
  EXPECT_EQ(layer.opacity, 0.5);
}

TEST_F(SceneTest, ALayerIsRemoved) {
  EXPECT_TRUE(Ask<rpc::UpdateLayer>(Layer(1, 0, 10)).ok());
  rpc::UpdateLayerCall call;
  call.set_layer_id(1);
  call.set_is_removed(true);
  EXPECT_TRUE(Ask<rpc::UpdateLayer>(call).ok());
  EXPECT_TRUE(Ask<rpc::UpdateLayer>(call).ok());
  EXPECT_THAT(scene.items(), IsEmpty());
}

TEST_F(SceneTest, WhatCannotBeSeenIsNotDrawn) {
  auto invisible = Layer(1, 0, 10);
  invisible.set_opacity(0);
  auto nowhere = Layer(2, 0, 20);
  nowhere.mutable_bounds()->set_x(std::numeric_limits<double>::quiet_NaN());
  auto flat = Layer(3, 0, 30);
  flat.mutable_bounds()->set_height(0);
  auto clipped = Layer(4, 0, 40);
  clipped.mutable_clip()->set_width(5);
  auto empty = Layer(5, 0, 50);
  empty.clear_frame();
  for (const auto& layer : {invisible, nowhere, flat, clipped, empty})
    EXPECT_TRUE(Ask<rpc::UpdateLayer>(layer).ok());
  EXPECT_THAT(scene.items(), IsEmpty());
}

TEST_F(SceneTest, AnOpacityOutOfItsRangeCountsAsOpaque) {
  auto layer = Layer(1, 0, 10);
  layer.set_opacity(std::numeric_limits<float>::quiet_NaN());
  EXPECT_TRUE(Ask<rpc::UpdateLayer>(layer).ok());
  EXPECT_EQ(scene.items()[0]->opacity, 1);
}

TEST_F(SceneTest, APopupIsAsLargeAsItsPictureAndGoesWithItsList) {
  EXPECT_EQ(ShowPopup(9, Frame(9, 4, 2, 2.0)), rpc::FRAME_OUTCOME_PRESENTED);
  const Scene::Item& popup = *scene.items()[0];
  EXPECT_EQ(popup.bounds.x(), 10);
  EXPECT_EQ(popup.bounds.width(), 2);
  rpc::DropDownDeleted deleted;
  deleted.set_popup_id(9);
  Publish<rpc::DropDownDeleted>(kBrowser, deleted);
  loop.RunUntilIdle();
  EXPECT_THAT(scene.items(), IsEmpty());
  EXPECT_EQ(changes, 2);
}

TEST_F(SceneTest, AFrameThatCannotBeCopiedIsDiscarded) {
  EXPECT_EQ(ShowView(Frame(5)), rpc::FRAME_OUTCOME_PRESENTED);
  auto broken = Frame(6);
  broken.set_stride_bytes(1);
  EXPECT_EQ(ShowView(broken), rpc::FRAME_OUTCOME_DISCARDED);
  EXPECT_THAT(Shades(), ElementsAre(5));
}

TEST_F(SceneTest, WhatTheHostDrawsFromGoesWithThePicture) {
  ShowView(Frame(5));
  const auto texture = std::make_shared<int>(0);
  scene.items()[0]->drawable = texture;
  EXPECT_TRUE(Ask<rpc::UpdateLayer>(Layer(1, 0, 10)).ok());
  EXPECT_EQ(scene.items()[0]->drawable, texture);
  ShowView(Frame(6));
  EXPECT_EQ(scene.items()[0]->drawable, nullptr);
}

TEST_F(SceneTest, TheLastPictureStaysWhenTheWidgetGoes) {
  ShowView(Frame(5));
  ShowPopup(9, Frame(9));
  EXPECT_TRUE(Ask<rpc::UpdateLayer>(Layer(1, 0, 10)).ok());
  scene.Stop();
  EXPECT_THAT(Shades(), ElementsAre(5));
}

TEST_F(SceneTest, AWidgetCannotAddLayersWithoutEnd) {
  absl::Status added;
  std::uint64_t id = 0;
  while (added.ok() && id < 5000)
    added = Ask<rpc::UpdateLayer>(Layer(++id, 0, 1)).status();
  EXPECT_EQ(id, 1025u);
  EXPECT_TRUE(Ask<rpc::UpdateLayer>(Layer(1, 0, 2)).ok());
  EXPECT_EQ(scene.items().size(), 1024u);
}

}  // namespace
}  // namespace orvane::host
