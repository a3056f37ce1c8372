// What the widget needs from its window system, X11. The example does not talk
// to an X server. A widget that does, or one for another platform, replaces
// these few functions.

#ifndef EXAMPLES_WIDGET_SERVER_X11_H_
#define EXAMPLES_WIDGET_SERVER_X11_H_

#include <cstdint>

#include "absl/status/status.h"
#include "absl/strings/string_view.h"

#include "rpc/browser/accessibility.pb.h"
#include "rpc/browser/native_input.pb.h"
#include "rpc/browser/window.pb.h"

namespace widget_server {

// OK if the window can exist: its handle is a number that X11 uses for windows.
// The X server is not asked.
absl::Status CheckWindow(const rpc::WindowHandle& window);

// OK if the token has the form of a node's name in an accessibility tree.
absl::Status CheckNode(const rpc::AccessibilityToken& node);

// OK if the payload is long enough for an X11 event. Nothing else is checked.
absl::Status CheckNativeEvent(const rpc::NativeEvent& event);

// The window into which the engine draws a browser.
rpc::WindowHandle EngineWindow(std::uint64_t browser);

// The root of the accessibility tree of a browser's page, and an element in it.
rpc::AccessibilityToken RootNode(std::uint64_t browser);
rpc::AccessibilityToken ElementNode(std::uint64_t browser,
                                    absl::string_view element);

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_X11_H_
