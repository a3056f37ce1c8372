// The way from CallMethod to a handler takes no memory. The program counts
// every use of operator new.

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include "google/protobuf/message.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/generator/recorded_call.h"

namespace {

std::atomic<int> allocations = 0;

}  // namespace

void* operator new(std::size_t size) {
  ++allocations;
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) std::abort();
  return memory;
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace rpc {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;

// Overrides every handler, each of which only notes that it ran.
#define NOTES(Name, Request, Response)                                      \
  void Name(RpcController*, const Request*, Response*, Closure*) override { \
    ++handled;                                                              \
  }

class NotingWidget final : public BrowserWidgetRpc {
 public:
  NOTES(Focus, FocusRequest, Empty)
  NOTES(Unfocus, BrowserId, Empty)
  NOTES(Attach, AttachRequest, AttachResult)
  NOTES(Detach, BrowserId, Empty)
  NOTES(AssignHostWindow, AssignHostWindowRequest, Empty)
  NOTES(Show, BrowserId, Empty)
  NOTES(Hide, BrowserId, Empty)
  NOTES(Minimize, BrowserId, Empty)
  NOTES(Restore, BrowserId, Empty)
  NOTES(SetDisplay, Display, Empty)
  NOTES(SetViewBounds, ViewBounds, Empty)
  NOTES(GetChromiumWindowHandle, BrowserId, WindowHandle)
  NOTES(ForwardKeyPress, KeyPressRequest, Empty)
  NOTES(ForwardKeyRelease, KeyReleaseRequest, Empty)
  NOTES(ForwardKeyType, KeyTypeRequest, Empty)
  NOTES(ForwardMousePress, MousePressRequest, Empty)
  NOTES(ForwardMouseRelease, MouseReleaseRequest, Empty)
  NOTES(ForwardMouseEnter, MouseEnterRequest, Empty)
  NOTES(ForwardMouseExit, MouseExitRequest, Empty)
  NOTES(ForwardMouseDrag, MouseDragRequest, Empty)
  NOTES(ForwardMouseMove, MouseMoveRequest, Empty)
  NOTES(ForwardMouseWheel, MouseWheelRequest, Empty)
  NOTES(ForwardNativeKeyEvent, NativeKeyEventRequest, Empty)
  NOTES(ForwardNativeMouseEvent, NativeMouseEventRequest, Empty)
  NOTES(ForwardNativeTouchEvent, NativeTouchEventRequest, Empty)
  NOTES(GetAccessibilityToken, BrowserId, AccessibilityToken)
  NOTES(SetParentAccessibilityNodes, SetParentAccessibilityNodesRequest, Empty)
  NOTES(AttachAccessibleWindow, AttachAccessibleWindowRequest,
        google::protobuf::BoolValue)
  NOTES(ForwardTouchStart, TouchStartRequest, Empty)
  NOTES(ForwardTouchMove, TouchMoveRequest, Empty)
  NOTES(ForwardTouchEnd, TouchEndRequest, Empty)
  NOTES(ForwardTouchCancel, TouchCancelRequest, Empty)
  NOTES(ForwardDragEnter, DragEnterRequest, Empty)
  NOTES(ForwardDragOver, DragOverRequest, Empty)
  NOTES(ForwardDragLeave, DragLeaveRequest, Empty)
  NOTES(ForwardDragDrop, DragDropRequest, Empty)
  NOTES(ForwardDragEnd, DragEndRequest, Empty)
  NOTES(NotifyParentWindowChanged, AttachRequest, Empty)
  NOTES(SetDpiAware, SetDpiAwareRequest, Empty)
  NOTES(SetForcedScaleFactor, SetForcedScaleFactorRequest, Empty)

  int handled = 0;
};

#undef NOTES

TEST(BrowserWidgetDispatch, TakesNoMemoryOnTheWayToAnyHandler) {
  constexpr int kUnaryCount = 40;
  NotingWidget widget;
  orvane::generator::RecordedCall call;
  std::vector<std::unique_ptr<google::protobuf::Message>> requests;
  std::vector<std::unique_ptr<google::protobuf::Message>> responses;
  const auto* descriptor = BrowserWidgetRpc::descriptor();
  for (int i = 0; i < kUnaryCount; ++i) {
    const auto* method = descriptor->method(i);
    requests.emplace_back(widget.GetRequestPrototype(method).New());
    responses.emplace_back(widget.GetResponsePrototype(method).New());
  }

  const int before = allocations;
  for (int i = 0; i < kUnaryCount; ++i) {
    const auto at = static_cast<std::size_t>(i);
    widget.CallMethod(descriptor->method(i), &call, requests[at].get(),
                      responses[at].get(), &call);
  }
  EXPECT_EQ(allocations - before, 0);
  EXPECT_EQ(widget.handled, kUnaryCount);
}

TEST(CountedAllocations, AreSeen) {
  const int before = allocations;
  const auto memory = std::make_unique<int>(1);
  EXPECT_EQ(allocations - before, 1);
  EXPECT_EQ(*memory, 1);
}

}  // namespace
}  // namespace rpc
