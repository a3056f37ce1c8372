#include "examples/gtk_host/web_view.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "absl/strings/ascii.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_replace.h"
#include "absl/strings/strip.h"

#include "examples/gtk_host/canvas.h"
#include "host/key.h"

namespace gtk_host {
namespace {

using orvane::host::KeySample;
using orvane::host::Picture;
using orvane::host::PointerSample;
using orvane::host::ViewState;

constexpr double kDimmed = 0.4;
constexpr std::int64_t kNsPerMs = 1'000'000;

rpc::MouseButton ButtonOf(guint button) {
  switch (button) {
    case GDK_BUTTON_PRIMARY:
      return rpc::MOUSE_BUTTON_PRIMARY;
    case GDK_BUTTON_MIDDLE:
      return rpc::MOUSE_BUTTON_AUXILIARY;
    case GDK_BUTTON_SECONDARY:
      return rpc::MOUSE_BUTTON_SECONDARY;
    case 8:
      return rpc::MOUSE_BUTTON_BACK;
    case 9:
      return rpc::MOUSE_BUTTON_FORWARD;
    default:
      return rpc::MOUSE_BUTTON_UNSPECIFIED;
  }
}

std::uint32_t ButtonsOf(GdkModifierType state) {
  std::uint32_t buttons = 0;
  if ((state & GDK_BUTTON1_MASK) != 0)
    buttons |= rpc::MOUSE_BUTTON_FLAG_PRIMARY;
  if ((state & GDK_BUTTON2_MASK) != 0)
    buttons |= rpc::MOUSE_BUTTON_FLAG_AUXILIARY;
  if ((state & GDK_BUTTON3_MASK) != 0)
    buttons |= rpc::MOUSE_BUTTON_FLAG_SECONDARY;
  return buttons;
}

rpc::InputInfo InputOf(GdkEvent* event) {
  rpc::InputInfo input;
  input.set_time_ns(gdk_event_get_time(event) * kNsPerMs);
  input.set_modifiers(
      orvane::host::ModifiersOfX11State(gdk_event_get_modifier_state(event)));
  return input;
}

GdkTexture* NewTexture(const Picture& picture) {
  GBytes* const bytes =
      g_bytes_new(picture.pixels().data(), picture.pixels().size());
  GdkTexture* const texture = gdk_memory_texture_new(
      picture.width(), picture.height(), GDK_MEMORY_B8G8R8A8_PREMULTIPLIED,
      bytes, static_cast<gsize>(picture.stride_bytes()));
  g_bytes_unref(bytes);
  return texture;
}

// The name that CSS and GDK have for a cursor: "ne-resize".
std::string CursorName(rpc::CursorType type) {
  if (type == rpc::CURSOR_TYPE_AUTO) return "default";
  const std::string name(
      absl::StripPrefix(rpc::CursorType_Name(type), "CURSOR_TYPE_"));
  return absl::AsciiStrToLower(absl::StrReplaceAll(name, {{"_", "-"}}));
}

}  // namespace

WebView::WebView(orvane::EventLoop* loop, const std::string& socket,
                 const BrowserId& browser, std::function<void()> on_connected)
    : browser_(browser),
      on_connected_(std::move(on_connected)),
      canvas_(NewCanvas(
          {.on_allocated = [this](int w, int h) { OnAllocated(w, h); },
           .on_snapshot = [this](GtkSnapshot* s) { OnSnapshot(s); },
           .on_focus_move =
               [this](GtkDirectionType d) { return OnFocusMove(d); }})),
      overlay_(gtk_overlay_new()),
      status_(gtk_label_new(nullptr)),
      input_method_(gtk_im_multicontext_new()),
      popups_(canvas_),
      view_(loop, {.socket = socket, .browser = browser},
            {.on_connected =
                 [this](rpc::BrowserWidgetRpcClient& widget) {
                   OpenStreams(widget);
                 },
             .on_state = [this](ViewState) { TellState(); }}) {
  gtk_overlay_set_child(GTK_OVERLAY(overlay_), canvas_);
  gtk_overlay_add_overlay(GTK_OVERLAY(overlay_), status_);
  gtk_label_set_wrap(GTK_LABEL(status_), TRUE);
  gtk_widget_set_can_target(status_, FALSE);
  g_object_ref(canvas_);  // For as long as this object lives.

  gtk_im_context_set_client_widget(input_method_, canvas_);
  gtk_im_context_set_use_preedit(input_method_, FALSE);
  g_signal_connect(input_method_, "commit",
                   G_CALLBACK(+[](GtkIMContext*, const char* text,
                                  WebView* self) { self->OnCommit(text); }),
                   this);

  GtkEventController* const events = gtk_event_controller_legacy_new();
  g_signal_connect(events, "event",
                   G_CALLBACK(+[](GtkEventController*, GdkEvent* event,
                                  WebView* self) -> gboolean {
                     return self->OnEvent(event);
                   }),
                   this);
  gtk_widget_add_controller(canvas_, events);

  GtkEventController* const motion = gtk_event_controller_motion_new();
  g_signal_connect(motion, "leave",
                   G_CALLBACK(+[](GtkEventController*, WebView* self) {
                     if (auto* pointer = self->view_.pointer())
                       pointer->Leave({});
                   }),
                   this);
  gtk_widget_add_controller(canvas_, motion);

  GtkEventController* const focus = gtk_event_controller_focus_new();
  g_signal_connect(focus, "enter",
                   G_CALLBACK(+[](GtkEventController*, WebView* self) {
                     self->OnFocusIn();
                   }),
                   this);
  g_signal_connect(focus, "leave",
                   G_CALLBACK(+[](GtkEventController*, WebView* self) {
                     self->OnFocusOut();
                   }),
                   this);
  gtk_widget_add_controller(canvas_, focus);

  g_signal_connect(canvas_, "map", G_CALLBACK(+[](GtkWidget*, WebView* self) {
                     self->TellScale();
                     self->view_.SetShown(true);
                   }),
                   this);
  g_signal_connect(canvas_, "unmap", G_CALLBACK(+[](GtkWidget*, WebView* self) {
                     self->view_.SetShown(false);
                   }),
                   this);
  g_signal_connect(canvas_, "notify::scale-factor",
                   G_CALLBACK(+[](GtkWidget*, GParamSpec*, WebView* self) {
                     self->TellScale();
                   }),
                   this);
  TellState();
}

WebView::~WebView() {
  popups_.CloseAll();
  view_.Detach();
  g_signal_handlers_disconnect_by_data(canvas_, this);
  ForgetCanvas(canvas_);
  g_clear_object(&texture_);
  g_object_unref(input_method_);
  g_object_unref(canvas_);
}

// The widget's process

void WebView::OpenStreams(rpc::BrowserWidgetRpcClient& widget) {
  streams_.clear();
  streams_.push_back(widget.OnUpdateSurface(
      browser_, [this](const rpc::UpdateSurfaceCall& call,
                       orvane::Responder<rpc::UpdateSurface> responder) {
        const absl::Status copied = picture_.Update(call.frame());
        rpc::UpdateSurfaceResponse answer;
        *answer.mutable_receipt() =
            orvane::host::ReceiptFor(call.frame(), copied);
        std::move(responder).Respond(answer).IgnoreError();
        if (!copied.ok()) return;
        g_clear_object(&texture_);
        texture_ = NewTexture(picture_);
        gtk_widget_queue_draw(canvas_);
      }));
  streams_.push_back(widget.WhenCursorChanged(
      browser_,
      [this](const rpc::CursorChanged& event) { ShowCursor(event.cursor()); }));
  streams_.push_back(widget.WhenTooltipChanged(
      browser_, [this](const rpc::TooltipChanged& event) {
        // GTK delays it by itself.
        const std::string text(event.text());
        gtk_widget_set_tooltip_text(canvas_,
                                    text.empty() ? nullptr : text.c_str());
      }));
  streams_.push_back(widget.OnShowDropdown(
      browser_, [this](const rpc::ShowDropdownCall& call,
                       orvane::Responder<rpc::ShowDropdown> responder) {
        popups_.ShowList(call, std::move(responder));
      }));
  streams_.push_back(widget.WhenDropDownDeleted(
      browser_, [this](const rpc::DropDownDeleted& event) {
        popups_.CloseList(event.popup_id());
      }));
  streams_.push_back(widget.OnCreateWebDialog(
      browser_, [this](const rpc::CreateWebDialogCall& call,
                       orvane::Responder<rpc::CreateWebDialog> responder) {
        popups_.ShowDialog(call, std::move(responder));
      }));
  streams_.push_back(widget.OnTakeFocus(
      browser_, [this](const rpc::TakeFocusCall& call,
                       orvane::Responder<rpc::TakeFocus> responder) {
        TakeFocus(call, std::move(responder));
      }));
  on_connected_();
}

void WebView::TellState() {
  const bool is_attached = view_.state() == ViewState::kAttached;
  if (!is_attached) {
    popups_.CloseAll();
    ShowCursor({});
    gtk_widget_set_tooltip_text(canvas_, nullptr);
  }
  const absl::Status& why = view_.status();
  const std::string words =
      is_attached ? ""
      : why.ok()  ? "Waiting for the browser"
                  : absl::StrCat("Waiting for the browser: ",
                                 orvane::Printable(why.message()));
  gtk_label_set_text(GTK_LABEL(status_), words.c_str());
  gtk_widget_set_visible(status_, !is_attached);
  gtk_widget_queue_draw(canvas_);
}

// The canvas

void WebView::OnAllocated(int width, int height) {
  rpc::RectDip bounds;
  bounds.set_width(width);
  bounds.set_height(height);
  view_.SetBounds(bounds, std::nullopt);
  popups_.Present();
}

void WebView::OnSnapshot(GtkSnapshot* snapshot) {
  if (texture_ == nullptr) return;
  const bool is_dimmed = view_.state() != ViewState::kAttached;
  const double scale = picture_.scale_factor();
  graphene_rect_t place;
  graphene_rect_init(&place, 0, 0, static_cast<float>(picture_.width() / scale),
                     static_cast<float>(picture_.height() / scale));
  if (is_dimmed) gtk_snapshot_push_opacity(snapshot, kDimmed);
  gtk_snapshot_append_texture(snapshot, texture_, &place);
  if (is_dimmed) gtk_snapshot_pop(snapshot);
}

void WebView::TellScale() {
  const int scale = gtk_widget_get_scale_factor(canvas_);
  rpc::Display display;
  display.set_display_id(1);
  display.set_scale_factor(scale);
  GtkNative* const native = gtk_widget_get_native(canvas_);
  GdkSurface* const surface =
      native == nullptr ? nullptr : gtk_native_get_surface(native);
  if (surface != nullptr) {
    GdkMonitor* const monitor = gdk_display_get_monitor_at_surface(
        gdk_surface_get_display(surface), surface);
    if (monitor != nullptr) {
      GdkRectangle place;
      gdk_monitor_get_geometry(monitor, &place);
      display.mutable_bounds()->set_width(place.width);
      display.mutable_bounds()->set_height(place.height);
      display.mutable_pixel_bounds()->set_width(place.width * scale);
      display.mutable_pixel_bounds()->set_height(place.height * scale);
      *display.mutable_work_area() = display.bounds();
    }
  }
  view_.SetDisplay(display);
}

// Input

bool WebView::OnEvent(GdkEvent* event) {
  switch (gdk_event_get_event_type(event)) {
    case GDK_MOTION_NOTIFY:
      if (auto* pointer = view_.pointer()) pointer->Move(SampleOf(event));
      return false;  // Cursors and tooltips of GTK go on.
    case GDK_BUTTON_PRESS:
      OnButton(event, true);
      return true;
    case GDK_BUTTON_RELEASE:
      OnButton(event, false);
      return true;
    case GDK_SCROLL:
      OnScroll(event);
      return true;
    case GDK_KEY_PRESS:
      return OnKey(event, true);
    case GDK_KEY_RELEASE:
      return OnKey(event, false);
    case GDK_TOUCH_BEGIN:
    case GDK_TOUCH_UPDATE:
    case GDK_TOUCH_END:
    case GDK_TOUCH_CANCEL:
      OnTouch(event);
      return true;
    case GDK_GRAB_BROKEN:
      if (auto* pointer = view_.pointer()) pointer->Cancel();
      return false;
    default:
      return false;
  }
}

PointerSample WebView::SampleOf(GdkEvent* event) const {
  PointerSample sample;
  sample.input = InputOf(event);
  double x = NAN;
  double y = NAN;
  gdk_event_get_position(event, &x, &y);
  // Relative to the surface; the window's own place in it, and then ours.
  GtkNative* const native = gtk_widget_get_native(canvas_);
  double left = 0;
  double top = 0;
  gtk_native_get_surface_transform(native, &left, &top);
  gtk_widget_translate_coordinates(GTK_WIDGET(native), canvas_, x - left,
                                   y - top, &x, &y);
  sample.pointer.mutable_position()->set_x(x);
  sample.pointer.mutable_position()->set_y(y);
  *sample.pointer.mutable_screen_position() = sample.pointer.position();
  sample.pointer.set_buttons(ButtonsOf(gdk_event_get_modifier_state(event)));
  return sample;
}

void WebView::OnButton(GdkEvent* event, bool is_press) {
  const rpc::MouseButton button = ButtonOf(gdk_button_event_get_button(event));
  if (button == rpc::MOUSE_BUTTON_UNSPECIFIED) return;
  if (is_press && !gtk_widget_has_focus(canvas_)) {
    focus_reason_ = rpc::FOCUS_REASON_MOUSE;
    gtk_widget_grab_focus(canvas_);
  }
  auto* const pointer = view_.pointer();
  if (pointer == nullptr) return;
  if (is_press) {
    pointer->Press(SampleOf(event), button);
  } else {
    pointer->Release(SampleOf(event), button);
  }
}

void WebView::OnScroll(GdkEvent* event) {
  auto* const pointer = view_.pointer();
  if (pointer == nullptr) return;
  const PointerSample sample = SampleOf(event);
  switch (gdk_scroll_event_get_direction(event)) {
    case GDK_SCROLL_UP:
      return pointer->TurnWheel(sample, 0, -1);
    case GDK_SCROLL_DOWN:
      return pointer->TurnWheel(sample, 0, 1);
    case GDK_SCROLL_LEFT:
      return pointer->TurnWheel(sample, -1, 0);
    case GDK_SCROLL_RIGHT:
      return pointer->TurnWheel(sample, 1, 0);
    default:
      break;
  }
  double dx = 0;
  double dy = 0;
  gdk_scroll_event_get_deltas(event, &dx, &dy);
  if (gdk_scroll_event_get_unit(event) == GDK_SCROLL_UNIT_WHEEL) {
    pointer->TurnWheel(sample, dx, dy);
  } else {
    pointer->Scroll(sample, dx, dy);
    if (gdk_scroll_event_is_stop(event)) pointer->EndScroll(sample);
  }
}

bool WebView::OnKey(GdkEvent* event, bool is_press) {
  committed_.clear();
  is_filtering_ = true;
  const bool is_kept = gtk_im_context_filter_keypress(input_method_, event);
  is_filtering_ = false;
  auto* const keyboard = view_.keyboard();
  if (keyboard == nullptr) return false;
  auto* const pointer = view_.pointer();
  if (is_press && pointer->is_page_dragging() &&
      gdk_key_event_get_keyval(event) == GDK_KEY_Escape) {
    pointer->Cancel();
    return true;
  }
  KeySample sample;
  sample.input = InputOf(event);
  sample.native_key_code = gdk_key_event_get_keycode(event);
  sample.keysym = gdk_key_event_get_keyval(event);
  sample.character = gdk_keyval_to_unicode(sample.keysym);
  guint unshifted = 0;
  if (gdk_display_translate_key(
          gdk_event_get_display(event), sample.native_key_code,
          GdkModifierType{}, static_cast<int>(gdk_key_event_get_layout(event)),
          &unshifted, nullptr, nullptr, nullptr)) {
    sample.unshifted_character = gdk_keyval_to_unicode(unshifted);
  }
  if (is_press) {
    keyboard->Press(sample, committed_, is_kept && committed_.empty());
  } else {
    keyboard->Release(sample);
  }
  return true;  // Tab too, which is the page's while it has the focus.
}

void WebView::OnCommit(const char* text) {
  if (is_filtering_) {
    committed_ += text;
  } else if (auto* const keyboard = view_.keyboard()) {
    keyboard->Commit({}, text);
  }
}

void WebView::OnTouch(GdkEvent* event) {
  auto* const touch = view_.touch();
  if (touch == nullptr) return;
  const PointerSample sample = SampleOf(event);
  rpc::TouchPoint point;
  *point.mutable_position() = sample.pointer.position();
  *point.mutable_screen_position() = sample.pointer.position();
  const auto contact =
      reinterpret_cast<std::uintptr_t>(gdk_event_get_event_sequence(event));
  switch (gdk_event_get_event_type(event)) {
    case GDK_TOUCH_BEGIN:
      return touch->Start(sample.input, contact, std::move(point));
    case GDK_TOUCH_UPDATE:
      return touch->Move(sample.input, contact, std::move(point));
    case GDK_TOUCH_END:
      return touch->End(sample.input, contact, std::move(point));
    default:
      return touch->Cancel(sample.input, contact);
  }
}

// The focus

bool WebView::OnFocusMove(GtkDirectionType direction) {
  // Tab leaves the page by OnTakeFocus, and then GTK looks further.
  if (gtk_widget_has_focus(canvas_)) return false;
  focus_reason_ = direction == GTK_DIR_TAB_BACKWARD ? rpc::FOCUS_REASON_BACK_TAB
                                                    : rpc::FOCUS_REASON_TAB;
  return gtk_widget_grab_focus(canvas_);
}

void WebView::OnFocusIn() {
  gtk_im_context_focus_in(input_method_);
  view_.Focus(std::exchange(focus_reason_, rpc::FOCUS_REASON_WINDOW));
}

void WebView::OnFocusOut() {
  gtk_im_context_focus_out(input_method_);
  view_.Unfocus();
}

void WebView::TakeFocus(const rpc::TakeFocusCall& call,
                        orvane::Responder<rpc::TakeFocus> responder) {
  GtkRoot* const root = gtk_widget_get_root(canvas_);
  if (root != nullptr) {
    gtk_widget_child_focus(GTK_WIDGET(root),
                           call.direction() == rpc::FOCUS_DIRECTION_BACKWARD
                               ? GTK_DIR_TAB_BACKWARD
                               : GTK_DIR_TAB_FORWARD);
  }
  rpc::TakeFocusResponse answer;
  answer.set_taken(!gtk_widget_has_focus(canvas_));
  if (answer.taken()) view_.Unfocus();
  std::move(responder).Respond(answer).IgnoreError();
}

// What lies over the page

void WebView::ShowCursor(const rpc::Cursor& cursor) {
  if (cursor.type() != rpc::CURSOR_TYPE_CUSTOM) {
    gtk_widget_set_cursor_from_name(
        canvas_, cursor.type() == rpc::CURSOR_TYPE_UNSPECIFIED
                     ? "default"
                     : CursorName(cursor.type()).c_str());
    return;
  }
  Picture picture;
  if (!picture.Update(cursor.custom().image()).ok()) return;
  GdkTexture* const texture = NewTexture(picture);
  GdkCursor* const shown =
      gdk_cursor_new_from_texture(texture, cursor.custom().hotspot().x(),
                                  cursor.custom().hotspot().y(), nullptr);
  gtk_widget_set_cursor(canvas_, shown);
  g_object_unref(shown);
  g_object_unref(texture);
}

}  // namespace gtk_host
