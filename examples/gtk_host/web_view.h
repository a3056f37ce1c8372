// A view of a browser as a GTK 4 widget.

#ifndef EXAMPLES_GTK_HOST_WEB_VIEW_H_
#define EXAMPLES_GTK_HOST_WEB_VIEW_H_

#include <gtk/gtk.h>

#include <functional>
#include <memory>
#include <set>
#include <string>

#include "examples/gtk_host/page_popups.h"
#include "host/keyboard.h"
#include "host/pixels.h"
#include "host/pointer.h"
#include "host/view.h"
#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"

namespace gtk_host {

// Draws the page of a browser and passes input on to it. Says so in its place
// while there is no widget, and comes back with the next one.
//
// Thread: GTK's, which runs the loop.
class WebView {
 public:
  // `on_connected` runs for each widget process that comes.
  WebView(orvane::EventLoop* loop, const std::string& socket,
          const BrowserId& browser, std::function<void()> on_connected);
  WebView(const WebView&) = delete;
  WebView& operator=(const WebView&) = delete;
  ~WebView();

  // To be put into a window; owned by it.
  GtkWidget* widget() const { return overlay_; }

  // What the canvas tells.
  void OnAllocated(int width, int height);
  void OnSnapshot(GtkSnapshot* snapshot);
  bool OnFocusMove(GtkDirectionType direction);

 private:
  void OpenStreams(rpc::BrowserWidgetRpcClient& widget);
  void CloseStreams();
  void TellState();

  bool OnEvent(GdkEvent* event);
  void OnButton(GdkEvent* event, bool is_press);
  void OnScroll(GdkEvent* event);
  bool OnKey(GdkEvent* event, bool is_press);
  void OnCommit(const char* text);
  void OnTouch(GdkEvent* event);
  void OnFocusIn();
  void OnFocusOut();
  void TellScale();

  orvane::host::PointerSample SampleOf(GdkEvent* event) const;
  void ShowCursor(const rpc::Cursor& cursor);
  void TakeFocus(const rpc::TakeFocusCall& call,
                 orvane::Responder<rpc::TakeFocus> responder);

  const BrowserId browser_;
  const std::function<void()> on_connected_;
  GtkWidget* const canvas_;
  GtkWidget* const overlay_;
  GtkWidget* const status_;  // What is wrong, over the dimmed picture.
  GtkIMContext* const input_method_;

  orvane::host::Picture picture_;
  GdkTexture* texture_ = nullptr;  // Of the picture.
  std::string committed_;          // By the input method, for the present key.
  bool is_filtering_ = false;
  rpc::FocusReason focus_reason_ = rpc::FOCUS_REASON_WINDOW;  // Of the next.

  PagePopups popups_;
  std::vector<std::unique_ptr<orvane::ClientStream>> streams_;
  orvane::host::View view_;
};

}  // namespace gtk_host

#endif  // EXAMPLES_GTK_HOST_WEB_VIEW_H_
