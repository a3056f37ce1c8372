// What the widget knows of its window system: X11, as far as an example has to
// imagine it. A widget for another platform, or one that asks the X server,
// replaces these few functions.

#ifndef EXAMPLES_WIDGET_SERVER_X11_H_
#define EXAMPLES_WIDGET_SERVER_X11_H_

#include <cstdint>

#include "absl/status/status.h"
#include "absl/strings/string_view.h"

#include "rpc/browser/accessibility.pb.h"
#include "rpc/browser/native_input.pb.h"
#include "rpc/browser/window.pb.h"

namespace widget_server {

// OK if the window exists. Nobody is asked here: whatever an X server could use
// as the id of a window counts as one.
absl::Status CheckWindow(const rpc::WindowHandle& window);

// OK if the token can name a node of an accessibility tree.
absl::Status CheckNode(const rpc::AccessibilityToken& node);

// OK if the payload can be an event in the layout of X11. Its length is all
// that is looked at.
absl::Status CheckNativeEvent(const rpc::NativeEvent& event);

// The window that the engine draws a browser into.
rpc::WindowHandle EngineWindow(std::uint64_t browser);

// The root of the accessibility tree of a browser's page, and an element in it.
rpc::AccessibilityToken RootNode(std::uint64_t browser);
rpc::AccessibilityToken ElementNode(std::uint64_t browser,
                                    absl::string_view element);

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_X11_H_
