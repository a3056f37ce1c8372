// What GDK tells of input, as the host library takes it.

#ifndef EXAMPLES_GTK_HOST_EVENTS_H_
#define EXAMPLES_GTK_HOST_EVENTS_H_

#include <gtk/gtk.h>

#include <cstdint>

#include "host/key.h"
#include "host/pointer.h"
#include "rpc/browser/mouse.pb.h"

namespace gtk_host {

// Of a button, a crossing, a touch, the wheel, or a movement; the position is
// in the widget.
orvane::host::PointerSample PointerSampleOf(GdkEvent* event, GtkWidget* widget);

// Of the event that the controller handles, in its widget. Without position if
// there is none, as when the widget disappears.
orvane::host::PointerSample PointerSampleOf(GtkEventController* controller);

// Of a press or a release.
rpc::MouseButton ButtonOf(GdkEvent* event);
orvane::host::KeySample KeySampleOf(GdkEvent* event);

// Sums of DragOperations as GDK's, and back. GDK's others are left out.
GdkDragAction ActionsOf(std::uint32_t operations);
std::uint32_t OperationsOf(GdkDragAction actions);

}  // namespace gtk_host

#endif  // EXAMPLES_GTK_HOST_EVENTS_H_
