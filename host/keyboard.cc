#include "host/keyboard.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>

#include "absl/strings/str_cat.h"

#include "zimbrel/src/core/common/rpc/characters.h"

namespace orvane::host {
namespace {

using Client = InputCalls::Client;

// Text with any of these is a shortcut and enters nothing. AltGr is another
// modifier.
constexpr std::uint32_t kShortcuts = rpc::MODIFIER_FLAG_CONTROL |
                                     rpc::MODIFIER_FLAG_ALT |
                                     rpc::MODIFIER_FLAG_META;

// All but the locks.
constexpr std::uint32_t kModifierKeys =
    kShortcuts | rpc::MODIFIER_FLAG_SHIFT | rpc::MODIFIER_FLAG_ALT_GRAPH;

// Tells keys apart: by native key code, or else by keysym or character.
std::uint64_t DownIndex(const KeySample& sample) {
  if (sample.native_key_code != 0) return sample.native_key_code;
  if (sample.keysym != 0) return sample.keysym | (std::uint64_t{1} << 32);
  return sample.unshifted_character | (std::uint64_t{2} << 32);
}

bool TellsCharacter(const KeySample& sample) {
  return sample.keysym != 0 || sample.character != 0;
}

// The modifier that a key is, 0 for most.
std::uint32_t FlagOf(const rpc::Key& key) {
  if (key.key() == "Alt") return rpc::MODIFIER_FLAG_ALT;
  if (key.key() == "AltGraph") return rpc::MODIFIER_FLAG_ALT_GRAPH;
  if (key.key() == "Control") return rpc::MODIFIER_FLAG_CONTROL;
  if (key.key() == "Meta") return rpc::MODIFIER_FLAG_META;
  if (key.key() == "Shift") return rpc::MODIFIER_FLAG_SHIFT;
  return 0;
}

struct Text {
  std::string utf8;
  std::size_t characters = 0;
};

// What a page is told of a toolkit's text: no control characters, and no bytes
// that are no character.
Text TypedFrom(absl::string_view told) {
  Text typed;
  while (!told.empty()) {
    const Utf8Character first = FirstCharacter(told);
    const bool is_control =
        first.code < ' ' || (first.code >= 0x7F && first.code < 0xA0);
    if (first.bytes > 0 && !is_control) {
      absl::StrAppend(&typed.utf8, told.substr(0, first.bytes));
      ++typed.characters;
    }
    told.remove_prefix(std::max<std::size_t>(first.bytes, 1));
  }
  return typed;
}

}  // namespace

Keyboard::Keyboard(InputCalls* calls) : calls_(calls) {}

std::uint32_t Keyboard::ModifiersAfter(std::uint32_t told, const rpc::Key& key,
                                       bool is_press) const {
  const std::uint32_t flag = FlagOf(key);
  if (is_press) return told | flag;
  const bool is_twin_down =
      std::any_of(down_.begin(), down_.end(), [flag](const auto& entry) {
        return flag != 0 && FlagOf(entry.second.key) == flag;
      });
  return is_twin_down ? told | flag : told & ~flag;
}

void Keyboard::Press(const KeySample& sample, absl::string_view text,
                     bool is_composing) {
  rpc::KeyPressRequest press;
  *press.mutable_input() = sample.input;
  *press.mutable_key() = DescribeKey(sample);
  const Text typed = TypedFrom(text);
  if (!TellsCharacter(sample) && typed.characters == 1)
    press.mutable_key()->set_key(typed.utf8);
  press.mutable_input()->set_modifiers(
      ModifiersAfter(sample.input.modifiers(), press.key(), true));
  const bool is_new = down_
                          .insert_or_assign(DownIndex(sample),
                                            DownKey{press.key(), press.input()})
                          .second;
  press.set_is_auto_repeat(sample.is_auto_repeat || !is_new);
  press.set_is_composing(is_composing);
  calls_->Send(&Client::ForwardKeyPress, press);
  if (is_composing || (press.input().modifiers() & kShortcuts) != 0) return;
  SendText(press.input(), &press.key(),
           press.key().key() == "Enter" ? "\r" : typed.utf8,
           press.is_auto_repeat());
}

void Keyboard::Release(const KeySample& sample) {
  if (sample.is_auto_repeat) return;
  auto pressed = down_.extract(DownIndex(sample));
  if (pressed.empty()) return;
  // The same key as before, which may have another meaning by now.
  rpc::Key key = pressed.mapped().key;
  if (TellsCharacter(sample)) key.set_key(DescribeKey(sample).key());
  rpc::InputInfo input = sample.input;
  input.set_modifiers(
      ModifiersAfter(input.modifiers(), pressed.mapped().key, false));
  SendRelease(input, key);
}

void Keyboard::Commit(const rpc::InputInfo& input, absl::string_view text) {
  SendText(input, nullptr, TypedFrom(text).utf8, false);
}

void Keyboard::ReleaseAll() {
  while (!down_.empty()) {
    const auto released = down_.extract(down_.begin());
    std::uint32_t still_held = 0;
    for (const auto& [index, down] : down_) still_held |= FlagOf(down.key);
    rpc::InputInfo input = released.mapped().input;
    input.set_modifiers((input.modifiers() & ~kModifierKeys) | still_held);
    SendRelease(input, released.mapped().key);
  }
}

void Keyboard::SendRelease(const rpc::InputInfo& input, const rpc::Key& key) {
  rpc::KeyReleaseRequest release;
  *release.mutable_input() = input;
  *release.mutable_key() = key;
  calls_->Send(&Client::ForwardKeyRelease, std::move(release));
}

void Keyboard::SendText(const rpc::InputInfo& input, const rpc::Key* key,
                        absl::string_view text, bool is_auto_repeat) {
  if (text.empty()) return;
  rpc::KeyTypeRequest type;
  *type.mutable_input() = input;
  if (key != nullptr) *type.mutable_key() = *key;
  type.set_text(std::string(text));
  type.set_is_auto_repeat(is_auto_repeat);
  calls_->Send(&Client::ForwardKeyType, std::move(type));
}

}  // namespace orvane::host
