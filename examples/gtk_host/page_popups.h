// What a page opens over itself: lists and dialogs.

#ifndef EXAMPLES_GTK_HOST_PAGE_POPUPS_H_
#define EXAMPLES_GTK_HOST_PAGE_POPUPS_H_

#include <gtk/gtk.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "host/popups.h"
#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"

namespace gtk_host {

// Lists are popovers of the view, dialogs are windows of their own. One of each
// is open at a time: a further list takes the place of the one before, and a
// further dialog counts as declined.
//
// Thread: GTK's. Lifetime: the view's widget outlives this object.
class PagePopups {
 public:
  explicit PagePopups(GtkWidget* view);
  PagePopups(const PagePopups&) = delete;
  PagePopups& operator=(const PagePopups&) = delete;
  ~PagePopups();

  // For each widget process that comes.
  void Serve(rpc::BrowserWidgetRpcClient& widget, const BrowserId& browser);

  // The page or its widget is gone.
  void CloseAll();

  // The view has another size.
  void Present();

 private:
  struct List {
    GtkWidget* popover;
    GtkListBox* box;
    bool allows_multiple;
    std::uint64_t popup_id;
    orvane::Responder<rpc::ShowDropdown> responder;
  };
  struct Dialog {
    GObject* shown;    // A GtkNativeDialog or a GtkDialog.
    GtkWidget* entry;  // Of a prompt; else null.
    orvane::Responder<rpc::CreateWebDialog> responder;
  };

  void ShowList(const rpc::ShowDropdownCall& call,
                orvane::Responder<rpc::ShowDropdown> responder);
  void OnRowActivated(GtkListBoxRow* row);
  void OnListClosed();
  void CloseList(bool is_accepted);

  void ShowDialog(const rpc::CreateWebDialogCall& call,
                  orvane::Responder<rpc::CreateWebDialog> responder);
  GtkWidget* NewQuestion(const orvane::host::Question& question);
  GtkNativeDialog* NewFileChooser(const rpc::FileDialog& file);
  GtkWidget* NewColorChooser(const rpc::ColorDialog& color);
  void OnResponse(int response);
  void CloseDialog(const rpc::CreateWebDialogResponse& answer);

  GtkWindow* window() const;

  GtkWidget* const view_;
  std::optional<List> list_;
  std::optional<Dialog> dialog_;
  std::vector<std::unique_ptr<orvane::ClientStream>> streams_;
};

}  // namespace gtk_host

#endif  // EXAMPLES_GTK_HOST_PAGE_POPUPS_H_
