#include "tools/widgetctl/typed_text.h"

#include <algorithm>
#include <cstddef>

#include "absl/container/flat_hash_set.h"
#include "absl/strings/ascii.h"
#include "absl/strings/str_split.h"
#include "absl/strings/string_view.h"

#include "rpc/browser/input.pb.h"
#include "rpc/browser/keyboard.pb.h"
#include "rpc/browser/native_input.pb.h"
#include "rpc/browser/web_dialog.pb.h"

namespace widgetctl {
namespace {

using google::protobuf::Message;

constexpr char kHiddenKey[] = "x";
constexpr char kHiddenCode[] = "KeyX";
constexpr std::uint32_t kHiddenWindowsCode = 'X';

std::ptrdiff_t CharactersIn(const std::string& text) {
  return std::count_if(text.begin(), text.end(), [](char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0) != 0x80;
  });
}

std::string Hidden(const std::string& text) {
  // Enter and Tab are no secrets.
  if (text.size() == 1 && static_cast<unsigned char>(text[0]) < ' ')
    return text;
  return std::string(static_cast<std::size_t>(CharactersIn(text)), 'x');
}

bool IsAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char byte) {
    return static_cast<unsigned char>(byte) < 0x80;
  });
}

bool IsShortcut(const rpc::InputInfo& input) {
  constexpr std::uint32_t kOfShortcuts =
      rpc::MODIFIER_FLAG_CONTROL | rpc::MODIFIER_FLAG_META;
  constexpr std::uint32_t kOfCharacters =
      rpc::MODIFIER_FLAG_ALT | rpc::MODIFIER_FLAG_ALT_GRAPH;
  return (input.modifiers() & kOfShortcuts) != 0 &&
         (input.modifiers() & kOfCharacters) == 0;
}

// Whether the key types nothing, and is no step towards a character either.
// Some keys type several characters, so that not every long name is one.
bool IsNamed(absl::string_view key) {
  static const auto& names =
      *new absl::flat_hash_set<absl::string_view>(absl::StrSplit(
          "Alt AltGraph ArrowDown ArrowLeft ArrowRight ArrowUp Backspace "
          "CapsLock Clear ContextMenu Control Copy Cut Delete End Enter "
          "Escape F1 F2 F3 F4 F5 F6 F7 F8 F9 F10 F11 F12 Find Help Home "
          "Insert Meta NumLock PageDown PageUp Paste Pause PrintScreen Redo "
          "ScrollLock Select Shift Tab Undo BrowserBack BrowserForward "
          "BrowserRefresh",
          ' '));
  return names.contains(key);
}

void Hide(rpc::Key* key) {
  if (IsNamed(std::string(key->key()))) return;
  key->Clear();
  key->set_key(kHiddenKey);
  key->set_code(kHiddenCode);
  key->set_windows_key_code(kHiddenWindowsCode);
}

}  // namespace

void TypedTextHider::Hide(int connection, Message* message) {
  const auto shortcut = [connection](const auto& event) {
    return std::tuple(connection, event.browser_id().value(),
                      std::string(event.key().code()),
                      absl::AsciiStrToLower(std::string(event.key().key())));
  };
  if (auto* const press = dynamic_cast<rpc::KeyPressRequest*>(message)) {
    if (IsShortcut(press->input()) &&
        IsAscii(std::string(press->key().key()))) {
      shortcuts_.insert(shortcut(*press));
    } else {
      shortcuts_.erase(shortcut(*press));
      widgetctl::Hide(press->mutable_key());
    }
  } else if (auto* const release =
                 dynamic_cast<rpc::KeyReleaseRequest*>(message)) {
    if (shortcuts_.erase(shortcut(*release)) == 0)
      widgetctl::Hide(release->mutable_key());
  } else if (auto* const type = dynamic_cast<rpc::KeyTypeRequest*>(message)) {
    type->set_text(Hidden(std::string(type->text())));
    if (!type->unmodified_text().empty())
      type->set_unmodified_text(Hidden(std::string(type->unmodified_text())));
    if (type->has_key()) widgetctl::Hide(type->mutable_key());
  } else if (auto* const dialog =
                 dynamic_cast<rpc::CreateWebDialog*>(message)) {
    if (!dialog->response().text().empty()) {
      auto* const response = dialog->mutable_response();
      response->set_text(Hidden(std::string(response->text())));
    }
  }
}

void TypedTextHider::OnEnded(int connection) {
  std::erase_if(shortcuts_, [connection](const auto& shortcut) {
    return std::get<0>(shortcut) == connection;
  });
}

bool TypedTextHider::IsOpaque(const Message& message) {
  return dynamic_cast<const rpc::NativeKeyEventRequest*>(&message) != nullptr;
}

}  // namespace widgetctl
