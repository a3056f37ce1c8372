#include "host/keyboard.h"

#include <optional>
#include <string>
#include <utility>

namespace orvane::host {

using Client = InputCalls::Client;

Keyboard::Keyboard(InputCalls* calls) : calls_(calls) {}

void Keyboard::Press(const KeySample& sample, absl::string_view text,
                     bool is_composing) {
  rpc::KeyPressRequest press = held_.Press(sample, text);
  press.set_is_composing(is_composing);
  calls_->Send(&Client::ForwardKeyPress, press);
  if (is_composing) return;
  if (std::optional<rpc::KeyTypeRequest> entered = EnteredBy(press, text))
    calls_->Send(&Client::ForwardKeyType, *std::move(entered));
}

void Keyboard::Release(const KeySample& sample) {
  if (std::optional<rpc::KeyReleaseRequest> release = held_.Release(sample))
    calls_->Send(&Client::ForwardKeyRelease, *std::move(release));
}

void Keyboard::Commit(const rpc::InputInfo& input, absl::string_view text) {
  std::string entered = EnteredText(text);
  if (entered.empty()) return;
  rpc::KeyTypeRequest type;
  *type.mutable_input() = input;
  type.set_text(std::move(entered));
  calls_->Send(&Client::ForwardKeyType, std::move(type));
}

void Keyboard::ReleaseAll() {
  for (rpc::KeyReleaseRequest& release : held_.ReleaseAll())
    calls_->Send(&Client::ForwardKeyRelease, std::move(release));
}

}  // namespace orvane::host
