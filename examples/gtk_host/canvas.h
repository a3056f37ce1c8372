// The part of a GTK widget that has to be a class of GTK's: what it draws, its
// size, and how the focus moves to it.

#ifndef EXAMPLES_GTK_HOST_CANVAS_H_
#define EXAMPLES_GTK_HOST_CANVAS_H_

#include <gtk/gtk.h>

#include <functional>

namespace gtk_host {

struct CanvasHandlers {
  std::function<void(int width, int height)> on_allocated;
  std::function<void(GtkSnapshot* snapshot)> on_snapshot;
  // Whether the focus is in the canvas afterwards.
  std::function<bool(GtkDirectionType direction)> on_focus_move;
};

// A widget that fills its place and can have the focus.
GtkWidget* NewCanvas(CanvasHandlers handlers);

// Its handlers do not run any more.
void ForgetCanvas(GtkWidget* canvas);

}  // namespace gtk_host

#endif  // EXAMPLES_GTK_HOST_CANVAS_H_
