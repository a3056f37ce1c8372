#include "host/key.h"

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <string>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"
#include "absl/strings/strip.h"

namespace orvane::host {
namespace {

// X11 has added 8 to evdev's numbers since before there were more than 255.
constexpr std::uint32_t kX11Offset = 8;

struct Place {
  std::uint16_t evdev;
  std::uint16_t usage;  // On USB's keyboard page; from 258 on SDL's own; or 0.
  std::uint16_t windows_key_code;  // On a US keyboard, Num Lock on.
  absl::string_view code;
};

constexpr Place kPlaces[] = {
    {1, 41, 27, "Escape"},
    {2, 30, 49, "Digit1"},
    {3, 31, 50, "Digit2"},
    {4, 32, 51, "Digit3"},
    {5, 33, 52, "Digit4"},
    {6, 34, 53, "Digit5"},
    {7, 35, 54, "Digit6"},
    {8, 36, 55, "Digit7"},
    {9, 37, 56, "Digit8"},
    {10, 38, 57, "Digit9"},
    {11, 39, 48, "Digit0"},
    {12, 45, 189, "Minus"},
    {13, 46, 187, "Equal"},
    {14, 42, 8, "Backspace"},
    {15, 43, 9, "Tab"},
    {16, 20, 81, "KeyQ"},
    {17, 26, 87, "KeyW"},
    {18, 8, 69, "KeyE"},
    {19, 21, 82, "KeyR"},
    {20, 23, 84, "KeyT"},
    {21, 28, 89, "KeyY"},
    {22, 24, 85, "KeyU"},
    {23, 12, 73, "KeyI"},
    {24, 18, 79, "KeyO"},
    {25, 19, 80, "KeyP"},
    {26, 47, 219, "BracketLeft"},
    {27, 48, 221, "BracketRight"},
    {28, 40, 13, "Enter"},
    {29, 224, 17, "ControlLeft"},
    {30, 4, 65, "KeyA"},
    {31, 22, 83, "KeyS"},
    {32, 7, 68, "KeyD"},
    {33, 9, 70, "KeyF"},
    {34, 10, 71, "KeyG"},
    {35, 11, 72, "KeyH"},
    {36, 13, 74, "KeyJ"},
    {37, 14, 75, "KeyK"},
    {38, 15, 76, "KeyL"},
    {39, 51, 186, "Semicolon"},
    {40, 52, 222, "Quote"},
    {41, 53, 192, "Backquote"},
    {42, 225, 16, "ShiftLeft"},
    {43, 49, 220, "Backslash"},
    {44, 29, 90, "KeyZ"},
    {45, 27, 88, "KeyX"},
    {46, 6, 67, "KeyC"},
    {47, 25, 86, "KeyV"},
    {48, 5, 66, "KeyB"},
    {49, 17, 78, "KeyN"},
    {50, 16, 77, "KeyM"},
    {51, 54, 188, "Comma"},
    {52, 55, 190, "Period"},
    {53, 56, 191, "Slash"},
    {54, 229, 16, "ShiftRight"},
    {55, 85, 106, "NumpadMultiply"},
    {56, 226, 18, "AltLeft"},
    {57, 44, 32, "Space"},
    {58, 57, 20, "CapsLock"},
    {59, 58, 112, "F1"},
    {60, 59, 113, "F2"},
    {61, 60, 114, "F3"},
    {62, 61, 115, "F4"},
    {63, 62, 116, "F5"},
    {64, 63, 117, "F6"},
    {65, 64, 118, "F7"},
    {66, 65, 119, "F8"},
    {67, 66, 120, "F9"},
    {68, 67, 121, "F10"},
    {69, 83, 144, "NumLock"},
    {70, 71, 145, "ScrollLock"},
    {71, 95, 103, "Numpad7"},
    {72, 96, 104, "Numpad8"},
    {73, 97, 105, "Numpad9"},
    {74, 86, 109, "NumpadSubtract"},
    {75, 92, 100, "Numpad4"},
    {76, 93, 101, "Numpad5"},
    {77, 94, 102, "Numpad6"},
    {78, 87, 107, "NumpadAdd"},
    {79, 89, 97, "Numpad1"},
    {80, 90, 98, "Numpad2"},
    {81, 91, 99, "Numpad3"},
    {82, 98, 96, "Numpad0"},
    {83, 99, 110, "NumpadDecimal"},
    {85, 148, 243, "Lang5"},
    {86, 100, 226, "IntlBackslash"},
    {87, 68, 122, "F11"},
    {88, 69, 123, "F12"},
    {89, 135, 226, "IntlRo"},
    {90, 146, 241, "Lang3"},
    {91, 147, 242, "Lang4"},
    {92, 138, 28, "Convert"},
    {93, 136, 21, "KanaMode"},
    {94, 139, 29, "NonConvert"},
    {96, 88, 13, "NumpadEnter"},
    {97, 228, 17, "ControlRight"},
    {98, 84, 111, "NumpadDivide"},
    {99, 70, 44, "PrintScreen"},
    {100, 230, 18, "AltRight"},
    {102, 74, 36, "Home"},
    {103, 82, 38, "ArrowUp"},
    {104, 75, 33, "PageUp"},
    {105, 80, 37, "ArrowLeft"},
    {106, 79, 39, "ArrowRight"},
    {107, 77, 35, "End"},
    {108, 81, 40, "ArrowDown"},
    {109, 78, 34, "PageDown"},
    {110, 73, 45, "Insert"},
    {111, 76, 46, "Delete"},
    {113, 127, 173, "AudioVolumeMute"},
    {114, 129, 174, "AudioVolumeDown"},
    {115, 128, 175, "AudioVolumeUp"},
    {116, 102, 255, "Power"},
    {117, 103, 187, "NumpadEqual"},
    {119, 72, 19, "Pause"},
    {121, 133, 108, "NumpadComma"},
    {122, 144, 21, "Lang1"},
    {123, 145, 25, "Lang2"},
    {124, 137, 220, "IntlYen"},
    {125, 227, 91, "MetaLeft"},
    {126, 231, 92, "MetaRight"},
    {127, 101, 93, "ContextMenu"},
    {129, 121, 255, "Again"},
    {130, 118, 255, "Props"},
    {131, 122, 255, "Undo"},
    {133, 124, 255, "Copy"},
    {134, 116, 255, "Open"},
    {135, 125, 255, "Paste"},
    {136, 126, 255, "Find"},
    {137, 123, 255, "Cut"},
    {138, 117, 47, "Help"},
    {142, 282, 95, "Sleep"},
    {143, 0, 255, "WakeUp"},
    {155, 265, 180, "LaunchMail"},
    {158, 270, 166, "BrowserBack"},
    {159, 271, 167, "BrowserForward"},
    {161, 281, 255, "Eject"},
    {163, 258, 176, "MediaTrackNext"},
    {164, 261, 179, "MediaPlayPause"},
    {165, 259, 177, "MediaTrackPrevious"},
    {166, 260, 178, "MediaStop"},
    {172, 269, 172, "BrowserHome"},
    {173, 273, 168, "BrowserRefresh"},
    {179, 182, 255, "NumpadParenLeft"},
    {180, 183, 255, "NumpadParenRight"},
    {183, 104, 124, "F13"},
    {184, 105, 125, "F14"},
    {185, 106, 126, "F15"},
    {186, 107, 127, "F16"},
    {187, 108, 128, "F17"},
    {188, 109, 129, "F18"},
    {189, 110, 130, "F19"},
    {190, 111, 131, "F20"},
    {191, 112, 132, "F21"},
    {192, 113, 133, "F22"},
    {193, 114, 134, "F23"},
    {194, 115, 135, "F24"},
    {217, 268, 170, "BrowserSearch"},
};

struct Name {
  std::uint32_t keysym;
  std::uint16_t windows_key_code;  // 0: that of its place.
  absl::string_view key;
};

// Keysyms that do not stand for a character.
constexpr Name kNames[] = {
    {0xFF08, 8, "Backspace"},
    {0xFF09, 9, "Tab"},
    {0xFE20, 9, "Tab"},  // With Shift.
    {0xFF0B, 12, "Clear"},
    {0xFF0D, 13, "Enter"},
    {0xFF8D, 13, "Enter"},
    {0xFF13, 19, "Pause"},
    {0xFF6B, 19, "Pause"},  // With Control.
    {0xFF14, 145, "ScrollLock"},
    {0xFF15, 44, "PrintScreen"},  // With Alt.
    {0xFF61, 44, "PrintScreen"},
    {0xFF1B, 27, "Escape"},
    {0xFF20, 0, "Compose"},
    {0xFF21, 25, "KanjiMode"},
    {0xFF22, 29, "NonConvert"},
    {0xFF23, 28, "Convert"},
    {0xFF24, 0, "Romaji"},
    {0xFF25, 242, "Hiragana"},
    {0xFF26, 241, "Katakana"},
    {0xFF27, 0, "HiraganaKatakana"},
    {0xFF28, 0, "Zenkaku"},
    {0xFF29, 0, "Hankaku"},
    {0xFF2A, 243, "ZenkakuHankaku"},
    {0xFF2D, 21, "KanaMode"},
    {0xFF30, 240, "Eisu"},
    {0xFF31, 21, "HangulMode"},
    {0xFF34, 25, "HanjaMode"},
    {0xFF50, 36, "Home"},
    {0xFF51, 37, "ArrowLeft"},
    {0xFF52, 38, "ArrowUp"},
    {0xFF53, 39, "ArrowRight"},
    {0xFF54, 40, "ArrowDown"},
    {0xFF55, 33, "PageUp"},
    {0xFF56, 34, "PageDown"},
    {0xFF57, 35, "End"},
    {0xFF60, 41, "Select"},
    {0xFF62, 43, "Execute"},
    {0xFF63, 45, "Insert"},
    {0xFF65, 0, "Undo"},
    {0xFF66, 0, "Redo"},
    {0xFF67, 93, "ContextMenu"},
    {0xFF68, 0, "Find"},
    {0xFF69, 0, "Cancel"},
    {0xFF6A, 47, "Help"},
    {0xFF7E, 0, "ModeChange"},
    {0xFF7F, 144, "NumLock"},
    {0xFF95, 36, "Home"},
    {0xFF96, 37, "ArrowLeft"},
    {0xFF97, 38, "ArrowUp"},
    {0xFF98, 39, "ArrowRight"},
    {0xFF99, 40, "ArrowDown"},
    {0xFF9A, 33, "PageUp"},
    {0xFF9B, 34, "PageDown"},
    {0xFF9C, 35, "End"},
    {0xFF9D, 12, "Clear"},  // Numpad5 without Num Lock.
    {0xFF9E, 45, "Insert"},
    {0xFF9F, 46, "Delete"},
    {0xFFE1, 16, "Shift"},
    {0xFFE2, 16, "Shift"},
    {0xFFE3, 17, "Control"},
    {0xFFE4, 17, "Control"},
    {0xFFE5, 20, "CapsLock"},
    {0xFFE7, 91, "Meta"},
    {0xFFE8, 92, "Meta"},
    {0xFFE9, 18, "Alt"},
    {0xFFEA, 18, "Alt"},
    {0xFFEB, 91, "Meta"},
    {0xFFEC, 92, "Meta"},
    {0xFFFF, 46, "Delete"},
    {0xFE03, 225, "AltGraph"},
    {0x1008FF11, 174, "AudioVolumeDown"},
    {0x1008FF12, 173, "AudioVolumeMute"},
    {0x1008FF13, 175, "AudioVolumeUp"},
    {0x1008FF14, 179, "MediaPlayPause"},
    {0x1008FF15, 178, "MediaStop"},
    {0x1008FF16, 177, "MediaTrackPrevious"},
    {0x1008FF17, 176, "MediaTrackNext"},
    {0x1008FF18, 172, "BrowserHome"},
    {0x1008FF19, 180, "LaunchMail"},
    {0x1008FF1B, 170, "BrowserSearch"},
    {0x1008FF26, 166, "BrowserBack"},
    {0x1008FF27, 167, "BrowserForward"},
    {0x1008FF28, 169, "BrowserStop"},
    {0x1008FF29, 168, "BrowserRefresh"},
    {0x1008FF2A, 0, "Power"},
    {0x1008FF2B, 0, "WakeUp"},
    {0x1008FF2C, 0, "Eject"},
    {0x1008FF2F, 95, "Standby"},
    {0x1008FF57, 0, "Copy"},
    {0x1008FF58, 0, "Cut"},
    {0x1008FF6B, 0, "Open"},
    {0x1008FF6D, 0, "Paste"},
};

const Place* PlaceOf(std::uint32_t native_key_code) {
  const auto* const place = std::find_if(
      std::begin(kPlaces), std::end(kPlaces), [&](const Place& candidate) {
        return candidate.evdev + kX11Offset == native_key_code;
      });
  return place == std::end(kPlaces) ? nullptr : place;
}

const Name* NameOf(std::uint32_t keysym) {
  const auto* const name = std::find_if(
      std::begin(kNames), std::end(kNames),
      [&](const Name& candidate) { return candidate.keysym == keysym; });
  return name == std::end(kNames) ? nullptr : name;
}

bool IsPrintable(char32_t character) {
  return character >= 0x20 && (character < 0x7F || character >= 0xA0) &&
         (character < 0xD800 || character > 0xDFFF) && character <= 0x10FFFF;
}

std::string Utf8(char32_t character) {
  const auto tail = [character](int shift) {
    return static_cast<char>(0x80 | ((character >> shift) & 0x3F));
  };
  if (character < 0x80) return {static_cast<char>(character)};
  if (character < 0x800)
    return {static_cast<char>(0xC0 | (character >> 6)), tail(0)};
  if (character < 0x10000)
    return {static_cast<char>(0xE0 | (character >> 12)), tail(6), tail(0)};
  return {static_cast<char>(0xF0 | (character >> 18)), tail(12), tail(6),
          tail(0)};
}

// The keysyms from F1 to F35 follow each other.
std::uint32_t FunctionKey(std::uint32_t keysym) {
  return keysym >= 0xFFBE && keysym <= 0xFFE0 ? keysym - 0xFFBD : 0;
}

bool IsDead(std::uint32_t keysym) {
  return keysym >= 0xFE50 && keysym <= 0xFE93;
}

// The key at a place of the number pad.
std::string NumpadKey(absl::string_view code, bool is_num_lock_on) {
  struct Keys {
    absl::string_view code;
    absl::string_view with_num_lock;
    absl::string_view without;
  };
  static constexpr Keys kKeys[] = {
      {"Numpad0", "0", "Insert"},       {"Numpad1", "1", "End"},
      {"Numpad2", "2", "ArrowDown"},    {"Numpad3", "3", "PageDown"},
      {"Numpad4", "4", "ArrowLeft"},    {"Numpad5", "5", "Clear"},
      {"Numpad6", "6", "ArrowRight"},   {"Numpad7", "7", "Home"},
      {"Numpad8", "8", "ArrowUp"},      {"Numpad9", "9", "PageUp"},
      {"NumpadDecimal", ".", "Delete"}, {"NumpadEnter", "Enter", "Enter"},
      {"NumpadAdd", "+", "+"},          {"NumpadSubtract", "-", "-"},
      {"NumpadMultiply", "*", "*"},     {"NumpadDivide", "/", "/"},
      {"NumpadEqual", "=", "="},        {"NumpadComma", ",", ","},
      {"NumpadParenLeft", "(", "("},    {"NumpadParenRight", ")", ")"}};
  for (const Keys& keys : kKeys) {
    if (keys.code == code)
      return std::string(is_num_lock_on ? keys.with_num_lock : keys.without);
  }
  return "Unidentified";
}

// The key at a place that has no character, for toolkits that do not tell a
// keysym.
std::string KeyAt(absl::string_view code, const KeySample& sample) {
  const std::uint32_t modifiers = sample.input.modifiers();
  if (code == "AltRight" && (modifiers & rpc::MODIFIER_FLAG_ALT_GRAPH) != 0)
    return "AltGraph";
  for (const absl::string_view pair : {"Shift", "Control", "Alt", "Meta"}) {
    if (absl::StartsWith(code, pair)) return std::string(pair);
  }
  if (absl::StartsWith(code, "Numpad"))
    return NumpadKey(code, (modifiers & rpc::MODIFIER_FLAG_NUM_LOCK) != 0);
  if (code == "Lang1") return "HangulMode";
  if (code == "Lang2") return "HanjaMode";
  if (code == "Lang3") return "Katakana";
  if (code == "Lang4") return "Hiragana";
  if (code == "Lang5") return "ZenkakuHankaku";
  if (code == "Sleep") return "Standby";
  // Those named after their character on a US keyboard.
  for (const absl::string_view printed :
       {"Key", "Digit", "Bracket", "Intl", "Space", "Minus", "Equal",
        "Semicolon", "Quote", "Backquote", "Backslash", "Comma", "Period",
        "Slash"}) {
    if (absl::StartsWith(code, printed))
      return sample.unshifted_character != 0 ? "Dead" : "Unidentified";
  }
  return code.empty() ? "Unidentified" : std::string(code);
}

// Keysyms that are characters by their number alone: Latin-1, Unicode, and the
// number pad.
char32_t CharacterOf(std::uint32_t keysym) {
  if (keysym <= 0xFF) return keysym;
  if ((keysym & 0xFF000000) == 0x01000000) return keysym & 0xFFFFFF;
  if (keysym >= 0xFFAA && keysym <= 0xFFBD) return keysym - 0xFF80;
  return 0;
}

// The character that a key without modifiers has under those in effect, as far
// as it does not depend on the layout.
char32_t UnderModifiers(char32_t unshifted, std::uint32_t modifiers) {
  const bool is_shifted = (modifiers & rpc::MODIFIER_FLAG_SHIFT) != 0;
  const bool is_locked = (modifiers & rpc::MODIFIER_FLAG_CAPS_LOCK) != 0;
  if (unshifted < 'a' || unshifted > 'z' || is_shifted == is_locked)
    return unshifted;
  return unshifted - 'a' + 'A';
}

std::string KeyOf(const KeySample& sample, const Place* place) {
  const absl::string_view code = place == nullptr ? "" : place->code;
  if (const std::uint32_t number = FunctionKey(sample.keysym))
    return absl::StrCat("F", number);
  if (IsDead(sample.keysym)) return "Dead";
  if (const Name* const name = NameOf(sample.keysym)) {
    // With Shift, X11 calls the key Meta.
    const bool is_alt = name->key == "Meta" && absl::StartsWith(code, "Alt");
    return std::string(is_alt ? "Alt" : name->key);
  }
  char32_t character = sample.character;
  if (character == 0) {
    character = sample.keysym != 0 ? CharacterOf(sample.keysym)
                                   : UnderModifiers(sample.unshifted_character,
                                                    sample.input.modifiers());
  }
  if (IsPrintable(character)) return Utf8(character);
  if (sample.keysym != 0) return "Unidentified";
  return KeyAt(code, sample);
}

std::uint32_t PunctuationCode(char32_t character) {
  switch (character) {
    case ';':
      return 186;
    case '=':
      return 187;
    case ',':
      return 188;
    case '-':
      return 189;
    case '.':
      return 190;
    case '/':
      return 191;
    case '`':
      return 192;
    case '[':
      return 219;
    case '\\':
      return 220;
    case ']':
      return 221;
    case '\'':
      return 222;
    default:
      return 0;
  }
}

std::uint32_t WindowsKeyCodeOf(const KeySample& sample, const Place* place,
                               absl::string_view key) {
  if (const std::uint32_t number = FunctionKey(sample.keysym);
      number > 0 && number <= 24) {
    return 111 + number;
  }
  if (key == "Alt") return 18;
  if (const Name* const name = NameOf(sample.keysym);
      name != nullptr && name->windows_key_code != 0) {
    return name->windows_key_code;
  }
  // Of a key without a keysym.
  if (const auto* const name = std::find_if(
          std::begin(kNames), std::end(kNames),
          [key](const Name& candidate) { return candidate.key == key; });
      sample.keysym == 0 && name != std::end(kNames) && key != "Meta" &&
      name->windows_key_code != 0) {
    return name->windows_key_code;
  }
  // The operators and digits of the number pad, in both orders of numbers.
  if (place == nullptr && sample.keysym >= 0xFFAA && sample.keysym <= 0xFFAF)
    return 106 + (sample.keysym - 0xFFAA);
  if (place == nullptr && sample.keysym >= 0xFFB0 && sample.keysym <= 0xFFB9)
    return 96 + (sample.keysym - 0xFFB0);
  const absl::string_view code = place == nullptr ? "" : place->code;
  if (!absl::StartsWith(code, "Numpad")) {
    char32_t unshifted = sample.unshifted_character;
    if (unshifted == 0 && key.size() == 1)
      unshifted = static_cast<unsigned char>(key[0]);
    if (unshifted >= 'a' && unshifted <= 'z') return unshifted - 'a' + 'A';
    if ((unshifted >= 'A' && unshifted <= 'Z') ||
        (unshifted >= '0' && unshifted <= '9')) {
      return unshifted;
    }
    if (absl::StartsWith(code, "Digit")) return place->windows_key_code;
    if (const std::uint32_t punctuation = PunctuationCode(unshifted))
      return punctuation;
    if (unshifted == ' ') return 32;
  }
  return place == nullptr ? 0 : place->windows_key_code;
}

rpc::KeyLocation LocationOf(std::uint32_t keysym, absl::string_view code) {
  if (absl::StartsWith(code, "Numpad")) return rpc::KEY_LOCATION_NUMPAD;
  if (code.empty()) {
    if (keysym >= 0xFF80 && keysym <= 0xFFBD) return rpc::KEY_LOCATION_NUMPAD;
    if (keysym >= 0xFFE1 && keysym <= 0xFFEC && keysym != 0xFFE5 &&
        keysym != 0xFFE6) {
      // Left and right alternate; the pair of locks does not shift that.
      return keysym % 2 != 0 ? rpc::KEY_LOCATION_LEFT : rpc::KEY_LOCATION_RIGHT;
    }
    return rpc::KEY_LOCATION_STANDARD;
  }
  for (const absl::string_view pair : {"Shift", "Control", "Alt", "Meta"}) {
    absl::string_view side = code;
    if (!absl::ConsumePrefix(&side, pair)) continue;
    return side == "Left" ? rpc::KEY_LOCATION_LEFT : rpc::KEY_LOCATION_RIGHT;
  }
  return rpc::KEY_LOCATION_STANDARD;
}

struct ModifierBits {
  std::uint32_t mask;
  rpc::ModifierFlag flag;
};

std::uint32_t Translate(std::uint32_t state,
                        std::initializer_list<ModifierBits> all) {
  std::uint32_t modifiers = 0;
  for (const ModifierBits& bits : all) {
    if ((state & bits.mask) != 0) modifiers |= bits.flag;
  }
  return modifiers;
}

}  // namespace

rpc::Key DescribeKey(const KeySample& sample) {
  const Place* const place = PlaceOf(sample.native_key_code);
  rpc::Key key;
  key.set_key(KeyOf(sample, place));
  if (place != nullptr) key.set_code(std::string(place->code));
  key.set_windows_key_code(WindowsKeyCodeOf(sample, place, key.key()));
  if (sample.native_key_code != 0)
    key.set_native_key_code(sample.native_key_code);
  key.set_location(LocationOf(sample.keysym, key.code()));
  return key;
}

std::uint32_t NativeKeyCodeOfUsage(std::uint32_t usage) {
  // The key beside Enter on keyboards that are not American.
  if (usage == 50) usage = 49;
  const auto* const place = std::find_if(
      std::begin(kPlaces), std::end(kPlaces), [usage](const Place& candidate) {
        return usage != 0 && candidate.usage == usage;
      });
  return place == std::end(kPlaces) ? 0 : place->evdev + kX11Offset;
}

std::uint32_t ModifiersOfX11State(std::uint32_t state) {
  return Translate(state, {{1 << 0, rpc::MODIFIER_FLAG_SHIFT},
                           {1 << 1, rpc::MODIFIER_FLAG_CAPS_LOCK},
                           {1 << 2, rpc::MODIFIER_FLAG_CONTROL},
                           {1 << 3, rpc::MODIFIER_FLAG_ALT},
                           {1 << 4, rpc::MODIFIER_FLAG_NUM_LOCK},
                           {1 << 6, rpc::MODIFIER_FLAG_META},
                           {1 << 7, rpc::MODIFIER_FLAG_ALT_GRAPH},
                           {1 << 26, rpc::MODIFIER_FLAG_META}});
}

std::uint32_t ModifiersOfSdlState(std::uint32_t state) {
  return Translate(state, {{0x0003, rpc::MODIFIER_FLAG_SHIFT},
                           {0x00C0, rpc::MODIFIER_FLAG_CONTROL},
                           {0x0100, rpc::MODIFIER_FLAG_ALT},
                           {0x0200, rpc::MODIFIER_FLAG_ALT_GRAPH},
                           {0x0C00, rpc::MODIFIER_FLAG_META},
                           {0x1000, rpc::MODIFIER_FLAG_NUM_LOCK},
                           {0x2000, rpc::MODIFIER_FLAG_CAPS_LOCK},
                           {0x4000, rpc::MODIFIER_FLAG_ALT_GRAPH},
                           {0x8000, rpc::MODIFIER_FLAG_SCROLL_LOCK}});
}

}  // namespace orvane::host
