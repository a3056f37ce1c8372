#include "examples/gtk_host/web_view.h"

#include <utility>

#include "examples/gtk_host/events.h"
#include "examples/gtk_host/signals.h"
#include "examples/gtk_host/texture.h"
#include "host/cursor.h"

namespace gtk_host {
namespace {

using orvane::host::Picture;
using orvane::host::ViewState;

constexpr double kDimmed = 0.4;
constexpr int kMessageSpacing = 12;

// Pages that work keep the widget's process busy for a second at most.
constexpr absl::Duration kPatience = absl::Seconds(5);

// GTK asks the class of a widget for its size and for what to draw.
WebView* ViewOf(GtkWidget* canvas) {
  return static_cast<WebView*>(g_object_get_data(G_OBJECT(canvas), "view"));
}

void InitCanvasClass(gpointer gtk_class, gpointer) {
  auto* const widget_class = static_cast<GtkWidgetClass*>(gtk_class);
  widget_class->size_allocate = [](GtkWidget* canvas, int width, int height,
                                   int) {
    if (auto* view = ViewOf(canvas)) view->OnAllocated(width, height);
  };
  widget_class->snapshot = [](GtkWidget* canvas, GtkSnapshot* snapshot) {
    if (auto* view = ViewOf(canvas)) view->OnSnapshot(snapshot);
  };
  widget_class->focus = [](GtkWidget* canvas, GtkDirectionType direction) {
    auto* const view = ViewOf(canvas);
    return gboolean{view != nullptr && view->OnFocusMove(direction)};
  };
  // A list that has just closed may still be there.
  G_OBJECT_CLASS(gtk_class)->dispose = [](GObject* canvas) {
    while (GtkWidget* list = gtk_widget_get_first_child(GTK_WIDGET(canvas)))
      gtk_widget_unparent(list);
    G_OBJECT_CLASS(g_type_class_peek(GTK_TYPE_WIDGET))->dispose(canvas);
  };
}

GtkWidget* NewCanvas(WebView* view) {
  static const GType type = g_type_register_static_simple(
      GTK_TYPE_WIDGET, "OrvaneCanvas", sizeof(GtkWidgetClass), InitCanvasClass,
      sizeof(GtkWidget), nullptr, GTypeFlags{});
  auto* const canvas = GTK_WIDGET(
      g_object_new(type, "focusable", TRUE, "hexpand", TRUE, "vexpand", TRUE,
                   "overflow", GTK_OVERFLOW_HIDDEN, nullptr));
  g_object_set_data(G_OBJECT(canvas), "view", view);
  return canvas;
}

graphene_rect_t RectangleOf(const rpc::RectDip& rect) {
  return {
      {static_cast<float>(rect.x()), static_cast<float>(rect.y())},
      {static_cast<float>(rect.width()), static_cast<float>(rect.height())}};
}

}  // namespace

WebView::WebView(orvane::EventLoop* loop, const WidgetSource& source,
                 const BrowserId& browser, std::function<void()> on_connected)
    : source_(source),
      canvas_(NewCanvas(this)),
      canvas_reference_(g_object_ref_sink(canvas_), g_object_unref),
      overlay_(gtk_overlay_new()),
      message_(gtk_box_new(GTK_ORIENTATION_VERTICAL, kMessageSpacing)),
      words_(gtk_label_new(nullptr)),
      restart_(gtk_button_new_with_label("Start it again")),
      motion_(gtk_event_controller_motion_new()),
      scroll_(gtk_event_controller_scroll_new(
          GTK_EVENT_CONTROLLER_SCROLL_BOTH_AXES)),
      input_method_(gtk_im_multicontext_new()),
      popups_(canvas_),
      view_(loop,
            {.connect = source_.connect,
             .browser = browser,
             .patience = kPatience},
            {.on_connected =
                 [this, browser, then = std::move(on_connected)](auto& widget) {
                   popups_.Serve(widget, browser);
                   then();
                 },
             .on_state = [this](ViewState) { TellState(); },
             .on_scene = [this] { gtk_widget_queue_draw(canvas_); },
             .on_cursor = [this](const auto& cursor) { ShowCursor(cursor); },
             .on_tooltip =
                 [this](absl::string_view text) {
                   gtk_widget_set_tooltip_text(canvas_,
                                               std::string(text).c_str());
                 },
             .on_take_focus = [this](auto way) { return LeaveFocus(way); },
             .on_accessibility_focus =
                 [this](const auto&) {
                   // GTK cannot name a node of another process, but the view.
                   GrabFocus();
                   return gtk_widget_has_focus(canvas_);
                 },
             .on_drop_operation = [this](auto op) { drops_.OnOperation(op); },
             .on_page_drag =
                 [this](const auto& items, std::uint32_t allowed) {
                   return drags_.Begin(items, allowed);
                 }}),
      drops_(canvas_, &view_),
      drags_(canvas_, &view_) {
  gtk_overlay_set_child(GTK_OVERLAY(overlay_), canvas_);
  gtk_overlay_add_overlay(GTK_OVERLAY(overlay_), message_);
  gtk_widget_set_halign(message_, GTK_ALIGN_CENTER);
  gtk_widget_set_valign(message_, GTK_ALIGN_CENTER);
  gtk_box_append(GTK_BOX(message_), words_);
  gtk_box_append(GTK_BOX(message_), restart_);
  gtk_label_set_wrap(GTK_LABEL(words_), TRUE);
  gtk_widget_set_halign(restart_, GTK_ALIGN_CENTER);
  gtk_widget_set_can_target(words_, FALSE);
  Connect<&WebView::Restart>(restart_, "clicked", this);
  TellState();

  gtk_im_context_set_client_widget(input_method_, canvas_);
  gtk_im_context_set_use_preedit(input_method_, FALSE);
  Connect<&WebView::OnCommit>(input_method_, "commit", this);
  GtkEventController* const events = gtk_event_controller_legacy_new();
  GtkEventController* const focus = gtk_event_controller_focus_new();
  Connect<&WebView::OnEvent>(events, "event", this);
  Connect<&WebView::OnLeave>(motion_, "leave", this);
  Connect<&WebView::OnScroll>(scroll_, "scroll", this);
  Connect<&WebView::OnScrollEnd>(scroll_, "scroll-end", this);
  Connect<&WebView::OnFocusIn>(focus, "enter", this);
  Connect<&WebView::OnFocusOut>(focus, "leave", this);
  controllers_ = {events, motion_, scroll_, focus};
  for (GtkEventController* const controller : controllers_)
    gtk_widget_add_controller(canvas_, controller);
  Connect<&WebView::TellShown>(canvas_, "map", this);
  Connect<&WebView::TellShown>(canvas_, "unmap", this);
  Connect<&WebView::TellDisplay>(canvas_, "notify::scale-factor", this);
}

WebView::~WebView() {
  for (GtkEventController* const controller : controllers_)
    gtk_widget_remove_controller(canvas_, controller);
  g_signal_handlers_disconnect_by_data(canvas_, this);
  g_object_set_data(G_OBJECT(canvas_), "view", nullptr);
  g_object_unref(input_method_);
}

void WebView::SetTitle(const std::string& title) {
  gtk_accessible_update_property(GTK_ACCESSIBLE(canvas_),
                                 GTK_ACCESSIBLE_PROPERTY_LABEL, title.c_str(),
                                 -1);
}

void WebView::Detach() { view_.Detach(); }

// What lies over the page

void WebView::TellState() {
  const std::string text = view_.StateText();
  if (view_.state() != ViewState::kAttached) popups_.CloseAll();
  gtk_label_set_text(GTK_LABEL(words_), text.c_str());
  gtk_widget_set_visible(message_, !text.empty());
  gtk_widget_set_visible(restart_, view_.is_hung() && source_.restart);
  gtk_widget_queue_draw(canvas_);
}

void WebView::ShowCursor(const rpc::Cursor& cursor) {
  Picture picture;
  const rpc::PointPx& hotspot = cursor.custom().hotspot();
  const std::string name = orvane::host::CursorName(cursor.type());
  GdkCursor* const shown =
      cursor.has_custom() && picture.Update(cursor.custom().image()).ok()
          ? gdk_cursor_new_from_texture(NewTexture(picture).get(), hotspot.x(),
                                        hotspot.y(), nullptr)
          : gdk_cursor_new_from_name(name.c_str(), nullptr);
  gtk_widget_set_cursor(canvas_, shown);
  g_object_unref(shown);
}

// The canvas

void WebView::OnAllocated(int width, int height) {
  view_.SetSize(width, height);
  popups_.Present();
}

void WebView::OnSnapshot(GtkSnapshot* snapshot) {
  const bool is_live =
      view_.state() == ViewState::kAttached && !view_.is_hung();
  const double opacity = is_live ? 1 : kDimmed;
  for (orvane::host::Scene::Item* const item : view_.scene().items()) {
    if (item->drawable == nullptr) item->drawable = NewTexture(item->picture);
    auto* const texture = static_cast<GdkTexture*>(item->drawable.get());
    const graphene_rect_t place = RectangleOf(item->bounds);
    const graphene_rect_t clip = RectangleOf(item->clip.value_or(item->bounds));
    gtk_snapshot_push_clip(snapshot, &clip);
    gtk_snapshot_push_opacity(snapshot, opacity * item->opacity);
    gtk_snapshot_append_texture(snapshot, texture, &place);
    gtk_snapshot_pop(snapshot);
    gtk_snapshot_pop(snapshot);
  }
}

void WebView::TellShown() {
  TellDisplay();
  view_.SetShown(gtk_widget_get_mapped(canvas_));
}

void WebView::TellDisplay() {
  if (!gtk_widget_get_mapped(canvas_)) return;  // On no display yet.
  GdkMonitor* const monitor = gdk_display_get_monitor_at_surface(
      gtk_widget_get_display(canvas_),
      gtk_native_get_surface(gtk_widget_get_native(canvas_)));
  if (monitor == nullptr) return;
  GdkRectangle place;
  gdk_monitor_get_geometry(monitor, &place);
  view_.SetDisplay(orvane::host::NewDisplay(
      place.width, place.height, gtk_widget_get_scale_factor(canvas_)));
}

// The focus

void WebView::GrabFocus() { gtk_widget_grab_focus(canvas_); }

bool WebView::OnFocusMove(GtkDirectionType direction) {
  // Tab leaves the page by LeaveFocus, and then GTK looks further.
  if (gtk_widget_has_focus(canvas_)) return false;
  view_.Focus(direction == GTK_DIR_TAB_BACKWARD ? rpc::FOCUS_REASON_BACK_TAB
                                                : rpc::FOCUS_REASON_TAB);
  return gtk_widget_grab_focus(canvas_);
}

// Does nothing if the view has been told of a better reason.
void WebView::OnFocusIn() {
  gtk_im_context_focus_in(input_method_);
  view_.Focus(rpc::FOCUS_REASON_WINDOW);
}

void WebView::OnFocusOut() {
  gtk_im_context_focus_out(input_method_);
  view_.Unfocus();
}

bool WebView::LeaveFocus(rpc::FocusDirection direction) {
  GtkRoot* const root = gtk_widget_get_root(canvas_);
  gtk_widget_child_focus(GTK_WIDGET(root),
                         direction == rpc::FOCUS_DIRECTION_BACKWARD
                             ? GTK_DIR_TAB_BACKWARD
                             : GTK_DIR_TAB_FORWARD);
  // GTK has not seen the key that led here.
  gtk_window_set_focus_visible(GTK_WINDOW(root), TRUE);
  return !gtk_widget_has_focus(canvas_);
}

// Input

gboolean WebView::OnEvent(GdkEvent* event) {
  const GdkEventType type = gdk_event_get_event_type(event);
  if (type == GDK_BUTTON_PRESS || type == GDK_TOUCH_BEGIN) {
    view_.Focus(rpc::FOCUS_REASON_MOUSE);
    GrabFocus();
  }
  if (view_.state() != ViewState::kAttached) return FALSE;
  switch (type) {
    case GDK_MOTION_NOTIFY:
      view_.pointer()->Move(PointerSampleOf(event, canvas_));
      return FALSE;  // Cursors and tooltips of GTK go on.
    case GDK_BUTTON_PRESS:
      view_.pointer()->Press(PointerSampleOf(event, canvas_), ButtonOf(event));
      return TRUE;
    case GDK_BUTTON_RELEASE:
      view_.pointer()->Release(PointerSampleOf(event, canvas_),
                               ButtonOf(event));
      return TRUE;
    case GDK_GRAB_BROKEN:
      view_.pointer()->Cancel();
      return FALSE;
    case GDK_KEY_PRESS:
    case GDK_KEY_RELEASE:
      return OnKey(event);
    case GDK_TOUCH_BEGIN:
    case GDK_TOUCH_UPDATE:
    case GDK_TOUCH_END:
    case GDK_TOUCH_CANCEL:
      return OnTouch(event);
    default:
      return FALSE;
  }
}

void WebView::OnLeave() {
  if (auto* pointer = view_.pointer()) pointer->Leave(PointerSampleOf(motion_));
}

gboolean WebView::OnScroll(double dx, double dy) {
  auto* const pointer = view_.pointer();
  if (pointer == nullptr) return FALSE;
  GdkEvent* const event = gtk_event_controller_get_current_event(scroll_);
  if (gdk_scroll_event_get_unit(event) == GDK_SCROLL_UNIT_WHEEL) {
    pointer->TurnWheel(PointerSampleOf(scroll_), dx, dy);
  } else {
    pointer->Scroll(PointerSampleOf(scroll_), dx, dy);
  }
  return TRUE;
}

void WebView::OnScrollEnd() {
  if (auto* pointer = view_.pointer())
    pointer->EndScroll(PointerSampleOf(scroll_));
}

gboolean WebView::OnKey(GdkEvent* event) {
  const bool is_press = gdk_event_get_event_type(event) == GDK_KEY_PRESS;
  committed_.emplace();
  const bool is_kept = gtk_im_context_filter_keypress(input_method_, event);
  const std::string text = *std::exchange(committed_, std::nullopt);
  const orvane::host::KeySample sample = KeySampleOf(event);
  if (is_press && sample.keysym == GDK_KEY_Escape &&
      view_.pointer()->is_page_dragging()) {
    view_.pointer()->Cancel();
  } else if (is_press) {
    view_.keyboard()->Press(sample, text, is_kept && text.empty());
  } else {
    view_.keyboard()->Release(sample);
  }
  return TRUE;  // Tab too, which is the page's while it has the focus.
}

void WebView::OnCommit(const char* text) {
  if (committed_.has_value()) {
    *committed_ += text;
  } else if (auto* const keyboard = view_.keyboard()) {
    keyboard->Commit({}, text);
  }
}

gboolean WebView::OnTouch(GdkEvent* event) {
  const auto sample = PointerSampleOf(event, canvas_);
  rpc::TouchPoint point;
  *point.mutable_position() = sample.pointer.position();
  const auto contact =
      reinterpret_cast<std::uintptr_t>(gdk_event_get_event_sequence(event));
  switch (gdk_event_get_event_type(event)) {
    case GDK_TOUCH_BEGIN:
      view_.touch()->Start(sample.input, contact, std::move(point));
      break;
    case GDK_TOUCH_UPDATE:
      view_.touch()->Move(sample.input, contact, std::move(point));
      break;
    case GDK_TOUCH_END:
      view_.touch()->End(sample.input, contact, std::move(point));
      break;
    default:
      view_.touch()->Cancel(sample.input, contact);
  }
  return TRUE;
}

}  // namespace gtk_host
