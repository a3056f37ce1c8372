// The window around the views: tabs, and an address bar.

#ifndef EXAMPLES_GTK_HOST_BROWSER_WINDOW_H_
#define EXAMPLES_GTK_HOST_BROWSER_WINDOW_H_

#include <gtk/gtk.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "examples/gtk_host/downloads.h"
#include "examples/gtk_host/web_view.h"
#include "host/page.h"
#include "orvane/client.h"
#include "rpc/browser/page.pb.h"

namespace gtk_host {

// One tab for each browser. The bar is there if the widget serves pages; so are
// the keys of the window, which otherwise are the page's like all others.
//
// A window that a click on a page opens is shown in a browser that shows
// nothing, in its tab; if there is none, in place of that page. Windows that
// open by themselves do not open.
//
// Thread: GTK's. Lifetime: the loop and the window itself outlive this object.
class BrowserWindow {
 public:
  BrowserWindow(GtkApplication* application, orvane::EventLoop* loop,
                const WidgetSource& source,
                const std::vector<std::uint64_t>& browsers);
  BrowserWindow(const BrowserWindow&) = delete;
  BrowserWindow& operator=(const BrowserWindow&) = delete;
  ~BrowserWindow();

  GtkWindow* window() const { return GTK_WINDOW(window_); }

  // Before this object goes, so that the browsers may go into other windows.
  void Detach();

 private:
  struct Tab {
    Tab(BrowserWindow* window, orvane::EventLoop* loop,
        const WidgetSource& source, std::uint64_t number);

    const std::uint64_t number;
    std::optional<rpc::PageState> state;  // None: it has no page service.
    std::shared_ptr<GdkTexture> texture;  // None: the page has no icon.
    GtkWidget* const icon;
    GtkWidget* const label;
    orvane::host::Page page;
    WebView view;
  };

  Tab& tab();  // The one that is shown.
  int tab_count() const { return static_cast<int>(tabs_.size()); }
  std::string TitleOf(const Tab& of) const;
  bool OpenWindow(const rpc::OpenWindowCall& call);
  void OnState(Tab& changed, const rpc::PageState* state);
  void Show();
  void ShowTab(int index);

  void Load();
  void GoBack();
  void GoForward();
  void ReloadOrStop();
  void EnterAddress();
  void ShowNextTab();
  void ShowPreviousTab();

  template <auto kFunction>
  void AddAction(GtkApplication* application, const char* name,
                 std::vector<const char*> keys);
  void Enable(const char* action, bool is_enabled);
  GtkWidget* NewButton(const char* action, const char* icon,
                       const char* tooltip);

  GtkWidget* const window_;
  GtkWidget* const bar_;
  GtkWidget* const address_;
  GtkWidget* const icon_;
  GtkWidget* const lock_;
  GtkWidget* const reload_;
  GtkWidget* const problem_;
  GtkNotebook* const notebook_;
  Downloads downloads_;
  std::vector<std::unique_ptr<Tab>> tabs_;
};

}  // namespace gtk_host

#endif  // EXAMPLES_GTK_HOST_BROWSER_WINDOW_H_
