// What a page drags out of its view.

#ifndef EXAMPLES_GTK_HOST_DRAGS_H_
#define EXAMPLES_GTK_HOST_DRAGS_H_

#include <gtk/gtk.h>

#include <cstdint>
#include <vector>

#include "host/view.h"
#include "rpc/browser/drag.pb.h"

namespace gtk_host {

// Has GTK drag what the page drags, so that it can be dropped on other programs
// and on other parts of the window: texts and links, with their HTML.
//
// Thread: GTK's. Lifetime: canvas and view outlive this object. A drag that is
// under way outlives it.
class Drags {
 public:
  Drags(GtkWidget* canvas, orvane::host::View* view);
  Drags(const Drags&) = delete;
  Drags& operator=(const Drags&) = delete;
  ~Drags();

  // Returns whether GTK drags the items; see Pointer::OnPageDrag.
  bool Begin(const std::vector<rpc::DragItem>& items, std::uint32_t allowed);

 private:
  void OnFinished();
  void OnCancel();
  void End(std::uint32_t operation);
  void Forget();

  GtkWidget* const canvas_;
  orvane::host::View* const view_;
  GdkDrag* drag_ = nullptr;  // The latest, until it has ended.
};

}  // namespace gtk_host

#endif  // EXAMPLES_GTK_HOST_DRAGS_H_
