#include "rpc/browser/browser_widget.rpc.h"

#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>

#include "google/protobuf/descriptor.h"
#include "google/protobuf/empty.pb.h"
#include "google/protobuf/wrappers.pb.h"
#include "gtest/gtest.h"

#include "foreign_methods.h"
#include "zimbrel/src/core/common/rpc/generator/recorded_call.h"

namespace rpc {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using google::protobuf::RpcController;
using orvane::generator::RecordedCall;

static_assert(std::is_base_of_v<orvane::Service, BrowserWidgetRpc>);
static_assert(sizeof(BrowserWidgetRpc) == sizeof(orvane::Service),
              "a service is its virtual operations and nothing else");
static_assert(std::is_default_constructible_v<BrowserWidgetRpc>);
static_assert(!std::is_copy_constructible_v<BrowserWidgetRpc>);
static_assert(std::has_virtual_destructor_v<BrowserWidgetRpc>);

struct ExpectedMethod {
  const char* name;
  const char* request;
  const char* response;
  bool is_streaming;
};

// By index.
constexpr ExpectedMethod kMethods[] = {
    {"Focus", "rpc.FocusRequest", "google.protobuf.Empty", false},
    {"Unfocus", "BrowserId", "google.protobuf.Empty", false},
    {"Attach", "rpc.AttachRequest", "rpc.AttachResult", false},
    {"Detach", "BrowserId", "google.protobuf.Empty", false},
    {"AssignHostWindow", "rpc.AssignHostWindowRequest", "google.protobuf.Empty",
     false},
    {"Show", "BrowserId", "google.protobuf.Empty", false},
    {"Hide", "BrowserId", "google.protobuf.Empty", false},
    {"Minimize", "BrowserId", "google.protobuf.Empty", false},
    {"Restore", "BrowserId", "google.protobuf.Empty", false},
    {"SetDisplay", "rpc.Display", "google.protobuf.Empty", false},
    {"SetViewBounds", "rpc.ViewBounds", "google.protobuf.Empty", false},
    {"GetChromiumWindowHandle", "BrowserId", "rpc.WindowHandle", false},
    {"ForwardKeyPress", "rpc.KeyPressRequest", "google.protobuf.Empty", false},
    {"ForwardKeyRelease", "rpc.KeyReleaseRequest", "google.protobuf.Empty",
     false},
    {"ForwardKeyType", "rpc.KeyTypeRequest", "google.protobuf.Empty", false},
    {"ForwardMousePress", "rpc.MousePressRequest", "google.protobuf.Empty",
     false},
    {"ForwardMouseRelease", "rpc.MouseReleaseRequest", "google.protobuf.Empty",
     false},
    {"ForwardMouseEnter", "rpc.MouseEnterRequest", "google.protobuf.Empty",
     false},
    {"ForwardMouseExit", "rpc.MouseExitRequest", "google.protobuf.Empty",
     false},
    {"ForwardMouseDrag", "rpc.MouseDragRequest", "google.protobuf.Empty",
     false},
    {"ForwardMouseMove", "rpc.MouseMoveRequest", "google.protobuf.Empty",
     false},
    {"ForwardMouseWheel", "rpc.MouseWheelRequest", "google.protobuf.Empty",
     false},
    {"ForwardNativeKeyEvent", "rpc.NativeKeyEventRequest",
     "google.protobuf.Empty", false},
    {"ForwardNativeMouseEvent", "rpc.NativeMouseEventRequest",
     "google.protobuf.Empty", false},
    {"ForwardNativeTouchEvent", "rpc.NativeTouchEventRequest",
     "google.protobuf.Empty", false},
    {"GetAccessibilityToken", "BrowserId", "rpc.AccessibilityToken", false},
    {"SetParentAccessibilityNodes", "rpc.SetParentAccessibilityNodesRequest",
     "google.protobuf.Empty", false},
    {"AttachAccessibleWindow", "rpc.AttachAccessibleWindowRequest",
     "google.protobuf.BoolValue", false},
    {"ForwardTouchStart", "rpc.TouchStartRequest", "google.protobuf.Empty",
     false},
    {"ForwardTouchMove", "rpc.TouchMoveRequest", "google.protobuf.Empty",
     false},
    {"ForwardTouchEnd", "rpc.TouchEndRequest", "google.protobuf.Empty", false},
    {"ForwardTouchCancel", "rpc.TouchCancelRequest", "google.protobuf.Empty",
     false},
    {"ForwardDragEnter", "rpc.DragEnterRequest", "google.protobuf.Empty",
     false},
    {"ForwardDragOver", "rpc.DragOverRequest", "google.protobuf.Empty", false},
    {"ForwardDragLeave", "rpc.DragLeaveRequest", "google.protobuf.Empty",
     false},
    {"ForwardDragDrop", "rpc.DragDropRequest", "google.protobuf.Empty", false},
    {"ForwardDragEnd", "rpc.DragEndRequest", "google.protobuf.Empty", false},
    {"NotifyParentWindowChanged", "rpc.AttachRequest", "google.protobuf.Empty",
     false},
    {"SetDpiAware", "rpc.SetDpiAwareRequest", "google.protobuf.Empty", false},
    {"SetForcedScaleFactor", "rpc.SetForcedScaleFactorRequest",
     "google.protobuf.Empty", false},
    {"WhenCursorChanged", "rpc.EventSubscription", "rpc.CursorChanged", true},
    {"WhenTooltipChanged", "rpc.EventSubscription", "rpc.TooltipChanged", true},
    {"WhenDropDownCreated", "rpc.EventSubscription", "rpc.DropDownCreated",
     true},
    {"WhenDropDownDeleted", "rpc.EventSubscription", "rpc.DropDownDeleted",
     true},
    {"WhenDragCursorUpdated", "rpc.EventSubscription", "rpc.DragCursorUpdated",
     true},
    {"WhenAriaLiveRegionChanged", "rpc.EventSubscription",
     "rpc.AriaLiveRegionChanged", true},
    {"OnCreateWebDialog", "rpc.CreateWebDialog", "rpc.CreateWebDialog", true},
    {"OnUpdateSurface", "rpc.UpdateSurface", "rpc.UpdateSurface", true},
    {"OnUpdateLayer", "rpc.UpdateLayer", "rpc.UpdateLayer", true},
    {"OnShowDropdown", "rpc.ShowDropdown", "rpc.ShowDropdown", true},
    {"OnTakeFocus", "rpc.TakeFocus", "rpc.TakeFocus", true},
    {"OnAccessibilityRequestFocus", "rpc.AccessibilityRequestFocus",
     "rpc.AccessibilityRequestFocus", true},
};
constexpr int kMethodCount = 52;
constexpr int kUnaryCount = 40;
static_assert(std::size(kMethods) == kMethodCount);

const MethodDescriptor* Method(int index) {
  return BrowserWidgetRpc::descriptor()->method(index);
}

const MethodDescriptor* Method(const std::string& name) {
  return BrowserWidgetRpc::descriptor()->FindMethodByName(name);
}

// Descriptor -----------------------------------------------------------------

TEST(BrowserWidgetDescriptor, NamesTheService) {
  ASSERT_NE(BrowserWidgetRpc::descriptor(), nullptr);
  EXPECT_EQ(BrowserWidgetRpc::descriptor()->name(), "BrowserWidgetRpc");
  EXPECT_EQ(BrowserWidgetRpc::descriptor()->file()->name(),
            "rpc/browser/browser_widget.proto");
}

TEST(BrowserWidgetDescriptor, IsTheSameByEveryWayAndOnEveryCall) {
  BrowserWidgetRpc one;
  BrowserWidgetRpc other;
  const auto* descriptor = BrowserWidgetRpc::descriptor();
  EXPECT_EQ(BrowserWidgetRpc::descriptor(), descriptor);
  EXPECT_EQ(one.GetDescriptor(), descriptor);
  EXPECT_EQ(one.GetDescriptor(), descriptor);
  EXPECT_EQ(other.GetDescriptor(), descriptor);
}

TEST(BrowserWidgetDescriptor, IsTheOneInTheGeneratedPool) {
  EXPECT_EQ(
      google::protobuf::DescriptorPool::generated_pool()->FindServiceByName(
          "rpc.BrowserWidgetRpc"),
      BrowserWidgetRpc::descriptor());
}

TEST(BrowserWidgetDescriptor, ListsTheMethodsInOrder) {
  ASSERT_EQ(BrowserWidgetRpc::descriptor()->method_count(), kMethodCount);
  for (int i = 0; i < kMethodCount; ++i) {
    const ExpectedMethod& expected = kMethods[i];
    SCOPED_TRACE(expected.name);
    const MethodDescriptor* method = Method(i);
    EXPECT_EQ(method->index(), i);
    EXPECT_EQ(method->name(), expected.name);
    EXPECT_EQ(method->input_type()->full_name(), expected.request);
    EXPECT_EQ(method->output_type()->full_name(), expected.response);
    EXPECT_EQ(method->client_streaming(), expected.is_streaming);
    EXPECT_EQ(method->server_streaming(), expected.is_streaming);
  }
}

// Prototypes -----------------------------------------------------------------

TEST(BrowserWidgetPrototypes, AreTheDefaultInstancesOfEachMethodsTypes) {
  const BrowserWidgetRpc service;
  auto* factory = google::protobuf::MessageFactory::generated_factory();
  for (int i = 0; i < kMethodCount; ++i) {
    SCOPED_TRACE(kMethods[i].name);
    const Message& request = service.GetRequestPrototype(Method(i));
    const Message& response = service.GetResponsePrototype(Method(i));
    EXPECT_EQ(request.GetTypeName(), kMethods[i].request);
    EXPECT_EQ(response.GetTypeName(), kMethods[i].response);
    EXPECT_EQ(&request, factory->GetPrototype(request.GetDescriptor()));
    EXPECT_EQ(&response, factory->GetPrototype(response.GetDescriptor()));
  }
}

TEST(BrowserWidgetPrototypes, EventStreamsTakeSubscriptionsAndReturnEvents) {
  const BrowserWidgetRpc service;
  EXPECT_EQ(&service.GetRequestPrototype(Method(40)),
            &EventSubscription::default_instance());
  EXPECT_EQ(&service.GetResponsePrototype(Method(40)),
            &CursorChanged::default_instance());
}

TEST(BrowserWidgetPrototypes, CallbackStreamsHaveOneTypeForBothDirections) {
  const BrowserWidgetRpc service;
  EXPECT_EQ(&service.GetRequestPrototype(Method(46)),
            &CreateWebDialog::default_instance());
  EXPECT_EQ(&service.GetResponsePrototype(Method(46)),
            &CreateWebDialog::default_instance());
}

TEST(BrowserWidgetPrototypes, NotifyParentWindowChangedTakesAnAttachRequest) {
  const BrowserWidgetRpc service;
  EXPECT_EQ(&service.GetRequestPrototype(Method(37)),
            &AttachRequest::default_instance());
  EXPECT_EQ(&service.GetResponsePrototype(Method(37)),
            &Empty::default_instance());
}

TEST(BrowserWidgetPrototypes, AnotherServicesMethodCountsByItsIndexAlone) {
  const BrowserWidgetRpc service;
  const ForeignMethods foreign;
  ASSERT_EQ(Method(3)->name(), "Detach");
  EXPECT_EQ(&service.GetRequestPrototype(foreign[3]),
            &BrowserId::default_instance());
  EXPECT_EQ(&service.GetResponsePrototype(foreign[3]),
            &Empty::default_instance());
}

// Methods that are not overridden --------------------------------------------

TEST(BrowserWidgetDefaultHandler, FailsTheCallAndCompletesIt) {
  BrowserWidgetRpc service;
  const BrowserId request;
  Empty response;
  RecordedCall call;
  service.CallMethod(Method("Show"), &call, &request, &response, &call);
  EXPECT_TRUE(call.Failed());
  EXPECT_EQ(call.ErrorText(), "Method Show() not implemented.");
  EXPECT_EQ(call.runs(), 1);
  EXPECT_EQ(response.SerializeAsString(), Empty().SerializeAsString());
}

TEST(BrowserWidgetDefaultHandler, NamesItsOwnMethod) {
  BrowserWidgetRpc service;
  for (int i = 0; i < kUnaryCount; ++i) {
    const std::unique_ptr<Message> request(
        service.GetRequestPrototype(Method(i)).New());
    const std::unique_ptr<Message> response(
        service.GetResponsePrototype(Method(i)).New());
    RecordedCall call;
    service.CallMethod(Method(i), &call, request.get(), response.get(), &call);
    EXPECT_EQ(call.ErrorText(), std::string("Method ") + kMethods[i].name +
                                    "() not implemented.");
    EXPECT_EQ(call.runs(), 1) << kMethods[i].name;
  }
}

TEST(BrowserWidgetDefaultHandler, FailsTheCallBeforeItRunsDone) {
  BrowserWidgetRpc service;
  const FocusRequest request;
  Empty response;
  RecordedCall call;
  service.Focus(&call, &request, &response, &call);
  EXPECT_TRUE(call.had_failed_when_run());
}

TEST(BrowserWidgetDefaultHandler, RunsDoneOnTheCallingThread) {
  BrowserWidgetRpc service;
  const BrowserId request;
  Empty response;
  RecordedCall call;
  std::thread caller([&] {
    service.CallMethod(Method("Hide"), &call, &request, &response, &call);
    EXPECT_EQ(call.thread(), std::this_thread::get_id());
  });
  caller.join();
  EXPECT_EQ(call.runs(), 1);
}

TEST(BrowserWidgetDefaultHandler, LeavesTheResponseAsItIs) {
  BrowserWidgetRpc service;
  const AttachAccessibleWindowRequest request;
  google::protobuf::BoolValue response;
  response.set_value(true);
  RecordedCall call;
  service.CallMethod(Method("AttachAccessibleWindow"), &call, &request,
                     &response, &call);
  EXPECT_TRUE(call.Failed());
  EXPECT_TRUE(response.value());
}

// Methods that are overridden ------------------------------------------------

struct Arguments {
  RpcController* controller;
  const Message* request;
  Message* response;
  Closure* done;

  bool operator==(const Arguments&) const = default;
};

// Serves some methods and remembers how it was called last.
class Widget final : public BrowserWidgetRpc {
 public:
  void Show(RpcController* controller, const BrowserId* request,
            Empty* response, Closure* done) override {
    Remember("Show", {controller, request, response, done});
  }
  void Detach(RpcController* controller, const BrowserId* request,
              Empty* response, Closure* done) override {
    Remember("Detach", {controller, request, response, done});
  }
  void Attach(RpcController* controller, const AttachRequest* request,
              AttachResult* response, Closure* done) override {
    Remember("Attach", {controller, request, response, done});
  }
  void NotifyParentWindowChanged(RpcController* controller,
                                 const AttachRequest* request, Empty* response,
                                 Closure* done) override {
    Remember("NotifyParentWindowChanged",
             {controller, request, response, done});
  }

  const std::string& handlers() const { return handlers_; }
  const Arguments& arguments() const { return arguments_; }

 private:
  void Remember(const std::string& handler, const Arguments& arguments) {
    handlers_ += handler + " ";
    arguments_ = arguments;
  }

  std::string handlers_;  // Each with a blank behind it.
  Arguments arguments_ = {};
};

TEST(BrowserWidgetDispatch, RunsTheOverrideAndNothingElse) {
  Widget widget;
  const BrowserId request;
  Empty response;
  RecordedCall call;
  widget.CallMethod(Method("Show"), &call, &request, &response, &call);
  EXPECT_EQ(widget.handlers(), "Show ");
  EXPECT_FALSE(call.Failed());
  EXPECT_EQ(call.runs(), 0) << "done is the override's to run";
}

TEST(BrowserWidgetDispatch, HandsTheArgumentsOnUnchanged) {
  Widget widget;
  const BrowserId request;
  Empty response;
  RecordedCall controller;
  RecordedCall done;
  widget.CallMethod(Method("Show"), &controller, &request, &response, &done);
  EXPECT_EQ(widget.arguments(),
            (Arguments{&controller, &request, &response, &done}));
}

TEST(BrowserWidgetDispatch, LeavesOtherMethodsToTheirDefaults) {
  Widget widget;
  const BrowserId request;
  Empty response;
  RecordedCall call;
  widget.CallMethod(Method("Hide"), &call, &request, &response, &call);
  EXPECT_EQ(widget.handlers(), "");
  EXPECT_EQ(call.ErrorText(), "Method Hide() not implemented.");
}

TEST(BrowserWidgetDispatch, NotifyParentWindowChangedIsGivenAnAttachRequest) {
  Widget widget;
  const AttachRequest request;
  AttachResult result;
  Empty response;
  RecordedCall call;
  widget.CallMethod(Method(2), &call, &request, &result, &call);
  EXPECT_EQ(widget.arguments().request, &request);
  widget.CallMethod(Method(37), &call, &request, &response, &call);
  EXPECT_EQ(widget.arguments().request, &request);
  EXPECT_EQ(widget.handlers(), "Attach NotifyParentWindowChanged ");
}

TEST(BrowserWidgetDispatch, AnotherServicesMethodRunsTheHandlerOfItsIndex) {
  Widget widget;
  const ForeignMethods foreign;
  const BrowserId request;
  Empty response;
  RecordedCall call;
  widget.CallMethod(foreign[3], &call, &request, &response, &call);
  EXPECT_EQ(widget.handlers(), "Detach ");
}

}  // namespace
}  // namespace rpc
