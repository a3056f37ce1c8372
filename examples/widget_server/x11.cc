#include "examples/widget_server/x11.h"

#include <cstddef>
#include <string>

#include "absl/strings/escaping.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"

namespace widget_server {
namespace {

// The X server reserves the upper three of 32 bits.
constexpr std::uint64_t kLargestWindow = 0x1fffffff;

// The ids of the engine's windows begin here.
constexpr std::uint64_t kEngineWindowBase = 0x02000000;

// An XIEnterEvent of XInput 2 on a 64-bit machine. An XEvent has 192 bytes.
constexpr std::size_t kShortestEventBytes = 184;

std::string NameOf(rpc::Platform platform) {
  const std::string name(rpc::Platform_Name(platform));
  return name.empty() ? absl::StrCat("platform ", static_cast<int>(platform))
                      : name;
}

}  // namespace

absl::Status CheckWindow(const rpc::WindowHandle& window) {
  if (window.platform() == rpc::PLATFORM_X11 && window.handle() != 0 &&
      window.handle() <= kLargestWindow) {
    return absl::OkStatus();
  }
  return absl::NotFoundError(absl::StrCat(
      "window ", window.handle(), " of ", NameOf(window.platform()),
      " does not exist; windows are of PLATFORM_X11, with handles from 1 to ",
      kLargestWindow));
}

absl::Status CheckNode(const rpc::AccessibilityToken& node) {
  if (node.platform() != rpc::PLATFORM_X11) {
    return absl::InvalidArgumentError(
        absl::StrCat("the token is of ", NameOf(node.platform()),
                     "; this widget runs on PLATFORM_X11"));
  }
  const absl::string_view token = node.token();
  const std::size_t end_of_bus_name = token.find(":/");
  if (end_of_bus_name == token.npos || end_of_bus_name == 0) {
    return absl::InvalidArgumentError(
        absl::StrCat("token \"", absl::CEscape(token),
                     "\" does not name a node; it must be a bus name, a colon "
                     "and an object path"));
  }
  return absl::OkStatus();
}

absl::Status CheckNativeEvent(const rpc::NativeEvent& event) {
  if (event.platform() != rpc::PLATFORM_X11) {
    return absl::InvalidArgumentError(
        absl::StrCat("the event is of ", NameOf(event.platform()),
                     "; this widget runs on PLATFORM_X11"));
  }
  if (event.payload().size() < kShortestEventBytes) {
    return absl::InvalidArgumentError(absl::StrCat(
        "the event has ", event.payload().size(),
        " bytes; the shortest X11 event has ", kShortestEventBytes));
  }
  return absl::OkStatus();
}

rpc::WindowHandle EngineWindow(std::uint64_t browser) {
  rpc::WindowHandle window;
  window.set_platform(rpc::PLATFORM_X11);
  window.set_handle(kEngineWindowBase + browser);
  return window;
}

rpc::AccessibilityToken RootNode(std::uint64_t browser) {
  return ElementNode(browser, "root");
}

rpc::AccessibilityToken ElementNode(std::uint64_t browser,
                                    absl::string_view element) {
  rpc::AccessibilityToken node;
  node.set_platform(rpc::PLATFORM_X11);
  node.set_token(
      absl::StrCat(":1.", browser, ":/org/a11y/atspi/accessible/", element));
  return node;
}

}  // namespace widget_server
