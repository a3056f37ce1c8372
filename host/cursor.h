// The look of the mouse pointer over a view.

#ifndef HOST_CURSOR_H_
#define HOST_CURSOR_H_

#include <string>

#include "rpc/browser/cursor.pb.h"
#include "rpc/browser/drag.pb.h"

namespace orvane::host {

// The keyword of CSS for a cursor, such as "ne-resize". GDK and the cursor
// themes of X11 and Wayland know it by the same name. "default" where the page
// leaves it to the host, for an image of the page's, and for an unknown type.
std::string CursorName(rpc::CursorType type);

// What to show while a drag is over the view: what the page wants, else what is
// usual for the operation.
rpc::Cursor CursorOf(const rpc::DragCursorUpdated& event);

}  // namespace orvane::host

#endif  // HOST_CURSOR_H_
