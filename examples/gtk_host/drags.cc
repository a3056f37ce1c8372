#include "examples/gtk_host/drags.h"

#include <string>

#include "examples/gtk_host/events.h"
#include "examples/gtk_host/signals.h"
#include "zimbrel/src/core/common/rpc/printable.h"

namespace gtk_host {
namespace {

constexpr int kMaxIconCharacters = 40;
constexpr int kIconDistance = 12;
constexpr unsigned kButtons =
    GDK_BUTTON1_MASK | GDK_BUTTON2_MASK | GDK_BUTTON3_MASK;

// Its text or link; null if there is neither, as every target takes one of the
// two.
const rpc::DragText* MainText(const std::vector<rpc::DragItem>& items) {
  for (const char* const type : {"text/plain", "text/uri-list"}) {
    for (const rpc::DragItem& item : items) {
      if (item.text().mime_type() == type) return &item.text();
    }
  }
  return nullptr;
}

// Other types are not offered: a page may call them what it likes.
GdkContentProvider* NewContent(const std::vector<rpc::DragItem>& items) {
  std::vector<GdkContentProvider*> contents;
  for (const rpc::DragItem& item : items) {
    const std::string type(item.text().mime_type());
    const std::string value(item.text().value());
    if (type == "text/plain") {
      contents.push_back(
          gdk_content_provider_new_typed(G_TYPE_STRING, value.c_str()));
    } else if (type == "text/uri-list" || type == "text/html") {
      GBytes* const bytes = g_bytes_new(value.data(), value.size());
      contents.push_back(
          gdk_content_provider_new_for_bytes(type.c_str(), bytes));
      g_bytes_unref(bytes);
    }
  }
  return gdk_content_provider_new_union(contents.data(), contents.size());
}

// The text goes along with the pointer.
void ShowIcon(GdkDrag* drag, const rpc::DragText& text) {
  const std::string words =
      orvane::Printable(std::string(text.value()).substr(0, 4096));
  GtkWidget* const label = gtk_label_new(words.c_str());
  gtk_label_set_single_line_mode(GTK_LABEL(label), TRUE);
  gtk_label_set_ellipsize(GTK_LABEL(label), PANGO_ELLIPSIZE_END);
  gtk_label_set_max_width_chars(GTK_LABEL(label), kMaxIconCharacters);
  gtk_widget_add_css_class(label, "background");
  gtk_drag_icon_set_child(GTK_DRAG_ICON(gtk_drag_icon_get_for_drag(drag)),
                          label);
  gdk_drag_set_hotspot(drag, -kIconDistance, -kIconDistance);
}

}  // namespace

Drags::Drags(GtkWidget* canvas, orvane::host::View* view)
    : canvas_(canvas), view_(view) {}

Drags::~Drags() { Forget(); }

bool Drags::Begin(const std::vector<rpc::DragItem>& items,
                  std::uint32_t allowed) {
  const rpc::DragText* const text = MainText(items);
  if (text == nullptr || !gtk_widget_get_mapped(canvas_)) return false;
  GdkSurface* const surface =
      gtk_native_get_surface(gtk_widget_get_native(canvas_));
  GdkDevice* const mouse = gdk_seat_get_pointer(
      gdk_display_get_default_seat(gtk_widget_get_display(canvas_)));
  // Without a button held, the drag would never end.
  GdkModifierType held{};
  gdk_surface_get_device_position(surface, mouse, nullptr, nullptr, &held);
  if ((held & kButtons) == 0) return false;
  Forget();
  GdkContentProvider* const content = NewContent(items);
  drag_ =
      gdk_drag_begin(surface, mouse, content, ActionsOf(allowed), /*dx=*/0, 0);
  g_object_unref(content);
  if (drag_ == nullptr) return false;
  ShowIcon(drag_, *text);
  Connect<&Drags::OnFinished>(drag_, "dnd-finished", this);
  Connect<&Drags::OnCancel>(drag_, "cancel", this);
  // GDK waits for it, whether this object is still there or not.
  g_signal_connect(drag_, "dnd-finished", G_CALLBACK(+[](GdkDrag* drag) {
                     gdk_drag_drop_done(drag, TRUE);
                   }),
                   nullptr);
  return true;
}

void Drags::OnFinished() {
  End(OperationsOf(gdk_drag_get_selected_action(drag_)));
}

void Drags::OnCancel() { End(rpc::DRAG_OPERATION_UNSPECIFIED); }

void Drags::End(std::uint32_t operation) {
  Forget();
  view_->EndPageDrag(static_cast<rpc::DragOperation>(operation));
}

void Drags::Forget() {
  if (drag_ != nullptr) g_signal_handlers_disconnect_by_data(drag_, this);
  g_clear_object(&drag_);
}

}  // namespace gtk_host
