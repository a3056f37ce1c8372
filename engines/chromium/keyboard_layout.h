// What the keys of the keyboard mean and what they type.

#ifndef ENGINES_CHROMIUM_KEYBOARD_LAYOUT_H_
#define ENGINES_CHROMIUM_KEYBOARD_LAYOUT_H_

#include <xkbcommon/xkbcommon-compose.h>
#include <xkbcommon/xkbcommon.h>

#include <cstdint>
#include <memory>
#include <string>

#include "absl/status/statusor.h"

namespace chromium {

// The layouts of XKB, and the dead keys and Compose sequences of the locale.
class KeyboardLayout {
 public:
  // A key under the modifiers and the group of an X11 state.
  struct Press {
    std::uint32_t key_code = 0;
    std::uint32_t modifiers = 0;
    std::uint32_t group = 0;
  };

  struct Meaning {
    std::uint32_t keysym = 0;
    char32_t character = 0;  // 0 if it stands for none, as are the next.
    char32_t unshifted_character = 0;
  };

  // Of the environment: the layouts that XKB_DEFAULT_LAYOUT names, with
  // XKB_DEFAULT_RULES, _MODEL, _VARIANT and _OPTIONS, an American keyboard
  // without; the sequences of LC_ALL, LC_CTYPE or LANG. Fails if there are no
  // such layouts; without sequences, dead keys type nothing.
  static absl::StatusOr<std::unique_ptr<KeyboardLayout>> Load();

  KeyboardLayout(const KeyboardLayout&) = delete;
  KeyboardLayout& operator=(const KeyboardLayout&) = delete;

  Meaning MeaningOf(const Press& press);

  // What the press types, in UTF-8, control characters included. Remembers it
  // as part of a sequence.
  std::string Type(const Press& press);

 private:
  template <auto unref>
  struct Unref {
    void operator()(auto* object) const { unref(object); }
  };
  using Context = std::unique_ptr<xkb_context, Unref<xkb_context_unref>>;
  using Keymap = std::unique_ptr<xkb_keymap, Unref<xkb_keymap_unref>>;
  using State = std::unique_ptr<xkb_state, Unref<xkb_state_unref>>;
  using Sequences =
      std::unique_ptr<xkb_compose_state, Unref<xkb_compose_state_unref>>;

  KeyboardLayout(Keymap keymap, State state, Sequences sequences);

  void Take(const Press& press);

  const Keymap keymap_;
  const State state_;          // Set anew for each key.
  const Sequences sequences_;  // Null if the locale has none.
};

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_KEYBOARD_LAYOUT_H_
