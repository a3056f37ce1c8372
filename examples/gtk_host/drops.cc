#include "examples/gtk_host/drops.h"

#include <string>
#include <utility>

#include "absl/strings/str_cat.h"

#include "examples/gtk_host/events.h"
#include "examples/gtk_host/signals.h"
#include "host/drop_target.h"
#include "host/key.h"

namespace gtk_host {
namespace {

constexpr auto kAllActions = static_cast<GdkDragAction>(
    GDK_ACTION_COPY | GDK_ACTION_MOVE | GDK_ACTION_LINK);

rpc::DragItem TextItem(const char* mime_type, const std::string& value) {
  rpc::DragItem item;
  item.mutable_text()->set_mime_type(mime_type);
  item.mutable_text()->set_value(value);
  return item;
}

}  // namespace

Drops::Drops(GtkWidget* canvas, orvane::host::View* view)
    : canvas_(canvas),
      view_(view),
      controller_(GTK_EVENT_CONTROLLER(
          gtk_drop_target_async_new(nullptr, kAllActions))) {
  Connect<&Drops::OnAccept>(controller_, "accept", this);
  Connect<&Drops::OnEnter>(controller_, "drag-enter", this);
  Connect<&Drops::OnMotion>(controller_, "drag-motion", this);
  Connect<&Drops::OnLeave>(controller_, "drag-leave", this);
  Connect<&Drops::OnDrop>(controller_, "drop", this);
  gtk_widget_add_controller(canvas_, controller_);
}

Drops::~Drops() {
  Finish(rpc::DRAG_OPERATION_UNSPECIFIED);
  g_signal_handlers_disconnect_by_data(controller_, this);
}

// OnEnter looks at the formats. GTK itself accepts none, as it knows none.
gboolean Drops::OnAccept(GdkDrop*) { return TRUE; }

GdkDragAction Drops::OnEnter(GdkDrop* drop, double x, double y) {
  Finish(rpc::DRAG_OPERATION_UNSPECIFIED);
  drop_ = GDK_DROP(g_object_ref(drop));
  reading_ = g_cancellable_new();
  x_ = x;
  y_ = y;
  GdkContentFormats* const formats =
      gdk_content_formats_union_deserialize_gtypes(
          gdk_content_formats_ref(gdk_drop_get_formats(drop)));
  for (const GType type : {G_TYPE_STRING, GDK_TYPE_FILE_LIST}) {
    if (gdk_content_formats_contain_gtype(formats, type))
      unread_.push_back(type);
  }
  gdk_content_formats_unref(formats);
  ReadNext();
  return GdkDragAction{};  // The page decides, later.
}

// The page is told of the drag once all that is dragged has been read.
void Drops::ReadNext() {
  if (!unread_.empty()) {
    gdk_drop_read_value_async(drop_, unread_.back(), G_PRIORITY_DEFAULT,
                              reading_, &Drops::OnRead, this);
    unread_.pop_back();
    return;
  }
  g_clear_object(&reading_);
  auto* const target = view_->drop_target();
  if (target == nullptr || items_.empty())
    return Finish(rpc::DRAG_OPERATION_UNSPECIFIED);
  target->Enter(Sample(), allowed(), items_);
  if (is_dropped_) OnDrop(drop_, x_, y_);
}

void Drops::OnRead(GObject* drop, GAsyncResult* result, gpointer data) {
  GError* error = nullptr;
  const GValue* const value =
      gdk_drop_read_value_finish(GDK_DROP(drop), result, &error);
  const bool is_cancelled =
      g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED);
  g_clear_error(&error);
  if (is_cancelled) return;  // The object may be gone.
  auto* const self = static_cast<Drops*>(data);
  if (value != nullptr) self->Add(*value);
  self->ReadNext();
}

void Drops::Add(const GValue& value) {
  if (G_VALUE_HOLDS_STRING(&value)) {
    const char* const text = g_value_get_string(&value);
    // Beside files it is only what they are called.
    if (text != nullptr && (items_.empty() || items_[0].has_text()))
      items_.push_back(TextItem("text/plain", text));
    return;
  }
  std::string links;
  GSList* const files = gdk_file_list_get_files(
      static_cast<GdkFileList*>(g_value_get_boxed(&value)));
  for (const GSList* file = files; file != nullptr; file = file->next) {
    if (const char* const path = g_file_peek_path(G_FILE(file->data))) {
      items_.emplace_back().mutable_file()->set_path(path);
    } else {
      char* const link = g_file_get_uri(G_FILE(file->data));
      absl::StrAppend(&links, link, "\r\n");
      g_free(link);
    }
  }
  g_slist_free(files);
  if (!links.empty()) items_.push_back(TextItem("text/uri-list", links));
}

GdkDragAction Drops::OnMotion(GdkDrop* drop, double x, double y) {
  auto* const target = view_->drop_target();
  if (drop != drop_ || target == nullptr) return GdkDragAction{};
  x_ = x;
  y_ = y;
  target->Move(Sample(), allowed());
  return ActionsOf(target->operation());
}

void Drops::OnOperation(rpc::DragOperation operation) {
  if (drop_ == nullptr || is_dropped_) return;
  const GdkDragAction action = ActionsOf(operation);
  gdk_drop_status(drop_, action, action);
}

// GTK also says so right after a drop.
void Drops::OnLeave(GdkDrop* drop) {
  if (drop == drop_ && !is_dropped_) Finish(rpc::DRAG_OPERATION_UNSPECIFIED);
}

gboolean Drops::OnDrop(GdkDrop* drop, double x, double y) {
  auto* const target = view_->drop_target();
  if (drop != drop_ || target == nullptr) return FALSE;
  is_dropped_ = true;
  x_ = x;
  y_ = y;
  if (reading_ == nullptr) {
    target->Drop(Sample(), allowed(), std::move(items_),
                 [this](rpc::DragOperation done) { Finish(done); });
  }
  return TRUE;
}

void Drops::Finish(rpc::DragOperation operation) {
  if (reading_ != nullptr) g_cancellable_cancel(reading_);
  g_clear_object(&reading_);
  unread_.clear();
  items_.clear();
  if (drop_ == nullptr) return;
  // A drop that still waits for the page comes here again as it leaves.
  if (std::exchange(is_dropped_, false))
    gdk_drop_finish(drop_, ActionsOf(operation));
  if (auto* const target = view_->drop_target()) target->Leave(Sample().input);
  g_clear_object(&drop_);
}

orvane::host::PointerSample Drops::Sample() const {
  orvane::host::PointerSample sample;
  sample.input.set_modifiers(orvane::host::ModifiersOfX11State(
      gdk_device_get_modifier_state(gdk_drop_get_device(drop_))));
  sample.pointer.mutable_position()->set_x(x_);
  sample.pointer.mutable_position()->set_y(y_);
  return sample;
}

std::uint32_t Drops::allowed() const {
  return OperationsOf(gdk_drop_get_actions(drop_));
}

}  // namespace gtk_host
