#include "examples/gtk_host/canvas.h"

#include <utility>

namespace gtk_host {
namespace {

struct Canvas {
  GtkWidget parent;
  CanvasHandlers* handlers;  // Null once they are forgotten.
};
struct CanvasClass {
  GtkWidgetClass parent;
};

GType CanvasType();

Canvas* From(gpointer object) {
  return reinterpret_cast<Canvas*>(g_type_check_instance_cast(
      static_cast<GTypeInstance*>(object), CanvasType()));
}

void Allocate(GtkWidget* widget, int width, int height, int) {
  if (const Canvas* const canvas = From(widget); canvas->handlers != nullptr)
    canvas->handlers->on_allocated(width, height);
}

void Snapshot(GtkWidget* widget, GtkSnapshot* snapshot) {
  if (const Canvas* const canvas = From(widget); canvas->handlers != nullptr)
    canvas->handlers->on_snapshot(snapshot);
}

gboolean Focus(GtkWidget* widget, GtkDirectionType direction) {
  const Canvas* const canvas = From(widget);
  return canvas->handlers != nullptr &&
         canvas->handlers->on_focus_move(direction);
}

// Popovers of the page's are its children.
void Dispose(GObject* object) {
  while (GtkWidget* const child =
             gtk_widget_get_first_child(GTK_WIDGET(object))) {
    gtk_widget_unparent(child);
  }
  ForgetCanvas(GTK_WIDGET(object));
  G_OBJECT_CLASS(g_type_class_peek(GTK_TYPE_WIDGET))->dispose(object);
}

void InitClass(gpointer klass, gpointer) {
  G_OBJECT_CLASS(klass)->dispose = Dispose;
  GtkWidgetClass* const widget_class = GTK_WIDGET_CLASS(klass);
  widget_class->size_allocate = Allocate;
  widget_class->snapshot = Snapshot;
  widget_class->focus = Focus;
}

GType CanvasType() {
  static const GType type = g_type_register_static_simple(
      GTK_TYPE_WIDGET, "OrvaneCanvas", sizeof(CanvasClass), InitClass,
      sizeof(Canvas), nullptr, GTypeFlags{});
  return type;
}

}  // namespace

GtkWidget* NewCanvas(CanvasHandlers handlers) {
  GtkWidget* const canvas = GTK_WIDGET(g_object_new(CanvasType(), nullptr));
  From(canvas)->handlers = new CanvasHandlers(std::move(handlers));
  gtk_widget_set_focusable(canvas, TRUE);
  gtk_widget_set_hexpand(canvas, TRUE);
  gtk_widget_set_vexpand(canvas, TRUE);
  gtk_widget_set_overflow(canvas, GTK_OVERFLOW_HIDDEN);
  return canvas;
}

void ForgetCanvas(GtkWidget* canvas) {
  delete std::exchange(From(canvas)->handlers, nullptr);
}

}  // namespace gtk_host
