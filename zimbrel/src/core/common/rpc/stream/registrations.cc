#include "zimbrel/src/core/common/rpc/stream/registrations.h"

namespace orvane::internal {

using google::protobuf::Message;

Registrations& Registrations::Get() {
  static auto& all = *new Registrations();
  return all;
}

void Registrations::Add(const AbstractStream* stream, const Message* key) {
  keys_[stream].insert(key);
}

void Registrations::Remove(const AbstractStream* stream, const Message* key) {
  const auto keys = keys_.find(stream);
  if (keys == keys_.end()) return;
  keys->second.erase(key);
  if (keys->second.empty()) keys_.erase(keys);
}

void Registrations::Forget(const AbstractStream* stream) {
  keys_.erase(stream);
}

bool Registrations::Has(const AbstractStream* stream,
                        const Message* key) const {
  const auto keys = keys_.find(stream);
  return keys != keys_.end() && keys->second.contains(key);
}

const Message* CopyKey(const Message& key) {
  Message* const copy = key.New(nullptr);
  copy->CopyFrom(key);
  return copy;
}

}  // namespace orvane::internal
