// The lowest possible cost of dispatch: a switch on an index that the caller
// knows, then a virtual call.

#ifndef BENCHMARKS_BARE_WIDGET_H_
#define BENCHMARKS_BARE_WIDGET_H_

#include "google/protobuf/message.h"
#include "google/protobuf/service.h"

#include "rpc/browser/browser_widget.pb.h"

// X(method, request type, response type), in the order of the indices.
#define UNARY_METHODS(X)                                                     \
  X(Focus, rpc::FocusRequest, google::protobuf::Empty)                       \
  X(Unfocus, BrowserId, google::protobuf::Empty)                             \
  X(Attach, rpc::AttachRequest, rpc::AttachResult)                           \
  X(Detach, BrowserId, google::protobuf::Empty)                              \
  X(AssignHostWindow, rpc::AssignHostWindowRequest, google::protobuf::Empty) \
  X(Show, BrowserId, google::protobuf::Empty)                                \
  X(Hide, BrowserId, google::protobuf::Empty)                                \
  X(Minimize, BrowserId, google::protobuf::Empty)                            \
  X(Restore, BrowserId, google::protobuf::Empty)                             \
  X(SetDisplay, rpc::Display, google::protobuf::Empty)                       \
  X(SetViewBounds, rpc::ViewBounds, google::protobuf::Empty)                 \
  X(GetChromiumWindowHandle, BrowserId, rpc::WindowHandle)                   \
  X(ForwardKeyPress, rpc::KeyPressRequest, google::protobuf::Empty)          \
  X(ForwardKeyRelease, rpc::KeyReleaseRequest, google::protobuf::Empty)      \
  X(ForwardKeyType, rpc::KeyTypeRequest, google::protobuf::Empty)            \
  X(ForwardMousePress, rpc::MousePressRequest, google::protobuf::Empty)      \
  X(ForwardMouseRelease, rpc::MouseReleaseRequest, google::protobuf::Empty)  \
  X(ForwardMouseEnter, rpc::MouseEnterRequest, google::protobuf::Empty)      \
  X(ForwardMouseExit, rpc::MouseExitRequest, google::protobuf::Empty)        \
  X(ForwardMouseDrag, rpc::MouseDragRequest, google::protobuf::Empty)        \
  X(ForwardMouseMove, rpc::MouseMoveRequest, google::protobuf::Empty)        \
  X(ForwardMouseWheel, rpc::MouseWheelRequest, google::protobuf::Empty)      \
  X(ForwardNativeKeyEvent, rpc::NativeKeyEventRequest,                       \
    google::protobuf::Empty)                                                 \
  X(ForwardNativeMouseEvent, rpc::NativeMouseEventRequest,                   \
    google::protobuf::Empty)                                                 \
  X(ForwardNativeTouchEvent, rpc::NativeTouchEventRequest,                   \
    google::protobuf::Empty)                                                 \
  X(GetAccessibilityToken, BrowserId, rpc::AccessibilityToken)               \
  X(SetParentAccessibilityNodes, rpc::SetParentAccessibilityNodesRequest,    \
    google::protobuf::Empty)                                                 \
  X(AttachAccessibleWindow, rpc::AttachAccessibleWindowRequest,              \
    google::protobuf::BoolValue)                                             \
  X(ForwardTouchStart, rpc::TouchStartRequest, google::protobuf::Empty)      \
  X(ForwardTouchMove, rpc::TouchMoveRequest, google::protobuf::Empty)        \
  X(ForwardTouchEnd, rpc::TouchEndRequest, google::protobuf::Empty)          \
  X(ForwardTouchCancel, rpc::TouchCancelRequest, google::protobuf::Empty)    \
  X(ForwardDragEnter, rpc::DragEnterRequest, google::protobuf::Empty)        \
  X(ForwardDragOver, rpc::DragOverRequest, google::protobuf::Empty)          \
  X(ForwardDragLeave, rpc::DragLeaveRequest, google::protobuf::Empty)        \
  X(ForwardDragDrop, rpc::DragDropRequest, google::protobuf::Empty)          \
  X(ForwardDragEnd, rpc::DragEndRequest, google::protobuf::Empty)            \
  X(NotifyParentWindowChanged, rpc::AttachRequest, google::protobuf::Empty)  \
  X(SetDpiAware, rpc::SetDpiAwareRequest, google::protobuf::Empty)           \
  X(SetForcedScaleFactor, rpc::SetForcedScaleFactorRequest,                  \
    google::protobuf::Empty)

namespace benchmarks {

class BareWidget {
 public:
  virtual ~BareWidget() = default;

#define DECLARE(Name, Request, Response)                         \
  virtual void Name(google::protobuf::RpcController* controller, \
                    const Request* request, Response* response,  \
                    google::protobuf::Closure* done) = 0;
  UNARY_METHODS(DECLARE)
#undef DECLARE

  // Calls the method with this index, from 0.
  void Call(int index, google::protobuf::RpcController* controller,
            const google::protobuf::Message* request,
            google::protobuf::Message* response,
            google::protobuf::Closure* done);
};

}  // namespace benchmarks

#endif  // BENCHMARKS_BARE_WIDGET_H_
