// Every key with a character, in whole layouts of the X keyboard extension.

#include <xkbcommon/xkbcommon.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "absl/strings/str_split.h"
#include "absl/strings/string_view.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "host/key.h"

namespace orvane::host {
namespace {

using ::testing::ElementsAreArray;

constexpr xkb_keycode_t kShift = 50;
constexpr xkb_keycode_t kAltRight = 108;

class Layout {
 public:
  explicit Layout(const char* name)
      : context_(xkb_context_new(XKB_CONTEXT_NO_FLAGS)) {
    const xkb_rule_names names = {"evdev", "pc105", name, "", ""};
    keymap_ = xkb_keymap_new_from_names(context_, &names,
                                        XKB_KEYMAP_COMPILE_NO_FLAGS);
    EXPECT_NE(keymap_, nullptr) << name;
    state_ = xkb_state_new(keymap_);
  }
  Layout(const Layout&) = delete;
  Layout& operator=(const Layout&) = delete;
  ~Layout() {
    xkb_state_unref(state_);
    xkb_keymap_unref(keymap_);
    xkb_context_unref(context_);
  }

  void Hold(xkb_keycode_t key) {
    xkb_state_update_key(state_, key, XKB_KEY_DOWN);
  }

  rpc::Key Press(xkb_keycode_t key) const {
    KeySample sample;
    sample.native_key_code = key;
    sample.keysym = xkb_state_key_get_one_sym(state_, key);
    sample.character = xkb_keysym_to_utf32(sample.keysym);
    const xkb_keysym_t* unshifted = nullptr;
    if (xkb_keymap_key_get_syms_by_level(keymap_, key, 0, 0, &unshifted) == 1)
      sample.unshifted_character = xkb_keysym_to_utf32(*unshifted);
    return DescribeKey(sample);
  }

 private:
  xkb_context* const context_;
  xkb_keymap* keymap_ = nullptr;
  xkb_state* state_ = nullptr;
};

// From the top left to the bottom right of the keyboard.
std::vector<xkb_keycode_t> Keys() {
  std::vector<xkb_keycode_t> keys = {49};
  const auto add = [&keys](xkb_keycode_t first, xkb_keycode_t last) {
    for (xkb_keycode_t key = first; key <= last; ++key) keys.push_back(key);
  };
  add(10, 21);
  add(24, 35);
  add(38, 48);
  keys.push_back(51);
  keys.push_back(94);
  add(52, 61);
  return keys;
}

std::vector<std::string> KeysOf(const Layout& layout) {
  std::vector<std::string> keys;
  for (const xkb_keycode_t key : Keys())
    keys.push_back(layout.Press(key).key());
  return keys;
}

std::vector<std::string> Words(absl::string_view words) {
  return absl::StrSplit(words, absl::ByAnyChar(" \n"), absl::SkipEmpty());
}

// What is expected of a layout. Windows key codes of letters and digits are
// their characters.
struct Expected {
  const char* unshifted;
  const char* with_shift;
  const char* windows_key_codes;
};

void ExpectLayout(const char* name, const Expected& expected) {
  Layout layout(name);
  EXPECT_THAT(KeysOf(layout), ElementsAreArray(Words(expected.unshifted)));
  std::vector<std::uint32_t> codes;
  for (const std::string& word : Words(expected.windows_key_codes)) {
    codes.push_back(word.size() == 1
                        ? static_cast<unsigned char>(word[0])
                        : static_cast<std::uint32_t>(std::atoi(word.c_str())));
  }
  const auto codes_of_layout = [&layout] {
    std::vector<std::uint32_t> found;
    for (const xkb_keycode_t key : Keys())
      found.push_back(layout.Press(key).windows_key_code());
    return found;
  };
  EXPECT_THAT(codes_of_layout(), ElementsAreArray(codes));
  layout.Hold(kShift);
  EXPECT_THAT(KeysOf(layout), ElementsAreArray(Words(expected.with_shift)));
  // The Windows key code is that of the key, whatever it means with Shift.
  EXPECT_THAT(codes_of_layout(), ElementsAreArray(codes));
}

TEST(KeyLayouts, American) {
  ExpectLayout("us", {R"(` 1 2 3 4 5 6 7 8 9 0 - =
                           q w e r t y u i o p [ ]
                           a s d f g h j k l ; ' \
                         < z x c v b n m , . /)",
                      R"(~ ! @ # $ % ^ & * ( ) _ +
                           Q W E R T Y U I O P { }
                           A S D F G H J K L : " |
                         > Z X C V B N M < > ?)",
                      R"(192 1 2 3 4 5 6 7 8 9 0 189 187
                             Q W E R T Y U I O P 219 221
                             A S D F G H J K L 186 222 220
                         226 Z X C V B N M 188 190 191)"});
}

TEST(KeyLayouts, German) {
  ExpectLayout("de", {R"(Dead 1 2 3 4 5 6 7 8 9 0 ß Dead
                           q w e r t z u i o p ü +
                           a s d f g h j k l ö ä #
                         < y x c v b n m , . -)",
                      R"(° ! " § $ % & / ( ) = ? Dead
                           Q W E R T Z U I O P Ü *
                           A S D F G H J K L Ö Ä '
                         > Y X C V B N M ; : _)",
                      R"(192 1 2 3 4 5 6 7 8 9 0 189 187
                             Q W E R T Z U I O P 219 221
                             A S D F G H J K L 186 222 220
                         226 Y X C V B N M 188 190 189)"});
}

TEST(KeyLayouts, French) {
  ExpectLayout("fr", {R"(² & é " ' ( - è _ ç à ) =
                           a z e r t y u i o p Dead $
                           q s d f g h j k l m ù *
                         < w x c v b n , ; : !)",
                      R"(~ 1 2 3 4 5 6 7 8 9 0 ° +
                           A Z E R T Y U I O P Dead £
                           Q S D F G H J K L M % µ
                         > W X C V B N ? . / §)",
                      R"(192 1 2 3 4 5 6 7 8 9 0 189 187
                             A Z E R T Y U I O P 219 221
                             Q S D F G H J K L M 222 220
                         226 W X C V B N 188 186 190 191)"});
}

TEST(KeyLayouts, Russian) {
  ExpectLayout("ru", {R"(ё 1 2 3 4 5 6 7 8 9 0 - =
                           й ц у к е н г ш щ з х ъ
                           ф ы в а п р о л д ж э \
                         / я ч с м и т ь б ю .)",
                      R"(Ё ! " № ; % : ? * ( ) _ +
                           Й Ц У К Е Н Г Ш Щ З Х Ъ
                           Ф Ы В А П Р О Л Д Ж Э /
                         | Я Ч С М И Т Ь Б Ю ,)",
                      R"(192 1 2 3 4 5 6 7 8 9 0 189 187
                             Q W E R T Y U I O P 219 221
                             A S D F G H J K L 186 222 220
                         191 Z X C V B N M 188 190 190)"});
}

TEST(KeyLayouts, Japanese) {
  ExpectLayout("jp", {R"(ZenkakuHankaku 1 2 3 4 5 6 7 8 9 0 - ^
                           q w e r t y u i o p @ [
                           a s d f g h j k l ; : ]
                         < z x c v b n m , . /)",
                      R"(ZenkakuHankaku ! " # $ % & ' ( ) ~ = ~
                           Q W E R T Y U I O P ` {
                           A S D F G H J K L + * }
                         > Z X C V B N M < > ?)",
                      R"(243 1 2 3 4 5 6 7 8 9 0 189 187
                             Q W E R T Y U I O P 219 219
                             A S D F G H J K L 186 222 221
                         226 Z X C V B N M 188 190 191)"});
}

TEST(KeyLayouts, KeysOfJapaneseKeyboardsOnly) {
  const Layout layout("jp");
  const auto in_words = [&layout](xkb_keycode_t native) {
    const rpc::Key key = layout.Press(native);
    return key.key() + " " + key.code() + " " +
           std::to_string(key.windows_key_code());
  };
  EXPECT_EQ(in_words(97), "\\ IntlRo 220");
  EXPECT_EQ(in_words(132), "\\ IntlYen 220");
  EXPECT_EQ(in_words(100), "Convert Convert 28");
  EXPECT_EQ(in_words(102), "NonConvert NonConvert 29");
  EXPECT_EQ(in_words(101), "HiraganaKatakana KanaMode 21");
  EXPECT_EQ(in_words(66), "Eisu CapsLock 240");
}

TEST(KeyLayouts, AltGrChoosesTheThirdCharacterOfAKey) {
  Layout layout("de");
  EXPECT_EQ(layout.Press(kAltRight).key(), "AltGraph");
  layout.Hold(kAltRight);
  EXPECT_EQ(layout.Press(24).key(), "@");
  EXPECT_EQ(layout.Press(24).windows_key_code(), std::uint32_t{'Q'});
  EXPECT_EQ(layout.Press(26).key(), "€");
}

}  // namespace
}  // namespace orvane::host
