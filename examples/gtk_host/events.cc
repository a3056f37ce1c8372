#include "examples/gtk_host/events.h"

#include <cstdint>
#include <limits>
#include <utility>

#include "rpc/browser/drag.pb.h"

namespace gtk_host {
namespace {

constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();
constexpr std::int64_t kNsPerMs = 1'000'000;

constexpr std::pair<GdkDragAction, rpc::DragOperation> kOperations[] = {
    {GDK_ACTION_COPY, rpc::DRAG_OPERATION_COPY},
    {GDK_ACTION_MOVE, rpc::DRAG_OPERATION_MOVE},
    {GDK_ACTION_LINK, rpc::DRAG_OPERATION_LINK}};

rpc::InputInfo InputOf(GdkEvent* event) {
  rpc::InputInfo input;
  input.set_time_ns(gdk_event_get_time(event) * kNsPerMs);
  input.set_modifiers(
      orvane::host::ModifiersOfX11State(gdk_event_get_modifier_state(event)));
  return input;
}

}  // namespace

orvane::host::PointerSample PointerSampleOf(GdkEvent* event,
                                            GtkWidget* widget) {
  // Events tell a place in the surface, in which the window has a place.
  GtkNative* const native = gtk_widget_get_native(widget);
  double x = kUnknown;
  double y = kUnknown;
  double left = 0;
  double top = 0;
  gdk_event_get_position(event, &x, &y);
  gtk_native_get_surface_transform(native, &left, &top);
  gtk_widget_translate_coordinates(GTK_WIDGET(native), widget, x - left,
                                   y - top, &x, &y);
  orvane::host::PointerSample sample;
  sample.input = InputOf(event);
  sample.pointer.mutable_position()->set_x(x);
  sample.pointer.mutable_position()->set_y(y);
  sample.pointer.set_buttons(
      orvane::host::ButtonsOfX11State(gdk_event_get_modifier_state(event)));
  return sample;
}

orvane::host::PointerSample PointerSampleOf(GtkEventController* controller) {
  GdkEvent* const event = gtk_event_controller_get_current_event(controller);
  if (event != nullptr)
    return PointerSampleOf(event, gtk_event_controller_get_widget(controller));
  orvane::host::PointerSample sample;
  sample.pointer.mutable_position()->set_x(kUnknown);
  return sample;
}

rpc::MouseButton ButtonOf(GdkEvent* event) {
  return orvane::host::ButtonOfX11(gdk_button_event_get_button(event));
}

orvane::host::KeySample KeySampleOf(GdkEvent* event) {
  orvane::host::KeySample sample;
  sample.input = InputOf(event);
  sample.native_key_code = gdk_key_event_get_keycode(event);
  sample.keysym = gdk_key_event_get_keyval(event);
  sample.character = gdk_keyval_to_unicode(sample.keysym);
  guint unshifted = 0;
  gdk_display_translate_key(gdk_event_get_display(event),
                            sample.native_key_code, GdkModifierType{},
                            static_cast<int>(gdk_key_event_get_layout(event)),
                            &unshifted, nullptr, nullptr, nullptr);
  sample.unshifted_character = gdk_keyval_to_unicode(unshifted);
  return sample;
}

GdkDragAction ActionsOf(std::uint32_t operations) {
  unsigned actions = 0;
  for (const auto& [action, operation] : kOperations) {
    if ((operations & operation) != 0) actions |= action;
  }
  return static_cast<GdkDragAction>(actions);
}

std::uint32_t OperationsOf(GdkDragAction actions) {
  std::uint32_t operations = 0;
  for (const auto& [action, operation] : kOperations) {
    if ((actions & action) != 0) operations |= operation;
  }
  return operations;
}

}  // namespace gtk_host
