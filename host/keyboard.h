// The keyboard, while a view has the focus.

#ifndef HOST_KEYBOARD_H_
#define HOST_KEYBOARD_H_

#include "absl/strings/string_view.h"

#include "host/held_keys.h"
#include "host/input_calls.h"
#include "host/key.h"
#include "rpc/browser/input.pb.h"

namespace orvane::host {

// Turns what a toolkit reports into key presses, typed text and releases, in
// this order: every release is that of a press that was sent, and repetitions
// are marked as such.
//
// With an input method, let it have the event first, keep what it commits
// meanwhile, and then call Press with that text; call Commit for what it
// commits later. GTK: gtk_im_context_filter_keypress and "commit". Qt:
// QKeyEvent::text and QInputMethodEvent::commitString. SDL: the text of a press
// is the SDL_TEXTINPUT right behind its SDL_KEYDOWN in the queue; any other
// goes to Commit.
//
// Thread: the service thread. Lifetime: `calls` outlives this object.
class Keyboard {
 public:
  explicit Keyboard(InputCalls* calls);
  Keyboard(const Keyboard&) = delete;
  Keyboard& operator=(const Keyboard&) = delete;

  // `text` is what the key enters, in UTF-8; empty if it enters nothing, or if
  // the input method keeps it, which `is_composing` says. Enter is typed as
  // "\r" without the caller's doing. Control characters are left out, and so
  // are bytes that are not UTF-8, and the text of a key with Control, Alt or
  // Meta, which is a shortcut. A sample without keysym and character has the
  // character that the text is.
  void Press(const KeySample& sample, absl::string_view text = "",
             bool is_composing = false);

  // Ignored for a key that is not down, and for a release that the toolkit
  // calls a repetition, as Qt does while a key is held.
  void Release(const KeySample& sample);

  // Text that no single key has produced, or only after its press.
  void Commit(const rpc::InputInfo& input, absl::string_view text);

  // Releases all keys, since no release is reported once another control has
  // the focus. Call it before Unfocus.
  void ReleaseAll();

 private:
  InputCalls* const calls_;
  HeldKeys held_;
};

}  // namespace orvane::host

#endif  // HOST_KEYBOARD_H_
