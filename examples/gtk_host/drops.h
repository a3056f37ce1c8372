// What is dragged over a view.

#ifndef EXAMPLES_GTK_HOST_DROPS_H_
#define EXAMPLES_GTK_HOST_DROPS_H_

#include <gtk/gtk.h>

#include <optional>
#include <vector>

#include "host/view.h"
#include "rpc/browser/drag.pb.h"

namespace gtk_host {

// Lets texts, links and files be dropped on a page that takes them.
//
// Thread: GTK's. Lifetime: canvas and view outlive this object.
class Drops {
 public:
  Drops(GtkWidget* canvas, orvane::host::View* view);
  Drops(const Drops&) = delete;
  Drops& operator=(const Drops&) = delete;
  ~Drops();

  // The page has decided what a drop would do.
  void OnOperation(rpc::DragOperation operation);

 private:
  gboolean OnAccept(GdkDrop* drop);
  GdkDragAction OnEnter(GdkDrop* drop, double x, double y);
  GdkDragAction OnMotion(GdkDrop* drop, double x, double y);
  void OnLeave(GdkDrop* drop);
  gboolean OnDrop(GdkDrop* drop, double x, double y);

  void ReadNext();
  static void OnRead(GObject* drop, GAsyncResult* result, gpointer self);
  void Add(const GValue& value);
  void Finish(rpc::DragOperation operation);
  orvane::host::PointerSample Sample() const;
  std::uint32_t allowed() const;

  GtkWidget* const canvas_;
  orvane::host::View* const view_;
  GtkEventController* const controller_;

  // The drag that is over the view, or was dropped and is not finished.
  GdkDrop* drop_ = nullptr;
  GCancellable* reading_ = nullptr;
  std::vector<GType> unread_;  // What it has and has not been read.
  std::vector<rpc::DragItem> items_;
  double x_ = 0;
  double y_ = 0;
  bool is_dropped_ = false;
};

}  // namespace gtk_host

#endif  // EXAMPLES_GTK_HOST_DROPS_H_
