// A view of a browser as a GTK 4 widget.

#ifndef EXAMPLES_GTK_HOST_WEB_VIEW_H_
#define EXAMPLES_GTK_HOST_WEB_VIEW_H_

#include <gtk/gtk.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "examples/gtk_host/drags.h"
#include "examples/gtk_host/drops.h"
#include "examples/gtk_host/page_popups.h"
#include "host/view.h"
#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"

namespace gtk_host {

// Where the widget comes from.
struct WidgetSource {
  orvane::host::Connector connect;

  // Ends a widget that hangs, and starts it again. Empty if this program has
  // not started it.
  std::function<void()> restart = nullptr;
};

// Draws the page of a browser and passes input on to it. Says so in its place
// while there is no widget, and comes back with the next one. A browser that
// another host has attached comes here: that host has died, or the user wants
// it in this window.
//
// Thread: GTK's, which runs the loop.
class WebView {
 public:
  // `on_connected` runs for each widget process that comes.
  WebView(orvane::EventLoop* loop, const WidgetSource& source,
          const BrowserId& browser, std::function<void()> on_connected);
  WebView(const WebView&) = delete;
  WebView& operator=(const WebView&) = delete;
  ~WebView();

  // To be put into a window; owned by it.
  GtkWidget* widget() const { return overlay_; }

  void GrabFocus();

  // What screen readers call it.
  void SetTitle(const std::string& title);

  // Before the program ends, so that the browser may go into another window.
  void Detach();

  // For the widget's class.
  void OnAllocated(int width, int height);
  void OnSnapshot(GtkSnapshot* snapshot);
  bool OnFocusMove(GtkDirectionType direction);

 private:
  void TellState();
  void Restart() { source_.restart(); }
  void ShowCursor(const rpc::Cursor& cursor);
  bool LeaveFocus(rpc::FocusDirection direction);
  void TellShown();
  void TellDisplay();
  void OnFocusIn();
  void OnFocusOut();

  gboolean OnEvent(GdkEvent* event);
  gboolean OnKey(GdkEvent* event);
  void OnCommit(const char* text);
  gboolean OnTouch(GdkEvent* event);
  void OnLeave();
  gboolean OnScroll(double dx, double dy);
  void OnScrollEnd();

  const WidgetSource source_;
  GtkWidget* const canvas_;
  const std::shared_ptr<void> canvas_reference_;  // As long as this object.
  GtkWidget* const overlay_;
  GtkWidget* const message_;  // What is wrong, over the dimmed picture:
  GtkWidget* const words_;
  GtkWidget* const restart_;  // Shown while the widget hangs.
  GtkEventController* const motion_;
  GtkEventController* const scroll_;
  std::vector<GtkEventController*> controllers_;  // Of the canvas; all.
  GtkIMContext* const input_method_;
  // What it has committed while it looks at the present key.
  std::optional<std::string> committed_;

  PagePopups popups_;
  orvane::host::View view_;
  Drops drops_;
  Drags drags_;
};

}  // namespace gtk_host

#endif  // EXAMPLES_GTK_HOST_WEB_VIEW_H_
