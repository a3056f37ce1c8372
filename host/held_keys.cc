#include "host/held_keys.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "absl/strings/str_cat.h"

#include "zimbrel/src/core/common/rpc/characters.h"

namespace orvane::host {
namespace {

// AltGr is another modifier.
constexpr std::uint32_t kShortcuts = rpc::MODIFIER_FLAG_CONTROL |
                                     rpc::MODIFIER_FLAG_ALT |
                                     rpc::MODIFIER_FLAG_META;

// All but the locks.
constexpr std::uint32_t kModifierKeys =
    kShortcuts | rpc::MODIFIER_FLAG_SHIFT | rpc::MODIFIER_FLAG_ALT_GRAPH;

// Tells keys apart: by native key code, or else by keysym or character.
std::uint64_t IndexOf(const KeySample& sample) {
  if (sample.native_key_code != 0) return sample.native_key_code;
  if (sample.keysym != 0) return sample.keysym | (std::uint64_t{1} << 32);
  return sample.unshifted_character | (std::uint64_t{2} << 32);
}

bool TellsCharacter(const KeySample& sample) {
  return sample.keysym != 0 || sample.character != 0;
}

bool IsOneCharacter(absl::string_view text) {
  return !text.empty() && FirstCharacter(text).bytes == text.size();
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

}  // namespace

rpc::KeyPressRequest HeldKeys::Press(const KeySample& sample,
                                     absl::string_view text) {
  rpc::KeyPressRequest press;
  *press.mutable_input() = sample.input;
  *press.mutable_key() = DescribeKey(sample);
  if (const std::string entered = EnteredText(text);
      !TellsCharacter(sample) && IsOneCharacter(entered)) {
    press.mutable_key()->set_key(entered);
  }
  press.mutable_input()->set_modifiers(sample.input.modifiers() |
                                       FlagOf(press.key()));
  const bool is_new = held_
                          .insert_or_assign(IndexOf(sample),
                                            HeldKey{press.key(), press.input()})
                          .second;
  press.set_is_auto_repeat(sample.is_auto_repeat || !is_new);
  return press;
}

std::optional<rpc::KeyReleaseRequest> HeldKeys::Release(
    const KeySample& sample) {
  if (sample.is_auto_repeat) return std::nullopt;
  const auto released = held_.extract(IndexOf(sample));
  if (released.empty()) return std::nullopt;
  rpc::KeyReleaseRequest release;
  *release.mutable_input() = sample.input;
  // Toolkits count the key's own modifier or not. Its twin may still be held.
  const std::uint32_t flag = FlagOf(released.mapped().key);
  release.mutable_input()->set_modifiers((sample.input.modifiers() & ~flag) |
                                         (HeldModifiers() & flag));
  // The same key as before, which may have another meaning by now.
  *release.mutable_key() = released.mapped().key;
  if (TellsCharacter(sample))
    release.mutable_key()->set_key(DescribeKey(sample).key());
  return release;
}

std::vector<rpc::KeyReleaseRequest> HeldKeys::ReleaseAll() {
  std::vector<rpc::KeyReleaseRequest> releases;
  while (!held_.empty()) {
    const auto released = held_.extract(held_.begin());
    rpc::KeyReleaseRequest& release = releases.emplace_back();
    *release.mutable_input() = released.mapped().input;
    release.mutable_input()->set_modifiers(
        (release.input().modifiers() & ~kModifierKeys) | HeldModifiers());
    *release.mutable_key() = released.mapped().key;
  }
  return releases;
}

std::uint32_t HeldKeys::HeldModifiers() const {
  std::uint32_t modifiers = 0;
  for (const auto& [index, held] : held_) modifiers |= FlagOf(held.key);
  return modifiers;
}

std::string EnteredText(absl::string_view text) {
  std::string entered;
  while (!text.empty()) {
    const Utf8Character first = FirstCharacter(text);
    const bool is_control =
        first.code < ' ' || (first.code >= 0x7F && first.code < 0xA0);
    if (first.bytes > 0 && !is_control)
      absl::StrAppend(&entered, text.substr(0, first.bytes));
    text.remove_prefix(std::max<std::size_t>(first.bytes, 1));
  }
  return entered;
}

std::optional<rpc::KeyTypeRequest> EnteredBy(const rpc::KeyPressRequest& press,
                                             absl::string_view text) {
  if ((press.input().modifiers() & kShortcuts) != 0) return std::nullopt;
  std::string entered = press.key().key() == "Enter" ? "\r" : EnteredText(text);
  if (entered.empty()) return std::nullopt;
  rpc::KeyTypeRequest type;
  *type.mutable_input() = press.input();
  *type.mutable_key() = press.key();
  type.set_text(std::move(entered));
  type.set_is_auto_repeat(press.is_auto_repeat());
  return type;
}

}  // namespace orvane::host
