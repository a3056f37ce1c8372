#include "host/keyboard.h"

#include <algorithm>
#include <string>
#include <utility>

namespace orvane::host {
namespace {

using Client = InputCalls::Client;

// All but the locks.
constexpr std::uint32_t kModifierKeys = kShortcutModifiers |
                                        rpc::MODIFIER_FLAG_SHIFT |
                                        rpc::MODIFIER_FLAG_ALT_GRAPH;

// Tells keys apart: by native key code, or else by keysym or character.
std::uint64_t DownIndex(const KeySample& sample) {
  if (sample.native_key_code != 0) return sample.native_key_code;
  if (sample.keysym != 0) return sample.keysym | (std::uint64_t{1} << 32);
  return sample.unshifted_character | (std::uint64_t{2} << 32);
}

bool TellsCharacter(const KeySample& sample) {
  return sample.keysym != 0 || sample.character != 0;
}

}  // namespace

Keyboard::Keyboard(InputCalls* calls) : calls_(calls) {}

std::uint32_t Keyboard::ModifiersAfter(std::uint32_t told, const rpc::Key& key,
                                       bool is_press) const {
  const std::uint32_t flag = ModifierOf(key);
  if (is_press) return told | flag;
  const bool is_twin_down =
      std::any_of(down_.begin(), down_.end(), [flag](const auto& entry) {
        return flag != 0 && ModifierOf(entry.second.key) == flag;
      });
  return is_twin_down ? told | flag : told & ~flag;
}

void Keyboard::Press(const KeySample& sample, absl::string_view text,
                     bool is_composing) {
  rpc::KeyPressRequest press;
  *press.mutable_input() = sample.input;
  *press.mutable_key() = DescribeKey(sample);
  const TypedText typed = TypedFrom(text);
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
  if (is_composing || (press.input().modifiers() & kShortcutModifiers) != 0)
    return;
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
    for (const auto& [index, down] : down_) still_held |= ModifierOf(down.key);
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
