// The life of one browser in a window.

#ifndef HOST_VIEW_H_
#define HOST_VIEW_H_

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "absl/functional/any_invocable.h"
#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "absl/time/time.h"

#include "host/connector.h"
#include "host/drop_target.h"
#include "host/input_calls.h"
#include "host/keyboard.h"
#include "host/pointer.h"
#include "host/scene.h"
#include "host/touch.h"
#include "rpc/browser/accessibility.pb.h"
#include "rpc/browser/browser_id.pb.h"
#include "rpc/browser/browser_widget.client.h"
#include "rpc/browser/cursor.pb.h"
#include "rpc/browser/display.pb.h"
#include "rpc/browser/drag.pb.h"
#include "rpc/browser/focus.pb.h"
#include "rpc/browser/geometry.pb.h"
#include "rpc/browser/window.pb.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace orvane::host {

enum class ViewState {
  // There is no widget: it has not been started, or it has gone. The view
  // connects to the next one by itself. Show the last picture dimmed.
  kWaiting,

  // There is a widget. The view attaches once it has a size.
  kConnected,

  // The page is in the window.
  kAttached,

  // The widget has refused, for the reason in View::status(); for example,
  // another host has attached the browser. The view tries again by itself; see
  // also View::TakeOver.
  kRefused,

  // The widget serves another service or version, or belongs to another user;
  // trying again does not help.
  kIncompatible,
};

struct ViewOptions {
  Connector connect;  // Called for each widget process.
  BrowserId browser;
  PointerOptions pointer = {};

  // The time between two attempts to connect or to attach; it doubles from the
  // first to the last.
  absl::Duration first_retry = absl::Milliseconds(100);
  absl::Duration last_retry = absl::Seconds(5);

  // A widget that does nothing for so long counts as hanging, once it has
  // answered for the first time; see SocketClient::WatchServer. Some seconds
  // are usual. By default nobody looks.
  absl::Duration patience = absl::InfiniteDuration();
};

// Each may be left out.
struct ViewHandlers {
  // Runs for each new widget, before anything else is sent to it. Watch and
  // serve the browser's other streams here: who serves OnShowDropdown decides
  // who draws lists. The client and the streams that it opened are good until
  // the state is kWaiting or kIncompatible.
  absl::AnyInvocable<void(rpc::BrowserWidgetRpcClient&)> on_connected = nullptr;

  // Runs after each change of the state, of its reason, and of whether the
  // widget hangs. A drop-down or dialog of the page's that is open is closed
  // when the view is not attached any more.
  absl::AnyInvocable<void(ViewState)> on_state = nullptr;

  // Runs when View::scene() is to be drawn anew. Without it, pictures are left
  // to `on_connected`.
  std::function<void()> on_scene = nullptr;

  // Runs when the pointer over the view is to look otherwise; the default again
  // when the view is not attached any more. Must not call the view.
  absl::AnyInvocable<void(const rpc::Cursor&)> on_cursor = nullptr;

  // Runs with the text that explains what is under the pointer, and with an
  // empty one when nothing does any more. When it is shown is the window's
  // choice: widgets tell it at once, and toolkits wait for about half a second.
  absl::AnyInvocable<void(absl::string_view)> on_tooltip = nullptr;

  // Runs when Tab has led out of the page: gives the focus to the next or the
  // previous control of the window, and returns whether one has taken it.
  // Without it, the focus goes round in the page.
  absl::AnyInvocable<bool(rpc::FocusDirection)> on_take_focus = nullptr;

  // Runs when the accessibility focus is to move to the page; returns whether
  // it has moved. Without it, it stays where it is.
  absl::AnyInvocable<bool(const rpc::AccessibilityRequestFocusCall&)>
      on_accessibility_focus = nullptr;

  // Runs when the page has decided what a drop of what the toolkit drags over
  // the view would do.
  std::function<void(rpc::DragOperation)> on_drop_operation = nullptr;

  // Has the toolkit drag what the page drags, and returns whether it does so;
  // View::EndPageDrag then tells how that has ended. Without it, the page's
  // drags stay in the view.
  Pointer::OnPageDrag on_page_drag = nullptr;
};

// A display of that size in DIPs, for toolkits that tell no more about it.
rpc::Display NewDisplay(double width, double height, double scale_factor);

// Keeps what the window wants of a browser (size, visibility, focus, display),
// and tells it to each widget process that comes, in the right order.
//
// Thread: the service thread of the loop. Lifetime: the loop outlives the view.
// Must not be destroyed in one of its handlers. Its end closes the connection,
// and so leaves the browser to the next host.
class View {
 public:
  View(EventLoop* loop, ViewOptions options, ViewHandlers handlers);
  View(const View&) = delete;
  View& operator=(const View&) = delete;
  ~View();

  ViewState state() const { return state_; }

  // Why the state is not kAttached; OK if nothing has gone wrong.
  const absl::Status& status() const { return status_; }

  // Whether the widget hangs. The window may offer to end it; see also
  // WidgetProcess::Restart.
  bool is_hung() const { return is_hung_; }

  // What the window says over the page, in words that are fit to be shown: why
  // the view is not attached, or that the widget hangs. Empty if all is well.
  std::string StateText() const;

  // What to draw, also while there is no widget: the last picture, dimmed.
  Scene& scene() { return scene_; }

  // What the widget has made of the size and scale; only while attached. Where
  // it tells nonsense, the size is the window's and the scale factor is 1.
  const rpc::AttachResult& attached() const { return attached_; }

  // What the window wants. Each may be called in any state, again and again;
  // what changes nothing sends nothing. Bounds that are negative, or no
  // numbers, count as 0; a view without a size is attached, and draws nothing.
  void SetDisplay(const rpc::Display& display);
  void SetBounds(const rpc::RectDip& bounds,
                 const std::optional<rpc::RectPx>& screen_bounds);
  void SetSize(double width, double height);  // Of bounds at 0, 0, in DIPs.
  void SetShown(bool is_shown);
  void SetMinimized(bool is_minimized);

  // The control that holds the view has got or lost the keyboard focus.
  void Focus(rpc::FocusReason reason);
  void Unfocus();

  // Takes the view out of the window, as before the window is destroyed:
  // cancels input and detaches. SetBounds attaches it again. The widget is told
  // even if the view is destroyed at once.
  void Detach();

  // After kRefused: detaches the browser from whoever has it and attaches it
  // here. A host that lives loses its view.
  void TakeOver();

  // The drag of on_page_drag has ended, and this is what its target did;
  // UNSPECIFIED if nothing was dropped. Ignored if the page's drag is over
  // already, as it is after Detach and with the next widget.
  void EndPageDrag(rpc::DragOperation operation);

  // Where input goes. Null unless the view is attached.
  Pointer* pointer();
  Keyboard* keyboard();
  Touch* touch();
  DropTarget* drop_target();

  // Null while there is no widget.
  rpc::BrowserWidgetRpcClient* client();

 private:
  // What belongs to one widget process.
  struct Session {
    Session(std::unique_ptr<SocketClient> new_connection, View* view);

    const std::unique_ptr<SocketClient> connection;
    bool is_watched = false;
    InputCalls calls;
    Pointer pointer;
    Keyboard keyboard;
    Touch touch;
    DropTarget drop_target;
    std::vector<std::unique_ptr<ClientStream>> streams;
  };

  void Connect();
  void ConnectLater();
  void WatchWidget();
  absl::Duration NextRetry();
  void OpenStreams();
  void OnWidgetGone(const absl::Status& end);
  void AttachIfPossible();
  void Attach();
  void OnAttached(const absl::StatusOr<rpc::AttachResult>& answer);
  void TellBounds();
  void CancelInput();
  void ShowCursor(const rpc::Cursor& cursor);
  void ShowTooltip(absl::string_view text);
  void SetState(ViewState state, absl::Status status);

  EventLoop* const loop_;
  const ViewOptions options_;
  ViewHandlers handlers_;
  ViewState state_ = ViewState::kWaiting;
  absl::Status status_;
  rpc::AttachResult attached_;
  Scene scene_;

  // What the window wants.
  std::optional<rpc::Display> display_;
  std::optional<rpc::ViewBounds> bounds_;  // None: detached.
  bool is_shown_ = false;
  bool is_minimized_ = false;
  std::optional<rpc::FocusReason> focus_;

  absl::Duration retry_;
  std::unique_ptr<EventLoop::Timer> retry_timer_;
  bool is_attaching_ = false;  // Attach has no answer yet.
  bool is_hung_ = false;
  rpc::ViewBounds told_bounds_;       // What the widget knows of bounds_.
  std::shared_ptr<Session> session_;  // Answers hold a weak pointer.
};

}  // namespace orvane::host

#endif  // HOST_VIEW_H_
