#include "host/key.h"

#include <cstdint>
#include <string>

#include "absl/strings/str_cat.h"
#include "gtest/gtest.h"

namespace orvane::host {
namespace {

constexpr std::uint32_t kAltLeft = 64;
constexpr std::uint32_t kKeyA = 38;
constexpr std::uint32_t kNumpad7 = 79;

// "key, code, Windows key code, location".
std::string InWords(const KeySample& sample) {
  const rpc::Key key = DescribeKey(sample);
  return absl::StrCat(key.key(), ", ", key.code(), ", ", key.windows_key_code(),
                      ", ", rpc::KeyLocation_Name(key.location()).substr(13));
}

std::string FromKeysym(std::uint32_t native_key_code, std::uint32_t keysym) {
  KeySample sample;
  sample.native_key_code = native_key_code;
  sample.keysym = keysym;
  return InWords(sample);
}

// As SDL tells it.
std::string FromUsage(std::uint32_t usage, char32_t unshifted_character = 0,
                      std::uint32_t modifiers = 0) {
  KeySample sample;
  sample.native_key_code = NativeKeyCodeOfUsage(usage);
  sample.unshifted_character = unshifted_character;
  sample.input.set_modifiers(modifiers);
  return InWords(sample);
}

TEST(Key, ALatinCharacterNeedsOnlyItsKeysym) {
  EXPECT_EQ(FromKeysym(kKeyA, 'a'), "a, KeyA, 65, STANDARD");
  EXPECT_EQ(FromKeysym(kKeyA, 'A'), "A, KeyA, 65, STANDARD");
  EXPECT_EQ(FromKeysym(kKeyA, 0xE4), "\u00e4, KeyA, 65, STANDARD");
  EXPECT_EQ(FromKeysym(kKeyA, 0x010020AC), "\u20ac, KeyA, 65, STANDARD");
  EXPECT_EQ(FromKeysym(kKeyA, 0x0101F600), "\U0001F600, KeyA, 65, STANDARD");
}

TEST(Key, OthersNeedTheCharacterThatTheToolkitTells) {
  KeySample sample;
  sample.native_key_code = kKeyA;
  sample.keysym = 0x06C6;  // A keysym older than Unicode.
  EXPECT_EQ(InWords(sample), "Unidentified, KeyA, 65, STANDARD");
  sample.character = U'\u0444';
  EXPECT_EQ(InWords(sample), "\u0444, KeyA, 65, STANDARD");
}

TEST(Key, TheTwoOfAPairDifferInCodeAndLocation) {
  EXPECT_EQ(FromKeysym(50, 0xFFE1), "Shift, ShiftLeft, 16, LEFT");
  EXPECT_EQ(FromKeysym(62, 0xFFE2), "Shift, ShiftRight, 16, RIGHT");
  EXPECT_EQ(FromKeysym(37, 0xFFE3), "Control, ControlLeft, 17, LEFT");
  EXPECT_EQ(FromKeysym(105, 0xFFE4), "Control, ControlRight, 17, RIGHT");
  EXPECT_EQ(FromKeysym(133, 0xFFEB), "Meta, MetaLeft, 91, LEFT");
  EXPECT_EQ(FromKeysym(134, 0xFFEC), "Meta, MetaRight, 92, RIGHT");
}

TEST(Key, AltIsAltAlsoWithShift) {
  EXPECT_EQ(FromKeysym(kAltLeft, 0xFFE9), "Alt, AltLeft, 18, LEFT");
  EXPECT_EQ(FromKeysym(kAltLeft, 0xFFE7), "Alt, AltLeft, 18, LEFT");
}

TEST(Key, TheRightAltOfManyLayoutsIsAltGraph) {
  EXPECT_EQ(FromKeysym(108, 0xFE03), "AltGraph, AltRight, 225, RIGHT");
}

TEST(Key, TheNumberPadFollowsNumLock) {
  EXPECT_EQ(FromKeysym(kNumpad7, 0xFFB7), "7, Numpad7, 103, NUMPAD");
  EXPECT_EQ(FromKeysym(kNumpad7, 0xFF95), "Home, Numpad7, 36, NUMPAD");
  EXPECT_EQ(FromKeysym(84, 0xFF9D), "Clear, Numpad5, 12, NUMPAD");
  EXPECT_EQ(FromKeysym(104, 0xFF8D), "Enter, NumpadEnter, 13, NUMPAD");
  EXPECT_EQ(FromKeysym(63, 0xFFAA), "*, NumpadMultiply, 106, NUMPAD");
  EXPECT_EQ(FromKeysym(91, 0xFFAE), "., NumpadDecimal, 110, NUMPAD");
  EXPECT_EQ(FromKeysym(91, 0xFFAC), ",, NumpadDecimal, 110, NUMPAD");
}

TEST(Key, NamedKeysHaveTheirNames) {
  EXPECT_EQ(FromKeysym(9, 0xFF1B), "Escape, Escape, 27, STANDARD");
  EXPECT_EQ(FromKeysym(23, 0xFE20), "Tab, Tab, 9, STANDARD");
  EXPECT_EQ(FromKeysym(67, 0xFFBE), "F1, F1, 112, STANDARD");
  EXPECT_EQ(FromKeysym(202, 0xFFD5), "F24, F24, 135, STANDARD");
  EXPECT_EQ(FromKeysym(135, 0xFF67), "ContextMenu, ContextMenu, 93, STANDARD");
  EXPECT_EQ(FromKeysym(21, 0xFE51), "Dead, Equal, 187, STANDARD");
  EXPECT_EQ(FromKeysym(122, 0x1008FF11),
            "AudioVolumeDown, AudioVolumeDown, 174, STANDARD");
}

TEST(Key, AKeyWithoutAPlaceIsToldByItsKeysym) {
  EXPECT_EQ(FromKeysym(0, 0xFFE4), "Control, , 17, RIGHT");
  EXPECT_EQ(FromKeysym(0, 0xFFB7), "7, , 103, NUMPAD");
  EXPECT_EQ(FromKeysym(0, 0xFFAF), "/, , 111, NUMPAD");
  EXPECT_EQ(FromKeysym(0, 'q'), "q, , 81, STANDARD");
  EXPECT_EQ(FromKeysym(0, 0xFE11), "Unidentified, , 0, STANDARD");
}

TEST(Key, AKeyWithoutAKeysymIsToldByItsPlace) {
  EXPECT_EQ(FromUsage(4, 'a'), "a, KeyA, 65, STANDARD");
  EXPECT_EQ(FromUsage(40, '\r'), "Enter, Enter, 13, STANDARD");
  EXPECT_EQ(FromUsage(42, '\b'), "Backspace, Backspace, 8, STANDARD");
  EXPECT_EQ(FromUsage(44, ' '), " , Space, 32, STANDARD");
  EXPECT_EQ(FromUsage(58), "F1, F1, 112, STANDARD");
  EXPECT_EQ(FromUsage(229), "Shift, ShiftRight, 16, RIGHT");
  EXPECT_EQ(FromUsage(231), "Meta, MetaRight, 92, RIGHT");
  EXPECT_EQ(FromUsage(95), "Home, Numpad7, 36, NUMPAD");
  EXPECT_EQ(FromUsage(95, 0, rpc::MODIFIER_FLAG_NUM_LOCK),
            "7, Numpad7, 103, NUMPAD");
  EXPECT_EQ(FromUsage(87), "+, NumpadAdd, 107, NUMPAD");
  EXPECT_EQ(FromUsage(4), "Unidentified, KeyA, 65, STANDARD");
}

// SDL tells the character without modifiers alone.
TEST(Key, ShiftAndCapsLockMakeALetterACapital) {
  constexpr std::uint32_t kShift = rpc::MODIFIER_FLAG_SHIFT;
  constexpr std::uint32_t kCapsLock = rpc::MODIFIER_FLAG_CAPS_LOCK;
  EXPECT_EQ(FromUsage(4, 'a', kShift), "A, KeyA, 65, STANDARD");
  EXPECT_EQ(FromUsage(4, 'a', kCapsLock), "A, KeyA, 65, STANDARD");
  EXPECT_EQ(FromUsage(4, 'a', kShift | kCapsLock), "a, KeyA, 65, STANDARD");
  EXPECT_EQ(FromUsage(30, '1', kShift), "1, Digit1, 49, STANDARD");
  EXPECT_EQ(FromUsage(52, 0xE4, kShift), "\u00e4, Quote, 222, STANDARD");
}

TEST(Key, ACharacterThatIsNoneDoesNotCount) {
  constexpr char32_t kSdlF1 = 0x4000003A;
  EXPECT_EQ(FromUsage(58, kSdlF1), "F1, F1, 112, STANDARD");
  EXPECT_EQ(FromUsage(3, 0xD800), "Unidentified, , 0, STANDARD");
}

TEST(Key, APrintedKeyWithoutACharacterIsDead) {
  constexpr char32_t kSdlNoCharacter = 0x40000000;
  EXPECT_EQ(FromUsage(46, kSdlNoCharacter), "Dead, Equal, 187, STANDARD");
}

TEST(Key, TheRightAltIsAltGraphIfTheModifiersSaySo) {
  EXPECT_EQ(FromUsage(230), "Alt, AltRight, 18, RIGHT");
  EXPECT_EQ(FromUsage(230, 0, rpc::MODIFIER_FLAG_ALT_GRAPH),
            "AltGraph, AltRight, 225, RIGHT");
}

TEST(Key, MediaKeysAreKnownBySdlsNumbers) {
  EXPECT_EQ(FromUsage(261), "MediaPlayPause, MediaPlayPause, 179, STANDARD");
  EXPECT_EQ(FromUsage(270), "BrowserBack, BrowserBack, 166, STANDARD");
}

TEST(Key, UsagesOfUsbHaveANativeKeyCode) {
  EXPECT_EQ(NativeKeyCodeOfUsage(4), kKeyA);
  EXPECT_EQ(NativeKeyCodeOfUsage(50), NativeKeyCodeOfUsage(49));
  EXPECT_EQ(NativeKeyCodeOfUsage(0), 0u);
  EXPECT_EQ(NativeKeyCodeOfUsage(3), 0u);
}

TEST(Key, ModifiersOfX11HaveTheirFlags) {
  EXPECT_EQ(ModifiersOfX11State(0), 0u);
  EXPECT_EQ(ModifiersOfX11State(1 + 4 + 8),
            std::uint32_t{rpc::MODIFIER_FLAG_SHIFT} |
                rpc::MODIFIER_FLAG_CONTROL | rpc::MODIFIER_FLAG_ALT);
  EXPECT_EQ(ModifiersOfX11State(2 + 16),
            std::uint32_t{rpc::MODIFIER_FLAG_CAPS_LOCK} |
                rpc::MODIFIER_FLAG_NUM_LOCK);
  EXPECT_EQ(ModifiersOfX11State(64), rpc::MODIFIER_FLAG_META);
  EXPECT_EQ(ModifiersOfX11State(1 << 26), rpc::MODIFIER_FLAG_META);
  EXPECT_EQ(ModifiersOfX11State(128), rpc::MODIFIER_FLAG_ALT_GRAPH);
  EXPECT_EQ(ModifiersOfX11State(1 << 8), 0u);  // A mouse button.
}

TEST(Key, ModifiersOfSdlHaveTheirFlags) {
  EXPECT_EQ(ModifiersOfSdlState(0), 0u);
  EXPECT_EQ(
      ModifiersOfSdlState(0x0002 + 0x0040),
      std::uint32_t{rpc::MODIFIER_FLAG_SHIFT} | rpc::MODIFIER_FLAG_CONTROL);
  EXPECT_EQ(ModifiersOfSdlState(0x0100), rpc::MODIFIER_FLAG_ALT);
  EXPECT_EQ(ModifiersOfSdlState(0x0200), rpc::MODIFIER_FLAG_ALT_GRAPH);
  EXPECT_EQ(ModifiersOfSdlState(0x0400), rpc::MODIFIER_FLAG_META);
  EXPECT_EQ(ModifiersOfSdlState(0x1000 + 0x2000 + 0x8000),
            std::uint32_t{rpc::MODIFIER_FLAG_NUM_LOCK} |
                rpc::MODIFIER_FLAG_CAPS_LOCK | rpc::MODIFIER_FLAG_SCROLL_LOCK);
}

}  // namespace
}  // namespace orvane::host
