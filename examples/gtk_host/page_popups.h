// What a page opens over itself: lists and dialogs.

#ifndef EXAMPLES_GTK_HOST_PAGE_POPUPS_H_
#define EXAMPLES_GTK_HOST_PAGE_POPUPS_H_

#include <gtk/gtk.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"

namespace gtk_host {

// Lists are popovers of the view, dialogs are windows of their own. One of each
// is open at a time; a further one counts as closed without a choice.
//
// Thread: GTK's.
class PagePopups {
 public:
  // `parent` outlives this object.
  explicit PagePopups(GtkWidget* parent) : parent_(parent) {}
  PagePopups(const PagePopups&) = delete;
  PagePopups& operator=(const PagePopups&) = delete;
  ~PagePopups() { CloseAll(); }

  void ShowList(const rpc::ShowDropdownCall& call,
                orvane::Responder<rpc::ShowDropdown> responder);
  void CloseList(std::uint64_t popup_id);

  void ShowDialog(const rpc::CreateWebDialogCall& call,
                  orvane::Responder<rpc::CreateWebDialog> responder);

  // The page or its widget is gone.
  void CloseAll();

  // The view has another size.
  void Present();

 private:
  struct List {
    GtkWidget* popover;
    std::uint64_t popup_id;
    orvane::Responder<rpc::ShowDropdown> responder;
  };
  struct Dialog {
    GtkNativeDialog* native = nullptr;  // Of files; else null.
    GtkWidget* window = nullptr;
    GtkWidget* entry = nullptr;  // Of a prompt.
    orvane::Responder<rpc::CreateWebDialog> responder;
  };

  void ChooseFromList(std::optional<std::uint32_t> index);
  void ShowQuestion(const std::string& title, const std::string& message,
                    const char* yes, const char* no, const char* text);
  void ShowFiles(const rpc::FileDialog& file);
  void ShowColors(const rpc::ColorDialog& color);
  void AnswerDialog(rpc::CreateWebDialogResponse answer);

  GtkWidget* const parent_;
  std::optional<List> list_;
  std::optional<Dialog> dialog_;
};

}  // namespace gtk_host

#endif  // EXAMPLES_GTK_HOST_PAGE_POPUPS_H_
