// A widget: one browser, and the state that its host has set.

#ifndef EXAMPLES_WIDGET_SERVER_WIDGET_H_
#define EXAMPLES_WIDGET_SERVER_WIDGET_H_

#include <cstdint>
#include <memory>
#include <optional>

#include "absl/functional/function_ref.h"
#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "google/protobuf/wrappers.pb.h"

#include "examples/widget_server/abstract_page.h"
#include "examples/widget_server/view.h"
#include "rpc/browser/accessibility.pb.h"
#include "rpc/browser/display.pb.h"
#include "rpc/browser/window.pb.h"
#include "zimbrel/src/core/common/rpc/transport/client_watch.h"

namespace widget_server {

// The widget and its page exist as long as the browser, the view only while it
// is attached. An operation that is used wrongly fails with a text that a host
// can show, and changes nothing.
class Widget {
 public:
  Widget(std::uint64_t browser, std::shared_ptr<AbstractPage> page);

  // `result` tells whether the widget is attached, and if not, why.
  absl::Status Attach(const rpc::AttachRequest& request,
                      rpc::AttachResult* result);

  // Keeps `host`, which waits for the end of the host that has attached the
  // browser, until Detach.
  void KeepFor(std::unique_ptr<orvane::ClientWatch> host);

  bool is_attached() const { return view_.has_value(); }

  // Both do nothing while there is no view.
  absl::Status Detach();
  absl::Status Unfocus();

  // The view, valid until Detach; an error if the browser is not attached.
  absl::StatusOr<View*> view();

  // The view's input, likewise; an error also if the page takes none now.
  absl::StatusOr<Input*> input();

  AbstractPage& page() { return *page_; }

  // Checks that the window exists. Dialogs and drop-downs are the host's to
  // show, so nothing else is done with it.
  static absl::Status AssignHostWindow(
      const rpc::AssignHostWindowRequest& request);

  absl::Status SetDisplay(const rpc::Display& display);
  absl::Status SetDpiAware(const rpc::SetDpiAwareRequest& request);
  absl::Status SetForcedScaleFactor(
      const rpc::SetForcedScaleFactorRequest& request);

  // Turns the page's accessibility on; nothing turns it off again.
  absl::Status GetAccessibilityToken(rpc::AccessibilityToken* token);

  // Checks the nodes. The page's tree does not tell of its parent.
  static absl::Status SetParentAccessibilityNodes(
      const rpc::SetParentAccessibilityNodesRequest& request);

  // Always sets `is_joined` to false, since accessibility trees are joined by
  // tokens on X11, not by windows.
  static absl::Status AttachAccessibleWindow(
      const rpc::AttachAccessibleWindowRequest& request,
      google::protobuf::BoolValue* is_joined);

  // Gives the page the state of the view, runs `react`, then draws the page.
  void UpdatePage(absl::FunctionRef<void(AbstractPage&)> react);

  // Pixels per DIP: the forced scale factor if there is one; else the display's
  // if it is known and the browser is DPI aware; else 1.
  double scale_factor() const;

 private:
  const std::uint64_t browser_;
  const std::shared_ptr<AbstractPage> page_;
  std::optional<View> view_;
  std::unique_ptr<orvane::ClientWatch> host_;  // Of the view.
  rpc::Display display_;
  bool is_dpi_aware_ = true;
  std::optional<double> forced_scale_factor_;
  bool is_accessibility_on_ = false;
};

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_WIDGET_H_
