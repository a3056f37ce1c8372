// What hosts send as the window system delivered it.

#ifndef ENGINES_CHROMIUM_NATIVE_INPUT_H_
#define ENGINES_CHROMIUM_NATIVE_INPUT_H_

#include <cstdint>
#include <memory>

#include "absl/status/status.h"

#include "engines/chromium/keyboard_layout.h"
#include "engines/chromium/x11_event.h"
#include "examples/widget_server/abstract_page.h"
#include "host/held_keys.h"
#include "host/key.h"
#include "rpc/browser/keyboard.pb.h"
#include "rpc/browser/mouse.pb.h"
#include "rpc/browser/native_input.pb.h"

namespace chromium {

// Turns events of X11 into those that other hosts send by themselves, and
// passes them to the page: keys with the text that they type, clicks counted,
// turns of the wheel in DIPs.
//
// Thread: the service thread. Lifetime: the page outlives this object.
class NativeInput {
 public:
  explicit NativeInput(widget_server::AbstractPage* page);
  NativeInput(const NativeInput&) = delete;
  NativeInput& operator=(const NativeInput&) = delete;

  // Why an event cannot be taken, in words for the host; OK if it can. For
  // keys, the first one loads the keyboard's layout, which may fail too.
  absl::Status Check(const rpc::NativeKeyEventRequest& request);
  static absl::Status Check(const rpc::NativeMouseEventRequest& request);
  static absl::Status Check(const rpc::NativeTouchEventRequest& request);

  // Each takes an event that has been checked. `scale_factor` is pixels per
  // DIP.
  void Take(const rpc::NativeKeyEventRequest& request);
  void Take(const rpc::NativeMouseEventRequest& request, double scale_factor);
  void Take(const rpc::NativeTouchEventRequest& request, double scale_factor);

  // The buttons that were pressed, or keys too, have been lifted by other
  // means.
  void ForgetButtons();
  void ForgetHeld();

 private:
  struct Click {
    rpc::MouseButton button = rpc::MOUSE_BUTTON_UNSPECIFIED;
    double x = 0;  // In pixels.
    double y = 0;
    std::uint32_t time_ms = 0;
    std::uint32_t count = 0;
  };

  void PressKey(const X11Event& event, rpc::InputInfo input);
  void ReleaseKey(const X11Event& event, rpc::InputInfo input);
  orvane::host::KeySample Describe(const X11Event& event, rpc::InputInfo input);

  void PressButton(const X11Event& event, rpc::MouseButton button,
                   const rpc::InputInfo& input, rpc::PointerState pointer);
  void ReleaseButton(rpc::MouseButton button, const rpc::InputInfo& input,
                     rpc::PointerState pointer);
  void TurnWheel(const X11Event& event, const rpc::InputInfo& input,
                 const rpc::PointerState& pointer);
  void CountClick(const X11Event& event, rpc::MouseButton button);

  widget_server::AbstractPage* const page_;

  std::unique_ptr<KeyboardLayout> layout_;  // From the first key on.
  orvane::host::HeldKeys held_;
  // The latest release. X11 may report a held key as releases and presses.
  std::uint32_t released_key_ = 0;
  std::uint32_t release_time_ms_ = 0;

  std::uint32_t pressed_ = 0;  // MouseButtonFlags.
  bool has_left_ = false;      // While a button was held.
  Click click_;                // The latest press.
};

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_NATIVE_INPUT_H_
