// What a page is told about a key.

#ifndef HOST_KEY_H_
#define HOST_KEY_H_

#include <cstdint>

#include "rpc/browser/input.pb.h"
#include "rpc/browser/keyboard.pb.h"

namespace orvane::host {

// What a toolkit tells when a key goes down or up. What it does not tell stays
// 0; a key needs at least its native key code, its keysym or its character
// without modifiers.
struct KeySample {
  // Time and device, and the modifiers as they are before or after the event:
  // the key's own is counted or taken off as need be.
  rpc::InputInfo input;

  // The key code of X11: gdk_key_event_get_keycode, QKeyEvent::nativeScanCode.
  // For SDL: NativeKeyCodeOfUsage(keysym.scancode).
  std::uint32_t native_key_code = 0;

  // The keysym of X11 under the modifiers in effect: gdk_key_event_get_keyval,
  // QKeyEvent::nativeVirtualKey, xkb_state_key_get_one_sym. SDL has none.
  std::uint32_t keysym = 0;

  // The character of the key under the modifiers in effect:
  // gdk_keyval_to_unicode, xkb_keysym_to_utf32. SDL tells none but in the text
  // that the key enters, which Keyboard::Press takes it from.
  char32_t character = 0;

  // Likewise without modifiers: gdk_display_translate_key with a state of 0,
  // level 0 of xkb_keymap_key_get_syms_by_level; keysym.sym of SDL. One that is
  // no character, such as SDLK_F1, says that the key has none.
  char32_t unshifted_character = 0;

  // The key is held and the toolkit repeats it. May stay false: a key that is
  // down already is repeated.
  bool is_auto_repeat = false;
};

// Tells `key`, `code`, location and Windows key code, as browsers do on Linux.
// If only the character without modifiers is known, Shift and Caps Lock are
// applied to the letters from A to Z.
//
// Sources: the codes are those of "UI Events KeyboardEvent code Values", by the
// numbers of linux/input-event-codes.h; the names those of "UI Events
// KeyboardEvent key Values", by the numbers of X11/keysymdef.h; the Windows key
// codes those of winuser.h. A character without a Windows key code of its own,
// such as a Cyrillic letter, has that of the same place on a US keyboard.
rpc::Key DescribeKey(const KeySample& sample);

// The native key code of a key that USB calls by this usage of its keyboard
// page, as SDL_Scancode does; also of media keys, which SDL numbers from 258
// on. 0 if there is none.
std::uint32_t NativeKeyCodeOfUsage(std::uint32_t usage);

// The sum of ModifierFlags for the state of an X11 event or a GdkModifierType:
// Shift, Caps Lock, Control, Alt (Mod1), Num Lock (Mod2), Meta (Mod4 or
// GDK_SUPER_MASK), AltGr (Mod5), as Linux keyboards are set up.
std::uint32_t ModifiersOfX11State(std::uint32_t state);

// Likewise for SDL_GetModState or keysym.mod of SDL. The right Alt counts as
// AltGr, which SDL does not tell from it, so that what it types is entered.
std::uint32_t ModifiersOfSdlState(std::uint32_t state);

}  // namespace orvane::host

#endif  // HOST_KEY_H_
