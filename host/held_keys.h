// What a page is told when keys go down and up, and of the text that they
// enter. Whoever sends it fills in the browser.

#ifndef HOST_HELD_KEYS_H_
#define HOST_HELD_KEYS_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "absl/strings/string_view.h"

#include "host/key.h"
#include "rpc/browser/keyboard.pb.h"

namespace orvane::host {

// Turns what a toolkit reports into presses and releases: every release is that
// of a press, repetitions are marked as such, and a key that is a modifier
// counts as held from its press to its release.
class HeldKeys {
 public:
  // A sample without keysym and character has the character that `text` is, if
  // it is a single one.
  rpc::KeyPressRequest Press(const KeySample& sample, absl::string_view text);

  // Nothing for a key that is not down, and for a release that the toolkit
  // calls a repetition.
  std::optional<rpc::KeyReleaseRequest> Release(const KeySample& sample);

  // Releases of all keys that are down.
  std::vector<rpc::KeyReleaseRequest> ReleaseAll();

 private:
  struct HeldKey {
    rpc::Key key;
    rpc::InputInfo input;  // Of the press.
  };

  std::uint32_t HeldModifiers() const;

  std::map<std::uint64_t, HeldKey> held_;  // By what IndexOf tells.
};

// What a page may be told of a toolkit's text: no control characters, and no
// bytes that are not UTF-8.
std::string EnteredText(absl::string_view text);

// What a key enters, for which a toolkit has this text. Nothing if it is a
// shortcut, which Control, Alt and Meta make it, or if nothing is left of the
// text. Enter enters "\r" in any case.
std::optional<rpc::KeyTypeRequest> EnteredBy(const rpc::KeyPressRequest& press,
                                             absl::string_view text);

}  // namespace orvane::host

#endif  // HOST_HELD_KEYS_H_
