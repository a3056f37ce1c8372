// Input of the host's as parameters of the engine's input commands. The input
// must have been checked.

#ifndef ENGINES_CHROMIUM_INPUT_COMMANDS_H_
#define ENGINES_CHROMIUM_INPUT_COMMANDS_H_

#include <cstdint>
#include <map>
#include <optional>

#include "google/protobuf/repeated_ptr_field.h"

#include "engines/chromium/json.h"
#include "rpc/browser/input.pb.h"
#include "rpc/browser/keyboard.pb.h"
#include "rpc/browser/mouse.pb.h"
#include "rpc/browser/touch.pb.h"
#include "rpc/browser/wheel.pb.h"

namespace chromium {

// Input.dispatchKeyEvent. The key goes down without its text, which follows by
// itself.
Json KeyDown(const rpc::KeyPressRequest& event);
Json KeyUp(const rpc::KeyReleaseRequest& event);
Json KeyText(const rpc::KeyTypeRequest& event);

// Input.dispatchMouseEvent.
Json MousePressed(const rpc::MousePressRequest& event);
Json MouseReleased(const rpc::MouseReleaseRequest& event);
Json MouseMoved(const rpc::PointerState& pointer, const rpc::InputInfo& input);
Json MouseGone();

// Nothing if the event does not scroll, as at the end of a gesture. A page of
// scrolling is `view_height`, in DIPs.
std::optional<Json> MouseWheel(const rpc::MouseWheelRequest& event,
                               double view_height);

// Input.dispatchTouchEvent. The engine numbers fingers from 0 to 15.
class Fingers {
 public:
  using Points = google::protobuf::RepeatedPtrField<rpc::TouchPoint>;

  // Each is nothing if none of the fingers concerns the engine.
  std::optional<Json> Start(const Points& changed, const rpc::InputInfo& input);
  std::optional<Json> Move(const Points& changed, const rpc::InputInfo& input);
  std::optional<Json> End(const Points& changed, const rpc::InputInfo& input);

  // The engine cancels all fingers or none, so those that are still down do
  // nothing any more until they are lifted.
  std::optional<Json> Cancel(const Points& changed);

 private:
  std::optional<Json> Command(const char* type, const Points& changed,
                              const rpc::InputInfo& input) const;

  // The engine's number of each finger that is down for the engine.
  std::map<std::int32_t, int> numbers_;
};

// A position or a distance that the engine takes.
double EngineCoordinate(double dips);

// The modifiers of the DOM's events that the engine takes.
int EngineModifiers(std::uint32_t modifiers);

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_INPUT_COMMANDS_H_
