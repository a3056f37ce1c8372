#include "engines/chromium/keyboard_layout.h"

#include <array>
#include <cstdlib>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"

#include "zimbrel/src/core/common/rpc/printable.h"

namespace chromium {
namespace {

// Of most keys and sequences. Longer text is cut by the library.
constexpr std::size_t kMaxTextBytes = 64;

// The locale of what is typed, as setlocale would choose it.
const char* Locale() {
  for (const char* const name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* const value = std::getenv(name);
    if (value != nullptr && *value != '\0') return value;
  }
  return "C";
}

template <typename GetText, typename Object, typename... Key>
std::string TextOf(GetText get, Object* object, Key... key) {
  std::array<char, kMaxTextBytes> text{};
  get(object, key..., text.data(), text.size());
  return text.data();
}

}  // namespace

absl::StatusOr<std::unique_ptr<KeyboardLayout>> KeyboardLayout::Load() {
  const Context context(xkb_context_new(XKB_CONTEXT_NO_FLAGS));
  Keymap keymap(context == nullptr
                    ? nullptr
                    : xkb_keymap_new_from_names(context.get(), nullptr,
                                                XKB_KEYMAP_COMPILE_NO_FLAGS));
  State state(keymap == nullptr ? nullptr : xkb_state_new(keymap.get()));
  if (state == nullptr) {
    const char* const layout = std::getenv("XKB_DEFAULT_LAYOUT");
    return absl::NotFoundError(absl::StrCat(
        "there is no keyboard layout '",
        orvane::Printable(layout == nullptr ? "us" : layout),
        "'; XKB_DEFAULT_LAYOUT in the environment of orvane-chromium names "
        "it"));
  }
  Sequences sequences;
  if (xkb_compose_table* const table = xkb_compose_table_new_from_locale(
          context.get(), Locale(), XKB_COMPOSE_COMPILE_NO_FLAGS)) {
    sequences.reset(xkb_compose_state_new(table, XKB_COMPOSE_STATE_NO_FLAGS));
    xkb_compose_table_unref(table);
  }
  return std::unique_ptr<KeyboardLayout>(new KeyboardLayout(
      std::move(keymap), std::move(state), std::move(sequences)));
}

KeyboardLayout::KeyboardLayout(Keymap keymap, State state, Sequences sequences)
    : keymap_(std::move(keymap)),
      state_(std::move(state)),
      sequences_(std::move(sequences)) {}

void KeyboardLayout::Take(const Press& press) {
  // A keymap begins with the eight modifiers of X11, in their order.
  xkb_state_update_mask(state_.get(), press.modifiers, 0, 0, 0, 0, press.group);
}

KeyboardLayout::Meaning KeyboardLayout::MeaningOf(const Press& press) {
  Take(press);
  Meaning meaning;
  meaning.keysym = xkb_state_key_get_one_sym(state_.get(), press.key_code);
  meaning.character = xkb_keysym_to_utf32(meaning.keysym);
  const xkb_keysym_t* unshifted = nullptr;
  if (xkb_keymap_key_get_syms_by_level(
          keymap_.get(), press.key_code,
          xkb_state_key_get_layout(state_.get(), press.key_code), 0,
          &unshifted) == 1) {
    meaning.unshifted_character = xkb_keysym_to_utf32(*unshifted);
  }
  return meaning;
}

std::string KeyboardLayout::Type(const Press& press) {
  Take(press);
  if (sequences_ != nullptr) {
    xkb_compose_state_feed(sequences_.get(), xkb_state_key_get_one_sym(
                                                 state_.get(), press.key_code));
    switch (xkb_compose_state_get_status(sequences_.get())) {
      case XKB_COMPOSE_NOTHING:
        break;
      case XKB_COMPOSE_COMPOSED:
        return TextOf(xkb_compose_state_get_utf8, sequences_.get());
      case XKB_COMPOSE_COMPOSING:
      case XKB_COMPOSE_CANCELLED:  // As everywhere on X11.
        return "";
    }
  }
  return TextOf(xkb_state_key_get_utf8, state_.get(), press.key_code);
}

}  // namespace chromium
