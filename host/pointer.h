// A mouse or pen over a view.

#ifndef HOST_POINTER_H_
#define HOST_POINTER_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "absl/functional/any_invocable.h"
#include "absl/time/time.h"

#include "host/input_calls.h"
#include "rpc/browser/cursor.pb.h"
#include "rpc/browser/drag.pb.h"
#include "rpc/browser/geometry.pb.h"
#include "rpc/browser/input.pb.h"
#include "rpc/browser/mouse.pb.h"
#include "rpc/browser/wheel.pb.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"

namespace orvane::host {

// The button that X11 and GDK know by a number. UNSPECIFIED for those that
// stand for a wheel, and for buttons that pages do not know.
rpc::MouseButton ButtonOfX11(std::uint32_t number);

// Its MouseButtonFlag; 0 if it is no button.
std::uint32_t FlagOf(rpc::MouseButton button);

// The sum of MouseButtonFlags for the state of an X11 event or a
// GdkModifierType, which do not tell back and forward.
std::uint32_t ButtonsOfX11State(std::uint32_t state);

// What a toolkit tells with each event.
struct PointerSample {
  // Time, device and modifiers. A time before that of the event before counts
  // as the same time.
  rpc::InputInfo input;

  // Position in the view, where the toolkit knows it; screen position, where
  // there is one; pressure and tilt of a pen. A position that is not a number,
  // as GDK tells for the wheel, counts as unchanged; anything else that is not
  // a number counts as not told.
  //
  // `buttons` are those that the toolkit says are held. In a press or release
  // it may or may not count the button itself: GDK and X11 tell the state
  // before the event, Qt and SDL the one after. A button whose release got
  // lost, as when a window disappears under the pointer, is released once a
  // sample says so. X11 and GDK do not tell back and forward; these are never
  // missed.
  rpc::PointerState pointer;
};

// The defaults are GTK's, 400 ms and 5 (gtk-double-click-time, -distance) and 8
// (gtk-dnd-drag-threshold), and what most browsers scroll a page by for one
// step of the wheel. Pass the toolkit's settings, which follow the user's.
struct PointerOptions {
  // Between the presses of a double click.
  absl::Duration double_click_time = absl::Milliseconds(400);
  double double_click_distance_dip = 5;

  // A pointer that has moved farther with its button held does not click.
  double drag_threshold_dip = 8;

  double lines_per_detent = 3;
};

// Turns what a toolkit reports into mouse, wheel and drag calls, in the right
// order and with all fields: the pointer enters before it does anything else,
// and leaves a view in which a button is held once that is up; clicks are
// counted; while the page drags something, drag calls take the place of mouse
// calls; every press that was sent is followed by its release or by the end of
// the drag.
//
// What the page drags stays in the view unless the toolkit drags it, so that it
// can be dropped elsewhere. From OnPageDrag to EndDrag nothing is sent here;
// over the view, the drag is DropTarget's.
//
// Toolkits differ in whether they report that the pointer leaves while a button
// is held. With SetViewSize it does not matter, and a host that gets all motion
// of a window, as with SDL, may pass all of it.
//
// Give the view the focus before Press, so that the page knows of it first.
//
// Thread: the service thread. Lifetime: `calls` outlives this object. One that
// is destroyed sends nothing; call Cancel before if the browser lives on.
class Pointer {
 public:
  using OnCursor = absl::AnyInvocable<void(const rpc::Cursor&)>;

  // The page has begun to drag these items, and allows the sum of these
  // DragOperations; neither is empty. Returns whether the toolkit drags them
  // now; false if it cannot, for example since the button is up already.
  //
  // The page chooses types and contents, so offer other programs only types
  // that you know. It cannot name files, which are left out: a page that they
  // are dropped on would get to read them.
  using OnPageDrag = absl::AnyInvocable<bool(std::vector<rpc::DragItem> items,
                                             std::uint32_t allowed)>;

  // Watches the browser's cursor and its drags, so make it before Attach.
  // `on_cursor` runs when the cursor over the view is to look otherwise: as the
  // page says, or as its drag does while there is one. It must not call this
  // object. Without `on_page_drag`, the page's drags stay in the view.
  explicit Pointer(InputCalls* calls, PointerOptions options = {},
                   OnCursor on_cursor = nullptr,
                   OnPageDrag on_page_drag = nullptr);
  Pointer(const Pointer&) = delete;
  Pointer& operator=(const Pointer&) = delete;

  // From now on positions tell whether the pointer is over the view. Enter and
  // Leave go on to count, as for a window that lies over it.
  void SetViewSize(const rpc::SizeDip& size);

  // Each is allowed in any order; what changes nothing sends nothing.
  void Enter(const PointerSample& sample);
  void Leave(const PointerSample& sample);

  // `movement` is for toolkits that report it beside the position, as while the
  // pointer is locked.
  void Move(const PointerSample& sample,
            const std::optional<rpc::VectorDip>& movement = std::nullopt);

  // A press outside the view, and the release of a button that was not pressed
  // over it, are ignored. Clicks are counted here, unless the toolkit has done
  // it, as SDL does.
  void Press(const PointerSample& sample, rpc::MouseButton button,
             std::uint32_t click_count = 0);
  void Release(const PointerSample& sample, rpc::MouseButton button);

  // A wheel, by detents: positive to the right and down. Fractions, of wheels
  // that report more than whole detents, add up. Shift makes a wheel scroll
  // sideways.
  void TurnWheel(const PointerSample& sample, double detents_x,
                 double detents_y);

  // A touchpad, in DIPs: positive to the right and down. A scroll begins with
  // the first movement and ends with EndScroll, when the toolkit says that the
  // fingers are up.
  void Scroll(const PointerSample& sample, double dx, double dy);
  void EndScroll(const PointerSample& sample);

  // The pointer is taken away: the view is hidden, minimised or unmapped, is
  // about to be detached, or a grab was broken; or the user has pressed Escape
  // while is_page_dragging(). Held buttons are released without a click, and a
  // drag of the page's ends without a drop. What is still held then is not
  // reported to the page again. A drag that the toolkit has taken over goes on:
  // toolkits break grabs to begin one, and it may be over another view.
  void Cancel();

  // The page drags something, and the toolkit does not: from the event of
  // WhenDragCursorUpdated on that says so until the button is up.
  bool is_page_dragging() const { return phase_ == Phase::kPageDrag; }

  // The toolkit drags for the page: from OnPageDrag to EndDrag.
  bool is_toolkit_dragging() const { return phase_ == Phase::kToolkitDrag; }

  // The toolkit's drag has ended, and this is what its target did; UNSPECIFIED
  // if nothing was dropped. Ignored if the page's drag is over already: a press
  // that the toolkit reports ends it too. View::EndPageDrag also lets the drag
  // leave the view that it is over.
  void EndDrag(rpc::DragOperation operation);

 private:
  enum class Phase {
    kMouse,
    kPageDrag,
    kToolkitDrag,
    // Cancelled with a button held, until all are up.
    kSwallow,
  };
  enum class Drop { kNo, kIfPossible };

  static constexpr std::size_t kButtons = 5;
  struct Click {
    double x = 0;
    double y = 0;
    std::int64_t time_ns = 0;
    std::uint32_t count = 0;  // 0: not a click any more.
  };

  void Remember(const PointerSample& sample);
  void NoteLostReleases(std::uint32_t buttons);
  void FollowPosition();
  void EnterNow();
  void LeaveNow();
  void ReleaseNow(std::uint32_t flag, Drop drop);
  void SettleAfterButtons();
  std::uint32_t CountClick(rpc::MouseButton button, std::uint32_t told);
  void ForgetClicksThatMoved();

  void OnDragCursorUpdated(const rpc::DragCursorUpdated& event);
  bool HandToToolkit(const rpc::DragCursorUpdated& event);
  void OnDragOverAnswered(bool is_ok, std::uint64_t drag);
  void EndPageDrag(Drop drop);
  void ShowCursor();

  template <typename Request>
  Request NewMouse() const;
  template <typename Request>
  Request NewDrag() const;
  void SendEnter();
  void SendExit();
  void SendRelease(std::uint32_t flag, std::uint32_t click_count);
  void SendDragLeave();
  void SendDragEnd(rpc::DragOperation operation);
  bool IsOverView() const;

  InputCalls* const calls_;
  const PointerOptions options_;
  std::optional<rpc::SizeDip> view_size_;
  PointerSample latest_;  // Its buttons are not used.

  Phase phase_ = Phase::kMouse;
  bool is_inside_ = false;    // Where the pointer is.
  bool has_entered_ = false;  // What the widget was told of it.
  std::uint32_t down_ = 0;    // MouseButtonFlags pressed over the view.
  std::uint32_t held_ = 0;    // Those whose press was sent, and no release.
  std::array<Click, kButtons> clicks_;  // The latest press of each button.
  rpc::MouseButton latest_button_ = rpc::MOUSE_BUTTON_UNSPECIFIED;

  // The drag of the page's.
  std::uint64_t drag_ = 0;         // Counts drags.
  std::uint32_t drag_button_ = 0;  // Its release ends the drag.
  rpc::DragOperation operation_ = rpc::DRAG_OPERATION_UNSPECIFIED;
  std::size_t unanswered_ends_ = 0;

  OnPageDrag on_page_drag_;
  OnCursor on_cursor_;
  rpc::Cursor page_cursor_;
  rpc::Cursor drag_cursor_;

  bool is_scrolling_ = false;
  double turned_x_ = 0;  // Not sent yet, in 1/120 of a detent.
  double turned_y_ = 0;

  const std::unique_ptr<ClientStream> cursor_events_;
  const std::unique_ptr<ClientStream> drag_events_;

  // Answers hold a weak pointer to it, so that they find out that this object
  // is gone.
  const std::shared_ptr<Pointer*> self_ = std::make_shared<Pointer*>(this);
};

}  // namespace orvane::host

#endif  // HOST_POINTER_H_
