#include "host/keyboard.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "host/recording_widget_fixture.h"

namespace orvane::host {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t kShift = rpc::MODIFIER_FLAG_SHIFT;
constexpr std::uint32_t kControl = rpc::MODIFIER_FLAG_CONTROL;
constexpr std::uint32_t kCapsLock = rpc::MODIFIER_FLAG_CAPS_LOCK;

KeySample Sample(std::uint32_t native_key_code, std::uint32_t keysym,
                 std::uint32_t modifiers = 0) {
  KeySample sample;
  sample.native_key_code = native_key_code;
  sample.keysym = keysym;
  sample.input.set_modifiers(modifiers);
  return sample;
}
KeySample A(std::uint32_t modifiers = 0) {
  return Sample(38, (modifiers & kShift) != 0 ? 'A' : 'a', modifiers);
}
KeySample Enter() { return Sample(36, 0xFF0D); }
KeySample LeftShift(std::uint32_t modifiers = 0) {
  return Sample(50, 0xFFE1, modifiers);
}
KeySample RightShift(std::uint32_t modifiers = 0) {
  return Sample(62, 0xFFE2, modifiers);
}

class KeyboardTest : public RecordingWidgetFixture {
 protected:
  // What the widget was told since the last time: "press a", "type A", each
  // with the modifiers unless they are 0.
  std::vector<std::string> Keys() {
    loop.RunUntilIdle();
    std::vector<std::string> words;
    for (const auto& request : std::exchange(widget.requests, {})) {
      if (const auto* press =
              dynamic_cast<const rpc::KeyPressRequest*>(request.get())) {
        words.push_back(absl::StrCat(
            press->is_auto_repeat() ? "repeat " : "press ", press->key().key(),
            press->is_composing() ? " composing" : "",
            Modifiers(press->input())));
      } else if (const auto* type =
                     dynamic_cast<const rpc::KeyTypeRequest*>(request.get())) {
        words.push_back(absl::StrCat(
            "type ", type->text() == "\r" ? "Return" : type->text(),
            type->has_key() ? "" : " without a key", Modifiers(type->input())));
      } else if (const auto* release =
                     dynamic_cast<const rpc::KeyReleaseRequest*>(
                         request.get())) {
        words.push_back(absl::StrCat("release ", release->key().key(),
                                     Modifiers(release->input())));
      }
    }
    return words;
  }
  static std::string Modifiers(const rpc::InputInfo& input) {
    return input.modifiers() == 0 ? ""
                                  : absl::StrCat(" with ", input.modifiers());
  }

  Keyboard keyboard{&*calls};
};

TEST_F(KeyboardTest, AKeyIsPressedTypedAndReleased) {
  keyboard.Press(A(), "a");
  keyboard.Release(A());
  EXPECT_THAT(Keys(), ElementsAre("press a", "type a", "release a"));
}

TEST_F(KeyboardTest, AKeyThatIsDownIsRepeated) {
  keyboard.Press(A(), "a");
  keyboard.Press(A(), "a");
  KeySample repeated = A();
  repeated.is_auto_repeat = true;
  keyboard.Release(repeated);  // As Qt does.
  keyboard.Press(repeated, "a");
  keyboard.Release(A());
  EXPECT_THAT(Keys(), ElementsAre("press a", "type a", "repeat a", "type a",
                                  "repeat a", "type a", "release a"));
}

TEST_F(KeyboardTest, AReleaseWithoutItsPressIsIgnored) {
  keyboard.Release(A());
  EXPECT_THAT(Keys(), IsEmpty());
}

TEST_F(KeyboardTest, EnterIsTypedAsACarriageReturn) {
  keyboard.Press(Enter());
  EXPECT_THAT(Keys(), ElementsAre("press Enter", "type Return"));
  keyboard.Press(Enter(), "\n");
  EXPECT_THAT(Keys(), ElementsAre("repeat Enter", "type Return"));
}

// Qt tells those as the key's text.
TEST_F(KeyboardTest, ControlCharactersAreNotTyped) {
  keyboard.Press(Sample(22, 0xFF08), "\b");
  keyboard.Press(Sample(9, 0xFF1B), "\x1b");
  keyboard.Press(Sample(119, 0xFFFF), "\x7f");
  EXPECT_THAT(Keys(),
              ElementsAre("press Backspace", "press Escape", "press Delete"));
}

TEST_F(KeyboardTest, OnlyCharactersOfUtf8AreTyped) {
  KeySample key;
  key.native_key_code = 48;
  keyboard.Press(key, "\xE4");  // As Latin-1 has it.
  keyboard.Commit({}, "a\xFF\xC3\xA4\xC2\x9B\xED\xA0\x80\xC0\x80z\xE2\x82");
  EXPECT_THAT(Keys(),
              ElementsAre("press Unidentified", "type a\u00e4z without a key"));
}

TEST_F(KeyboardTest, ShortcutsEnterNothing) {
  keyboard.Press(A(kControl), "a");
  keyboard.Press(Sample(39, 's', rpc::MODIFIER_FLAG_ALT), "s");
  keyboard.Press(Sample(40, 'd', rpc::MODIFIER_FLAG_META), "d");
  keyboard.Press(Sample(24, '@', rpc::MODIFIER_FLAG_ALT_GRAPH), "@");
  EXPECT_THAT(Keys(),
              ElementsAre("press a with 2", "press s with 1", "press d with 4",
                          "press @ with 128", "type @ with 128"));
}

// GDK and X11 tell the modifiers before the event, Qt and SDL after it.
TEST_F(KeyboardTest, ModifiersMayBeToldBeforeOrAfterTheEvent) {
  keyboard.Press(LeftShift());
  keyboard.Press(A(kShift), "A");
  keyboard.Release(A(kShift));
  keyboard.Release(LeftShift(kShift));
  const std::vector<std::string> story = Keys();
  EXPECT_THAT(
      story, ElementsAre("press Shift with 8", "press A with 8",
                         "type A with 8", "release A with 8", "release Shift"));
  keyboard.Press(LeftShift(kShift));
  keyboard.Press(A(kShift), "A");
  keyboard.Release(A(kShift));
  keyboard.Release(LeftShift());
  EXPECT_EQ(Keys(), story);
}

TEST_F(KeyboardTest, AModifierStaysUntilBothOfItsKeysAreUp) {
  keyboard.Press(LeftShift());
  keyboard.Press(RightShift(kShift));
  keyboard.Release(LeftShift(kShift));
  keyboard.Release(RightShift(kShift));
  EXPECT_THAT(Keys(), ElementsAre("press Shift with 8", "press Shift with 8",
                                  "release Shift with 8", "release Shift"));
}

TEST_F(KeyboardTest, AReleaseIsThatOfThePressWithItsPresentMeaning) {
  keyboard.Press(Sample(23, 0xFF09));
  keyboard.Release(Sample(23, 0xFE20, kShift));
  EXPECT_EQ(Latest<rpc::KeyReleaseRequest>().key().code(), "Tab");
  Keys();
  keyboard.Press(A(kShift), "A");
  keyboard.Release(A());
  EXPECT_THAT(Keys(),
              ElementsAre("press A with 8", "type A with 8", "release a"));
}

TEST_F(KeyboardTest, AKeyWithoutAKeyCodeIsKnownByItsKeysym) {
  keyboard.Press(Sample(0, 'a'), "a");
  keyboard.Press(Sample(0, 'b'), "b");
  keyboard.Release(Sample(0, 'a'));
  EXPECT_THAT(Keys(), ElementsAre("press a", "type a", "press b", "type b",
                                  "release a"));
}

// As SDL tells keys.
TEST_F(KeyboardTest, AKeyWithoutAKeysymIsWhatItEnters) {
  KeySample one;
  one.native_key_code = 10;
  one.unshifted_character = '1';
  one.input.set_modifiers(kShift);
  keyboard.Press(one, "!");
  keyboard.Release(one);
  KeySample dead;
  dead.native_key_code = 48;
  keyboard.Press(dead, "'e");
  EXPECT_THAT(Keys(),
              ElementsAre("press ! with 8", "type ! with 8", "release ! with 8",
                          "press Unidentified", "type 'e"));
}

TEST_F(KeyboardTest, KeysWithNothingButTheirCharacterAreToldApart) {
  KeySample first;
  first.unshifted_character = 'a';
  KeySample second;
  second.unshifted_character = 'b';
  keyboard.Press(first);
  keyboard.Press(second);
  keyboard.Release(first);
  EXPECT_THAT(Keys(), ElementsAre("press a", "press b", "release a"));
}

// Input methods

TEST_F(KeyboardTest, AnInputMethodKeepsTheTextUntilItCommits) {
  keyboard.Press(Sample(57, 'n'), "", true);
  keyboard.Release(Sample(57, 'n'));
  keyboard.Press(Sample(31, 'i'), "i", true);
  keyboard.Release(Sample(31, 'i'));
  keyboard.Press(Enter(), "", true);
  keyboard.Commit({}, "日");
  keyboard.Release(Enter());
  EXPECT_THAT(Keys(),
              ElementsAre("press n composing", "release n", "press i composing",
                          "release i", "press Enter composing",
                          "type 日 without a key", "release Enter"));
}

TEST_F(KeyboardTest, ADeadKeyIsTypedWithTheNextKey) {
  keyboard.Press(Sample(48, 0xFE51), "", true);
  keyboard.Release(Sample(48, 0xFE51));
  keyboard.Press(Sample(26, 'e'), "é");
  EXPECT_THAT(Keys(), ElementsAre("press Dead composing", "release Dead",
                                  "press e", "type é"));
}

TEST_F(KeyboardTest, ACommitOfNothingIsNotTold) {
  keyboard.Commit({}, "");
  keyboard.Commit({}, "\x1b");
  EXPECT_THAT(Keys(), IsEmpty());
}

// The focus is lost

TEST_F(KeyboardTest, AllKeysAreReleasedAndTheirModifiersWithThem) {
  keyboard.Press(LeftShift(kCapsLock));
  keyboard.Press(A(kShift | kCapsLock), "A");
  Keys();
  keyboard.ReleaseAll();
  EXPECT_THAT(Keys(),
              ElementsAre("release A with 24", "release Shift with 16"));
  keyboard.ReleaseAll();
  keyboard.Release(A());
  EXPECT_THAT(Keys(), IsEmpty());
}

}  // namespace
}  // namespace orvane::host
