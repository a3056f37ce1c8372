#include "examples/widget_server/widget_service.h"

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/strip.h"
#include "gmock/gmock.h"
#include "google/protobuf/descriptor.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/method_kind.h"
#include "zimbrel/src/core/common/rpc/testing/call_by_name.h"
#include "zimbrel/src/core/common/rpc/transport/in_process.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace widget_server {
namespace {

using ::google::protobuf::MethodDescriptor;
using ::testing::UnorderedElementsAre;

constexpr char kAttach[] =
    "browser_id { value: 2 }"
    "parent_window { platform: PLATFORM_X11 handle: 5 }"
    "bounds { width: 100 height: 50 }";

std::vector<const MethodDescriptor*> UnaryMethods() {
  const auto* const service = rpc::BrowserWidgetRpc::descriptor();
  std::vector<const MethodDescriptor*> unary;
  for (int i = 0; i < service->method_count(); ++i) {
    if (orvane::KindOf(*service->method(i)) == orvane::MethodKind::kUnary)
      unary.push_back(service->method(i));
  }
  return unary;
}

// A request that says which browser it is about, and nothing else.
std::string About(int browser, const MethodDescriptor& method) {
  const std::string value = absl::StrCat("value: ", browser);
  return method.input_type() == BrowserId::descriptor()
             ? value
             : absl::StrCat("browser_id { ", value, " }");
}

// Keeps the name of the latest input. Everything on it can be dragged.
class RecordingPage final : public AbstractPage {
 public:
  explicit RecordingPage(std::string* latest) : latest_(latest) {}

  bool IsDraggableAt(const rpc::PointDip&) const override { return true; }
  void SetViewport(const Viewport&) override {}
  void KeyPress(const rpc::KeyPressRequest&) override { *latest_ = "KeyPress"; }
  void KeyRelease(const rpc::KeyReleaseRequest&) override {
    *latest_ = "KeyRelease";
  }
  void KeyType(const rpc::KeyTypeRequest&) override { *latest_ = "KeyType"; }
  void MousePress(const rpc::MousePressRequest&) override {
    *latest_ = "MousePress";
  }
  void MouseRelease(const rpc::MouseReleaseRequest&) override {
    *latest_ = "MouseRelease";
  }
  void MouseEnter(const rpc::MouseEnterRequest&) override {
    *latest_ = "MouseEnter";
  }
  void MouseExit(const rpc::MouseExitRequest&) override {
    *latest_ = "MouseExit";
  }
  void MouseDrag(const rpc::MouseDragRequest&) override {
    *latest_ = "MouseDrag";
  }
  void MouseMove(const rpc::MouseMoveRequest&) override {
    *latest_ = "MouseMove";
  }
  void MouseWheel(const rpc::MouseWheelRequest&) override {
    *latest_ = "MouseWheel";
  }
  void NativeKeyEvent(const rpc::NativeKeyEventRequest&) override {
    *latest_ = "NativeKeyEvent";
  }
  void NativeMouseEvent(const rpc::NativeMouseEventRequest&) override {
    *latest_ = "NativeMouseEvent";
  }
  void NativeTouchEvent(const rpc::NativeTouchEventRequest&) override {
    *latest_ = "NativeTouchEvent";
  }
  void TouchStart(const rpc::TouchStartRequest&) override {
    *latest_ = "TouchStart";
  }
  void TouchMove(const rpc::TouchMoveRequest&) override {
    *latest_ = "TouchMove";
  }
  void TouchEnd(const rpc::TouchEndRequest&) override { *latest_ = "TouchEnd"; }
  void TouchCancel(const rpc::TouchCancelRequest&) override {
    *latest_ = "TouchCancel";
  }
  void DragEnter(const rpc::DragEnterRequest&) override {
    *latest_ = "DragEnter";
  }
  void DragOver(const rpc::DragOverRequest&) override { *latest_ = "DragOver"; }
  void DragLeave(const rpc::DragLeaveRequest&) override {
    *latest_ = "DragLeave";
  }
  void DragDrop(const rpc::DragDropRequest&) override { *latest_ = "DragDrop"; }
  void DragEnd(const rpc::DragEndRequest&) override { *latest_ = "DragEnd"; }

 private:
  std::string* const latest_;
};

// A host and the service, joined by a connected pair of sockets.
class WidgetServiceTest : public ::testing::Test {
 protected:
  WidgetServiceTest() {
    auto pair = orvane::ConnectedPair();
    EXPECT_TRUE(pair.ok());
    EXPECT_EQ(server_.Adopt(pair->first.Release()), absl::OkStatus());
    auto client = orvane::SocketClient::Adopt(&loop_, pair->second.Release());
    EXPECT_TRUE(client.ok());
    client_ = *std::move(client);
  }

  absl::Status Call(const std::string& method, const std::string& request,
                    google::protobuf::Message* response = nullptr) {
    return orvane::testing::CallByName(client_.get(), method, request,
                                       response);
  }
  std::string Failure(const MethodDescriptor& method,
                      const std::string& request) {
    return std::string(Call(std::string(method.name()), request).message());
  }

  const View& view() {
    BrowserId id;
    id.set_value(2);
    return **(*service_.FindWidget(id))->view();
  }

  orvane::EventLoop loop_;
  WidgetService service_{3};
  orvane::SocketServer server_{&loop_, &service_};
  std::unique_ptr<orvane::SocketClient> client_;
};

TEST_F(WidgetServiceTest, ServesEveryUnaryMethod) {
  ASSERT_EQ(UnaryMethods().size(), 40U);
  for (const MethodDescriptor* const method : UnaryMethods()) {
    EXPECT_NE(Failure(*method, About(1, *method)),
              absl::StrCat("Method ", method->name(), "() not implemented."));
  }
}

TEST_F(WidgetServiceTest, EveryMethodNamesTheBrowserThatDoesNotExist) {
  for (const MethodDescriptor* const method : UnaryMethods()) {
    EXPECT_EQ(Failure(*method, About(7, *method)),
              "browser 7 does not exist; there are 1, 2 and 3")
        << method->name();
  }
}

TEST_F(WidgetServiceTest, ARequestThatNamesNoBrowserMeansBrowser0) {
  for (const MethodDescriptor* const method : UnaryMethods()) {
    EXPECT_EQ(Failure(*method, ""),
              "browser 0 does not exist; there are 1, 2 and 3")
        << method->name();
  }
}

TEST(WidgetService, NamesTheOnlyBrowserThatThereIs) {
  BrowserId none;
  EXPECT_EQ(WidgetService(1).FindWidget(none).status().message(),
            "browser 0 does not exist; there is only 1");
}

TEST_F(WidgetServiceTest, AllButTheseNeedAnAttachedBrowser) {
  std::vector<std::string> free;
  for (const MethodDescriptor* const method : UnaryMethods()) {
    if (Failure(*method, About(2, *method)) !=
        "browser 2 is not attached; Attach comes first") {
      free.emplace_back(method->name());
    }
    ASSERT_EQ(Call("Detach", "value: 2"), absl::OkStatus());
  }
  EXPECT_THAT(
      free, UnorderedElementsAre(
                "Unfocus", "Attach", "Detach", "AssignHostWindow", "SetDisplay",
                "SetParentAccessibilityNodes", "AttachAccessibleWindow",
                "SetDpiAware", "SetForcedScaleFactor"));
}

TEST(WidgetService, EachInputMethodReachesThePage) {
  std::string latest;
  orvane::EventLoop loop;
  WidgetService service({2}, [&](std::uint64_t, rpc::BrowserWidgetRpc*) {
    return std::make_shared<RecordingPage>(&latest);
  });
  orvane::SocketServer server(&loop, &service);
  const auto client = orvane::ConnectInProcess(&loop, &server);
  ASSERT_TRUE(client.ok()) << client.status();
  const auto call = [&](const std::string& method, const std::string& request) {
    return orvane::testing::CallByName(client->get(), method, request, nullptr);
  };

  const std::string native_event =
      absl::StrCat("event { platform: PLATFORM_X11 payload: '",
                   std::string(184, 'x'), "' }");
  const std::vector<std::pair<std::string, std::string>> events = {
      {"ForwardKeyPress", "key { key: 'a' }"},
      {"ForwardKeyRelease", "key { key: 'a' }"},
      {"ForwardKeyType", "text: 'a'"},
      {"ForwardMousePress",
       "button: MOUSE_BUTTON_PRIMARY"
       " pointer { position { x: 20 y: 20 } buttons: 1 }"},
      {"ForwardMouseRelease", "button: MOUSE_BUTTON_SECONDARY"},
      {"ForwardMouseEnter", ""},
      {"ForwardMouseExit", ""},
      {"ForwardMouseMove", ""},
      {"ForwardMouseWheel", ""},
      {"ForwardNativeKeyEvent", native_event},
      {"ForwardNativeMouseEvent", native_event},
      {"ForwardNativeTouchEvent", native_event},
      {"ForwardTouchStart",
       "changed_points { id: 1 } changed_points { id: 2 }"},
      {"ForwardTouchMove", "changed_points { id: 1 }"},
      {"ForwardTouchEnd", "changed_points { id: 1 }"},
      {"ForwardTouchCancel", "changed_points { id: 2 }"},
      {"ForwardDragEnter", ""},
      {"ForwardDragOver", ""},
      {"ForwardDragLeave", ""},
      {"ForwardMouseDrag", "pointer { buttons: 1 }"},
      {"ForwardDragDrop", ""},
      {"ForwardDragEnd", ""},
  };
  std::set<std::string> tried;
  ASSERT_EQ(call("Attach", kAttach), absl::OkStatus());
  for (const auto& [method, event] : events) {
    EXPECT_EQ(call(method, absl::StrCat("browser_id { value: 2 } ", event)),
              absl::OkStatus())
        << method;
    EXPECT_EQ(latest, absl::StripPrefix(method, "Forward"));
    tried.insert(method);
  }
  for (const MethodDescriptor* const method : UnaryMethods()) {
    const std::string name(method->name());
    EXPECT_EQ(tried.contains(name), absl::StartsWith(name, "Forward")) << name;
  }
}

TEST_F(WidgetServiceTest, AttachAnswersWithTheResult) {
  rpc::AttachResult result;
  EXPECT_EQ(Call("Attach", kAttach, &result), absl::OkStatus());
  EXPECT_TRUE(result.attached());
  EXPECT_EQ(result.size().width(), 100);
}

TEST_F(WidgetServiceTest, ABrowserIsNotAttachedTwice) {
  ASSERT_EQ(Call("Attach", kAttach), absl::OkStatus());
  EXPECT_EQ(Call("Attach", kAttach).message(),
            "browser 2 is attached already; Detach comes first");
}

TEST_F(WidgetServiceTest, EachBrowserIsAttachedByItself) {
  ASSERT_EQ(Call("Attach", kAttach), absl::OkStatus());
  EXPECT_EQ(Call("Show", "value: 2"), absl::OkStatus());
  EXPECT_EQ(Call("Show", "value: 1").message(),
            "browser 1 is not attached; Attach comes first");
}

TEST_F(WidgetServiceTest, DetachMakesRoomForAnotherAttach) {
  ASSERT_EQ(Call("Attach", kAttach), absl::OkStatus());
  EXPECT_EQ(Call("Detach", "value: 2"), absl::OkStatus());
  EXPECT_EQ(Call("Attach", kAttach), absl::OkStatus());
}

TEST_F(WidgetServiceTest, TheViewIsDrawnAsTheHostSays) {
  ASSERT_EQ(Call("Attach", kAttach), absl::OkStatus());
  EXPECT_FALSE(view().is_drawn());
  EXPECT_EQ(Call("Show", "value: 2"), absl::OkStatus());
  EXPECT_TRUE(view().is_drawn());
  EXPECT_EQ(Call("Minimize", "value: 2"), absl::OkStatus());
  EXPECT_FALSE(view().is_drawn());
  EXPECT_EQ(Call("Restore", "value: 2"), absl::OkStatus());
  EXPECT_TRUE(view().is_drawn());
  EXPECT_EQ(Call("Hide", "value: 2"), absl::OkStatus());
  EXPECT_FALSE(view().is_drawn());
}

TEST_F(WidgetServiceTest, TheFocusComesAndGoes) {
  ASSERT_EQ(Call("Attach", kAttach), absl::OkStatus());
  EXPECT_EQ(Call("Focus", "browser_id { value: 2 }"), absl::OkStatus());
  EXPECT_TRUE(view().has_focus());
  EXPECT_EQ(Call("Unfocus", "value: 2"), absl::OkStatus());
  EXPECT_FALSE(view().has_focus());
}

TEST_F(WidgetServiceTest, TheViewMovesWithinItsWindowAndToAnother) {
  ASSERT_EQ(Call("Attach", kAttach), absl::OkStatus());
  EXPECT_EQ(Call("SetViewBounds", "browser_id { value: 2 } bounds { x: 3 }"),
            absl::OkStatus());
  EXPECT_EQ(view().bounds().x(), 3);
  EXPECT_EQ(Call("NotifyParentWindowChanged",
                 "browser_id { value: 2 }"
                 "parent_window { platform: PLATFORM_X11 handle: 6 }"),
            absl::OkStatus());
  EXPECT_EQ(view().parent_window().handle(), 6U);
}

TEST_F(WidgetServiceTest, TheEnginesWindowIsTheOneOfTheView) {
  ASSERT_EQ(Call("Attach", kAttach), absl::OkStatus());
  rpc::WindowHandle window;
  EXPECT_EQ(Call("GetChromiumWindowHandle", "value: 2", &window),
            absl::OkStatus());
  EXPECT_EQ(window.platform(), rpc::PLATFORM_X11);
  EXPECT_EQ(window.handle(), view().engine_window().handle());
  EXPECT_NE(window.handle(), 0U);
}

TEST_F(WidgetServiceTest, ScaleFactorsDecideAtWhichTheBrowserIsAttached) {
  const auto scale_factor = [this] {
    rpc::AttachResult result;
    EXPECT_EQ(Call("Attach", kAttach, &result), absl::OkStatus());
    EXPECT_EQ(Call("Detach", "value: 2"), absl::OkStatus());
    return result.scale_factor();
  };
  EXPECT_EQ(Call("SetDisplay",
                 "browser_id { value: 2 } scale_factor: 2"
                 " bounds { width: 800 height: 600 }"),
            absl::OkStatus());
  EXPECT_EQ(scale_factor(), 2);
  EXPECT_EQ(Call("SetDpiAware", "browser_id { value: 2 } dpi_aware: false"),
            absl::OkStatus());
  EXPECT_EQ(scale_factor(), 1);
  EXPECT_EQ(
      Call("SetForcedScaleFactor", "browser_id { value: 2 } scale_factor: 4"),
      absl::OkStatus());
  EXPECT_EQ(scale_factor(), 4);
}

TEST_F(WidgetServiceTest, AScaleOf0IsRefused) {
  EXPECT_EQ(
      Call("SetForcedScaleFactor", "browser_id { value: 2 } scale_factor: 0")
          .message(),
      "`scale_factor` is 0; it must be from 0.25 to 8, or absent");
}

TEST_F(WidgetServiceTest, AccessibilityTreesAreJoinedByTokensNotByWindow) {
  ASSERT_EQ(Call("Attach", kAttach), absl::OkStatus());
  rpc::AccessibilityToken token;
  EXPECT_EQ(Call("GetAccessibilityToken", "value: 2", &token),
            absl::OkStatus());
  EXPECT_EQ(token.token(), ":1.2:/org/a11y/atspi/accessible/root");
  EXPECT_EQ(Call("SetParentAccessibilityNodes",
                 "browser_id { value: 2 } parent_node {"
                 " platform: PLATFORM_X11 token: ':1.9:/view' }"),
            absl::OkStatus());
  EXPECT_FALSE(Call("SetParentAccessibilityNodes",
                    "browser_id { value: 2 } parent_node {"
                    " platform: PLATFORM_X11 token: 'nonsense' }")
                   .ok());
  google::protobuf::BoolValue is_joined;
  EXPECT_EQ(Call("AttachAccessibleWindow",
                 "browser_id { value: 2 }"
                 " window { platform: PLATFORM_X11 handle: 5 }",
                 &is_joined),
            absl::OkStatus());
  EXPECT_FALSE(is_joined.value());
}

TEST_F(WidgetServiceTest, AHostWindowMustExist) {
  const auto assign = [this](const std::string& handle) {
    return Call("AssignHostWindow",
                "browser_id { value: 2 }"
                " host_window { platform: PLATFORM_X11 handle: " +
                    handle + " }");
  };
  EXPECT_EQ(assign("8"), absl::OkStatus());
  EXPECT_EQ(assign("0").message(),
            "window 0 of PLATFORM_X11 does not exist; windows are of "
            "PLATFORM_X11, with handles from 1 to 536870911");
}

}  // namespace
}  // namespace widget_server
