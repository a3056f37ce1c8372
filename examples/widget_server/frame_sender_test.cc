#include "examples/widget_server/frame_sender.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"

#include "examples/widget_server/widget_service.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/scripted_host.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace widget_server {
namespace {

using orvane::testing::Browser;
using orvane::testing::ScriptedHost;

Picture Plain(Color color, double width = 4, double height = 2,
              double scale_factor = 1) {
  return {width, height, scale_factor, {{{0, 0, width, height}, color}}};
}

Scene View(Color color) { return {Plain(color), {}, {}}; }

Scene CaretAt(double x, double scale_factor = 1) {
  return {{}, {}, Layer{{x, 0, 4, 2}, Plain(kInk, 4, 2, scale_factor)}};
}

// The object with that name, or nullopt if it does not exist.
std::vector<std::uint8_t> ReadSharedMemory(const std::string& name) {
  const orvane::OwnedDescriptor object(::shm_open(name.c_str(), O_RDONLY, 0));
  if (object.get() < 0) return {};
  struct stat found = {};
  EXPECT_EQ(::fstat(object.get(), &found), 0);
  const auto length = static_cast<std::size_t>(found.st_size);
  void* const seen =
      ::mmap(nullptr, length, PROT_READ, MAP_SHARED, object.get(), 0);
  EXPECT_NE(seen, MAP_FAILED);
  const auto* const bytes = static_cast<const std::uint8_t*>(seen);
  std::vector<std::uint8_t> copy(bytes, bytes + length);
  ::munmap(seen, length);
  return copy;
}

// A sender between a service and scripted hosts.
class FrameSenderTest : public ::testing::Test {
 protected:
  using Surfaces = ScriptedHost<rpc::UpdateSurface>;
  using Layers = ScriptedHost<rpc::UpdateLayer>;

  FrameSenderTest() {
    surfaces_.Subscribe(kBrowser);
    layers_.Subscribe(kBrowser);
  }

  template <typename T>
  auto Calls(const ScriptedHost<T>& host) {
    std::vector<orvane::CallOf<T>> calls;
    for (const auto& sent : host.received())
      calls.push_back(sent.message.call());
    return calls;
  }
  rpc::PixelFrame LastFrame() {
    return surfaces_.received().back().message.call().frame();
  }

  template <typename T>
  void Answer(ScriptedHost<T>& host,
              rpc::FrameOutcome outcome = rpc::FRAME_OUTCOME_PRESENTED) {
    orvane::ResponseOf<T> response;
    response.mutable_receipt()->set_outcome(outcome);
    host.Answer(kBrowser, host.last_id(), response);
    loop_.RunUntilIdle();
  }

  const BrowserId kBrowser = Browser(1);
  orvane::EventLoop loop_;
  WidgetService service_{1};
  Surfaces surfaces_{&loop_, &service_};
  Layers layers_{&loop_, &service_};
  std::shared_ptr<FrameSender> sender_ =
      std::make_shared<FrameSender>(kBrowser, &service_);
};

// The view's frames

TEST_F(FrameSenderTest, AFrameTellsItsLayout) {
  sender_->Show({Plain(kInk, 4, 3, 1.5), {}, {}});
  const rpc::PixelFrame frame = LastFrame();
  EXPECT_EQ(frame.frame_id(), 1u);
  EXPECT_EQ(frame.size().width(), 6);
  EXPECT_EQ(frame.size().height(), 5);  // 4.5, rounded.
  EXPECT_EQ(frame.stride_bytes(), 24u);
  EXPECT_EQ(frame.format(), rpc::PIXEL_FORMAT_BGRA_8888_PREMULTIPLIED);
  EXPECT_EQ(frame.color_space(), rpc::COLOR_SPACE_SRGB);
  EXPECT_EQ(frame.scale_factor(), 1.5);
  EXPECT_GT(frame.produced_time_ns(), 0);
  EXPECT_EQ(frame.shared_memory().offset_bytes(), 0u);
  EXPECT_EQ(frame.shared_memory().length_bytes(), 24u * 5);
}

TEST_F(FrameSenderTest, ThePixelsLieInTheSharedMemory) {
  sender_->Show({Plain({1, 2, 3}, 2, 1), {}, {}});
  EXPECT_EQ(ReadSharedMemory(LastFrame().shared_memory().name()),
            (std::vector<std::uint8_t>{3, 2, 1, 255, 3, 2, 1, 255}));
}

TEST_F(FrameSenderTest, TheMemoryIsGoneOnceTheCallIsAnswered) {
  sender_->Show(View(kInk));
  Answer(surfaces_);
  EXPECT_TRUE(ReadSharedMemory(LastFrame().shared_memory().name()).empty());
}

TEST_F(FrameSenderTest, TheMemoryIsGoneOnceTheCallHasFailed) {
  sender_->Show(View(kInk));
  surfaces_.Fail(kBrowser, surfaces_.last_id());
  loop_.RunUntilIdle();
  EXPECT_TRUE(ReadSharedMemory(LastFrame().shared_memory().name()).empty());
}

TEST_F(FrameSenderTest, TheMemoryOfACallOutlivesTheSender) {
  sender_->Show(View(kInk));
  sender_.reset();
  EXPECT_FALSE(ReadSharedMemory(LastFrame().shared_memory().name()).empty());
  Answer(surfaces_);
  EXPECT_TRUE(ReadSharedMemory(LastFrame().shared_memory().name()).empty());
}

TEST_F(FrameSenderTest, ASceneThatIsAsBeforeSendsNothing) {
  sender_->Show(View(kInk));
  Answer(surfaces_);
  sender_->Show(View(kInk));
  EXPECT_EQ(surfaces_.received().size(), 1u);
}

TEST_F(FrameSenderTest, OneFrameIsOnItsWayAtATimeThenTheNewest) {
  sender_->Show(View({1, 1, 1}));
  sender_->Show(View({2, 2, 2}));
  sender_->Show(View({3, 3, 3}));
  EXPECT_EQ(surfaces_.received().size(), 1u);
  Answer(surfaces_);
  ASSERT_EQ(surfaces_.received().size(), 2u);
  EXPECT_EQ(LastFrame().frame_id(), 2u);
  EXPECT_EQ(ReadSharedMemory(LastFrame().shared_memory().name())[0], 3);
  Answer(surfaces_);
  EXPECT_EQ(surfaces_.received().size(), 2u);
}

TEST_F(FrameSenderTest, AFrameThatFailedIsNotSentAgainButTheNextOneIs) {
  sender_->Show(View(kInk));
  surfaces_.Fail(kBrowser, surfaces_.last_id());
  loop_.RunUntilIdle();
  EXPECT_EQ(surfaces_.received().size(), 1u);
  sender_->Show(View(kPaper));
  EXPECT_EQ(surfaces_.received().size(), 2u);
}

TEST_F(FrameSenderTest, AViewThatShowsAgainIsSentAgain) {
  sender_->Show(View(kInk));
  Answer(surfaces_);
  sender_->Show({});
  EXPECT_EQ(surfaces_.received().size(), 1u);
  sender_->Show(View(kInk));
  EXPECT_EQ(surfaces_.received().size(), 2u);
}

TEST_F(FrameSenderTest, AHostThatServesLateGetsThePictureAtTheNextShow) {
  surfaces_.Unsubscribe(kBrowser);
  sender_->Show(View(kInk));
  surfaces_.Subscribe(kBrowser);
  EXPECT_TRUE(surfaces_.received().empty());
  sender_->Show(View(kInk));
  EXPECT_EQ(surfaces_.received().size(), 1u);
}

TEST_F(FrameSenderTest, APictureBeyondTheLimitsOfAFrameIsLeftOut) {
  sender_->Show({Plain(kInk, 16385, 1), {}, {}});
  sender_->Show({Plain(kInk, 0, 1), {}, {}});
  EXPECT_TRUE(surfaces_.received().empty());
  sender_->Show(View(kInk));
  EXPECT_EQ(LastFrame().frame_id(), 1u);
}

// Popups

TEST_F(FrameSenderTest, APopupFollowsTheViewWithItsPlace) {
  Scene scene = View(kPaper);
  scene.popup = Popup{7, {10, 20, 4, 2}, Plain(kInk)};
  sender_->Show(scene);
  EXPECT_FALSE(Calls(surfaces_).back().has_popup());
  Answer(surfaces_);
  const rpc::UpdateSurfaceCall call = Calls(surfaces_).back();
  EXPECT_EQ(call.popup().popup_id(), 7u);
  EXPECT_EQ(call.popup().bounds().x(), 10);
  EXPECT_EQ(call.popup().bounds().y(), 20);
  EXPECT_EQ(call.frame().frame_id(), 2u);
}

TEST_F(FrameSenderTest, APopupThatClosesIsNotMentioned) {
  Scene scene = View(kPaper);
  scene.popup = Popup{7, {10, 20, 4, 2}, Plain(kInk)};
  sender_->Show(scene);
  Answer(surfaces_);
  Answer(surfaces_);
  sender_->Show(View(kPaper));
  EXPECT_EQ(surfaces_.received().size(), 2u);
}

// The caret's layer

TEST_F(FrameSenderTest, ALayerIsAddedWithAPicture) {
  sender_->Show(CaretAt(5));
  const rpc::UpdateLayerCall call = Calls(layers_).back();
  EXPECT_EQ(call.layer_id(), FrameSender::kCaretLayer);
  EXPECT_FALSE(call.is_removed());
  EXPECT_EQ(call.bounds().x(), 5);
  EXPECT_EQ(call.frame().size().width(), 4);
  EXPECT_EQ(ReadSharedMemory(call.frame().shared_memory().name()).size(),
            4u * 4 * 2);
}

TEST_F(FrameSenderTest, ALayerThatMovesNeedsNoNewPicture) {
  sender_->Show(CaretAt(5));
  Answer(layers_);
  sender_->Show(CaretAt(6));
  ASSERT_EQ(layers_.received().size(), 2u);
  EXPECT_EQ(Calls(layers_).back().bounds().x(), 6);
  EXPECT_FALSE(Calls(layers_).back().has_frame());
}

TEST_F(FrameSenderTest, ALayerWhosePictureWasLostGetsItWithItsNextMove) {
  sender_->Show(CaretAt(5));
  Answer(layers_, rpc::FRAME_OUTCOME_DISCARDED);
  sender_->Show(CaretAt(6));
  EXPECT_TRUE(Calls(layers_).back().has_frame());
  layers_.Fail(kBrowser, layers_.last_id());
  loop_.RunUntilIdle();
  EXPECT_EQ(layers_.received().size(), 2u);
  sender_->Show(CaretAt(7));
  EXPECT_TRUE(Calls(layers_).back().has_frame());
  Answer(layers_);
  sender_->Show(CaretAt(8));
  EXPECT_FALSE(Calls(layers_).back().has_frame());
}

TEST_F(FrameSenderTest, ALayerAtAnotherScaleGetsANewPicture) {
  sender_->Show(CaretAt(5));
  Answer(layers_);
  sender_->Show(CaretAt(5, 2));
  EXPECT_EQ(Calls(layers_).back().frame().size().width(), 8);
}

TEST_F(FrameSenderTest, ALayerIsRemovedOnceAndAddedAnew) {
  sender_->Show(CaretAt(5));
  Answer(layers_);
  sender_->Show({});
  Answer(layers_);
  EXPECT_TRUE(Calls(layers_).back().is_removed());
  EXPECT_FALSE(Calls(layers_).back().has_frame());
  sender_->Show({});
  EXPECT_EQ(layers_.received().size(), 2u);
  sender_->Show(CaretAt(5));
  EXPECT_TRUE(Calls(layers_).back().has_frame());
}

TEST_F(FrameSenderTest, SurfacesAndLayersShareOneCallAtATime) {
  Scene scene = CaretAt(5);
  scene.view = Plain(kPaper);
  sender_->Show(scene);
  EXPECT_EQ(surfaces_.received().size(), 1u);
  EXPECT_TRUE(layers_.received().empty());
  Answer(surfaces_);
  ASSERT_EQ(layers_.received().size(), 1u);
  EXPECT_EQ(Calls(layers_).back().frame().frame_id(), 2u);
}

}  // namespace
}  // namespace widget_server
