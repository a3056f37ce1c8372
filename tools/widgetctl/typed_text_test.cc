#include "tools/widgetctl/typed_text.h"

#include <memory>
#include <string>

#include "absl/strings/str_cat.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "tools/widgetctl/json.h"

namespace widgetctl {
namespace {

class TypedTextTest : public ::testing::Test {
 protected:
  // What is left of a message in JSON.
  template <typename T>
  std::string Hide(const std::string& json) {
    T message;
    EXPECT_TRUE(FromJson(json, &message).ok()) << json;
    hider_.Hide(1, &message);
    return ToJson(message);
  }

  TypedTextHider hider_;
};

constexpr char kHidden[] =
    R"({"key":{"key":"x","code":"KeyX","windowsKeyCode":88}})";

TEST_F(TypedTextTest, ACharactersKeyIsHidden) {
  EXPECT_EQ(Hide<rpc::KeyPressRequest>(
                R"({"key":{"key":"S","code":"KeyS","windowsKeyCode":83,)"
                R"("nativeKeyCode":39}})"),
            kHidden);
  EXPECT_EQ(Hide<rpc::KeyReleaseRequest>(R"({"key":{"key":"ß"}})"), kHidden);
}

TEST_F(TypedTextTest, AKeyWithoutANameIsHidden) {
  EXPECT_EQ(Hide<rpc::KeyPressRequest>(R"({"key":{"windowsKeyCode":83}})"),
            kHidden);
}

TEST_F(TypedTextTest, StepsTowardsACharacterAreHidden) {
  EXPECT_EQ(
      Hide<rpc::KeyPressRequest>(R"({"key":{"key":"Dead","code":"Quote"}})"),
      kHidden);
  EXPECT_EQ(
      Hide<rpc::KeyPressRequest>(R"({"key":{"key":"Process","code":"KeyN"}})"),
      kHidden);
}

// Arabic has lam and alef on one key, Breton c'h.
TEST_F(TypedTextTest, AKeyOfSeveralCharactersIsHidden) {
  for (const std::string key : {"لا", "c'h", "안녕", "p4ss", "Passw0rd"}) {
    EXPECT_EQ(Hide<rpc::KeyPressRequest>(
                  absl::StrCat(R"({"key":{"key":")", key, R"("}})")),
              kHidden);
  }
}

TEST_F(TypedTextTest, NamedKeysStay) {
  const std::string enter = R"({"key":{"key":"Enter","code":"Enter"}})";
  EXPECT_EQ(Hide<rpc::KeyPressRequest>(enter), enter);
  const std::string shift = R"({"key":{"key":"Shift","code":"ShiftLeft"}})";
  EXPECT_EQ(Hide<rpc::KeyReleaseRequest>(shift), shift);
}

TEST_F(TypedTextTest, EachTypedCharacterBecomesAnX) {
  EXPECT_EQ(
      Hide<rpc::KeyTypeRequest>(R"({"text":"pä漢","unmodifiedText":"p"})"),
      R"({"text":"xxx","unmodifiedText":"x"})");
}

TEST_F(TypedTextTest, EnterStays) {
  const std::string enter = R"({"key":{"key":"Enter"},"text":"\r"})";
  EXPECT_EQ(Hide<rpc::KeyTypeRequest>(enter), enter);
}

TEST_F(TypedTextTest, ShortcutsStayAlsoWhenTheModifierComesUpFirst) {
  const std::string press =
      R"({"input":{"modifiers":2},"key":{"key":"c","code":"KeyC"}})";
  EXPECT_EQ(Hide<rpc::KeyPressRequest>(press), press);
  const std::string release = R"({"key":{"key":"c","code":"KeyC"}})";
  EXPECT_EQ(Hide<rpc::KeyReleaseRequest>(release), release);
  EXPECT_EQ(Hide<rpc::KeyReleaseRequest>(release), kHidden);
}

TEST_F(TypedTextTest, AKeyThatIsPressedAgainIsNoShortcutAnyMore) {
  Hide<rpc::KeyPressRequest>(
      R"({"input":{"modifiers":2},"key":{"key":"c","code":"KeyC"}})");
  const std::string key = R"({"key":{"key":"c","code":"KeyC"}})";
  EXPECT_EQ(Hide<rpc::KeyPressRequest>(key), kHidden);
  EXPECT_EQ(Hide<rpc::KeyReleaseRequest>(key), kHidden);
}

TEST_F(TypedTextTest, AnotherKeyThanTheShortcutsIsNotReleasedInItsPlace) {
  Hide<rpc::KeyPressRequest>(R"({"input":{"modifiers":2},"key":{"key":"a"}})");
  EXPECT_EQ(Hide<rpc::KeyReleaseRequest>(R"({"key":{"key":"y"}})"), kHidden);
  Hide<rpc::KeyPressRequest>(
      R"({"input":{"modifiers":2},"key":{"key":"c","code":"KeyC"}})");
  EXPECT_EQ(
      Hide<rpc::KeyReleaseRequest>(R"({"key":{"key":"z","code":"KeyC"}})"),
      kHidden);
}

TEST_F(TypedTextTest, WhatAConnectionHasNotReleasedIsForgotten) {
  Hide<rpc::KeyPressRequest>(
      R"({"input":{"modifiers":2},"key":{"key":"c","code":"KeyC"}})");
  hider_.OnEnded(1);
  EXPECT_EQ(
      Hide<rpc::KeyReleaseRequest>(R"({"key":{"key":"c","code":"KeyC"}})"),
      kHidden);
}

TEST_F(TypedTextTest, CharactersMadeWithAltAreHidden) {
  EXPECT_EQ(Hide<rpc::KeyPressRequest>(
                R"({"input":{"modifiers":4},"key":{"key":"å","code":"KeyA"}})"),
            R"({"input":{"modifiers":4},"key":{"key":"x","code":"KeyX",)"
            R"("windowsKeyCode":88}})");
  EXPECT_EQ(
      Hide<rpc::KeyTypeRequest>(R"({"input":{"modifiers":4},"text":"å"})"),
      R"({"input":{"modifiers":4},"text":"x"})");
}

// As a Mac's Option key types them, and AltGr that is told as Control and Alt.
TEST_F(TypedTextTest, AsciiCharactersMadeWithAltAreHidden) {
  for (const char* const modifiers : {"1", "3"}) {
    EXPECT_EQ(Hide<rpc::KeyPressRequest>(
                  absl::StrCat(R"({"input":{"modifiers":)", modifiers,
                               R"(},"key":{"key":"@","code":"KeyL"}})")),
              absl::StrCat(
                  R"({"input":{"modifiers":)", modifiers,
                  R"(},"key":{"key":"x","code":"KeyX","windowsKeyCode":88}})"));
  }
}

TEST_F(TypedTextTest, WhatAltGraphTypesIsNoShortcut) {
  EXPECT_EQ(
      Hide<rpc::KeyTypeRequest>(R"({"input":{"modifiers":131},"text":"@"})"),
      R"({"input":{"modifiers":131},"text":"x"})");
}

TEST_F(TypedTextTest, TheAnswerOfADialogIsHidden) {
  EXPECT_EQ(Hide<rpc::CreateWebDialog>(
                R"({"response":{"accepted":true,"text":"secret"}})"),
            R"({"response":{"accepted":true,"text":"xxxxxx"}})");
}

TEST_F(TypedTextTest, OtherMessagesStay) {
  const std::string move = R"({"pointer":{"position":{"x":1,"y":2}}})";
  EXPECT_EQ(Hide<rpc::MouseMoveRequest>(move), move);
}

TEST_F(TypedTextTest, OnlyNativeKeyEventsAreOpaque) {
  EXPECT_TRUE(TypedTextHider::IsOpaque(rpc::NativeKeyEventRequest()));
  EXPECT_FALSE(TypedTextHider::IsOpaque(rpc::NativeMouseEventRequest()));
}

}  // namespace
}  // namespace widgetctl
