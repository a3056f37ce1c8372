#include "zimbrel/src/core/common/rpc/stream/registrations.h"

#include <cstddef>

namespace orvane::internal {

using google::protobuf::Message;

Registrations& Registrations::Get() {
  static auto& all = *new Registrations();
  return all;
}

void Registrations::Add(const AbstractStream* stream, const Message* key) {
  all_.insert({stream, key});
  keys_[stream].insert(key);
}

void Registrations::Remove(const AbstractStream* stream, const Message* key) {
  const auto keys = keys_.find(stream);
  if (keys == keys_.end()) return;
  all_.erase({stream, key});
  keys->second.erase(key);
  if (keys->second.empty()) keys_.erase(keys);
  Shrink();
}

void Registrations::Forget(const AbstractStream* stream) {
  const auto keys = keys_.find(stream);
  if (keys == keys_.end()) return;
  for (const Message* const key : keys->second) all_.erase({stream, key});
  keys_.erase(keys);
  Shrink();
}

// A client that has subscribed to very many keys leaves no large table behind.
void Registrations::Shrink() {
  constexpr std::size_t kKeptCapacity = 1024;
  if (all_.capacity() > kKeptCapacity && all_.size() < all_.capacity() / 8)
    all_.rehash(0);
}

const Message* CopyKey(const Message& key) {
  Message* const copy = key.New(nullptr);
  // CopyFrom would first look through both for each other.
  copy->MergeFrom(key);
  return copy;
}

}  // namespace orvane::internal
