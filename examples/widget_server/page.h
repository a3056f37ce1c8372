// The page that a browser shows. It is not a real one, but behaves like one.

#ifndef EXAMPLES_WIDGET_SERVER_PAGE_H_
#define EXAMPLES_WIDGET_SERVER_PAGE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "absl/strings/string_view.h"

#include "examples/widget_server/abstract_page.h"
#include "examples/widget_server/frame_sender.h"
#include "examples/widget_server/page_layout.h"
#include "examples/widget_server/page_picture.h"
#include "rpc/browser/browser_widget.rpc.h"

namespace widget_server {

// Reacts to input by publishing events and calling the host, through the
// accessors of the service. The input must have been checked.
//
// The page takes keys while the view has the focus. It ignores keys and clicks
// while its dialog is open. At most one dialog and one list are open at a time.
//
// Thread: the service thread. Lifetime: `service` outlives the page; calls to
// the host may outlive both. Made by std::make_shared.
class Page : public AbstractPage, public std::enable_shared_from_this<Page> {
 public:
  Page(std::uint64_t browser, rpc::BrowserWidgetRpc* service);

  // Call it before the operation for the event that changed the viewport. A
  // detached view closes its list; the page keeps its text, choice and focus.
  void SetViewport(const Viewport& viewport) override;

  void Focus(const rpc::FocusRequest& event) override;
  void KeyPress(const rpc::KeyPressRequest& event) override;
  void KeyType(const rpc::KeyTypeRequest& event) override;
  void MousePress(const rpc::MousePressRequest& event) override;
  void MouseRelease(const rpc::MouseReleaseRequest& event) override;
  void MouseEnter(const rpc::MouseEnterRequest& event) override;
  void MouseExit(const rpc::MouseExitRequest& event) override;
  void MouseMove(const rpc::MouseMoveRequest& event) override;
  void MouseDrag(const rpc::MouseDragRequest& event) override;
  void DragEnter(const rpc::DragEnterRequest& event) override;
  void DragOver(const rpc::DragOverRequest& event) override;
  void DragDrop(const rpc::DragDropRequest& event) override;

  // Sends the host the pictures that have changed, if the view is off-screen.
  // Call it after each operation above. The page itself calls it when the host
  // has answered.
  void Draw() override;

  rpc::WindowHandle window() const override;
  rpc::AccessibilityToken root_node() const override;
  bool IsDraggableAt(const rpc::PointDip& position) const override;

  // What the view shows of the page. The caret is in it unless a host shows
  // layers.
  PageLook look() const;

 private:
  struct OpenList {
    std::uint64_t id;
    bool is_shown_by_host;
  };

  // The live regions of the page.
  enum class Region : std::uint64_t { kDialog = 1, kChoice = 2, kText = 3 };

  // Calls the host. `then` runs in a later task, with the page and a pointer to
  // the answer, which is null if the call failed; it does not run if the page
  // has been destroyed by then.
  template <typename T, typename Then>
  void Ask(const orvane::Caller<T>& caller, orvane::CallOf<T> call, Then then);

  bool HasCaret() const;

  // A new event that names the browser.
  template <typename T>
  T New() const;

  // `under_pointer` is null if the pointer is not over an element.
  void ShowCursor(const Element* under_pointer);
  void ShowTooltip(const Element* under_pointer);
  void PointAt(const rpc::PointDip& position);

  void Click(ElementId element);
  void OpenDialog();
  void OpenTheList();
  void CloseList(std::optional<std::size_t> choice);

  void InsertText(absl::string_view text);
  void SendText();  // Only empties the field.
  void Announce(Region region, absl::string_view text,
                rpc::AriaLivePoliteness politeness,
                rpc::AriaRelevantFlag relevant);

  void FocusElement(ElementId element);
  void MoveFocus(rpc::FocusDirection direction);
  void LeavePage(rpc::FocusDirection direction);

  // What a drop there would do.
  rpc::DragOperation OperationAt(const rpc::PointDip& position,
                                 std::uint32_t allowed_operations) const;

  // Publishes the event with what a drop would do now.
  void TellOfDrag(rpc::DragCursorUpdated event);

  const BrowserId browser_;
  rpc::BrowserWidgetRpc* const service_;
  const std::shared_ptr<FrameSender> frames_;
  Viewport viewport_;

  std::string text_;
  std::string button_label_ = "Your name";
  std::size_t option_ = 0;
  std::optional<ElementId> focused_;

  rpc::CursorType cursor_ = rpc::CURSOR_TYPE_DEFAULT;
  absl::string_view tooltip_;  // Empty while none is shown.
  std::optional<ElementId> pressed_;
  bool is_dialog_open_ = false;
  std::optional<OpenList> open_list_;
  std::uint64_t last_list_ = 0;
  bool is_focus_offered_ = false;  // The host has not answered OnTakeFocus yet.
  bool is_own_drag_announced_ = false;
  rpc::DragOperation drag_operation_ = rpc::DRAG_OPERATION_UNSPECIFIED;
};

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_PAGE_H_
