// Which living stream has subscribed to which entry of a registry.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_REGISTRATIONS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_REGISTRATIONS_H_

#include <utility>

#include "absl/container/flat_hash_map.h"
#include "absl/container/flat_hash_set.h"
#include "google/protobuf/message.h"

#include "zimbrel/src/core/common/rpc/abstract_stream.h"

namespace orvane::internal {

// The streams' registries may name a stream that was destroyed without being
// completed, and whose address another stream has by now. Code that is about to
// use a stream from a registry asks here first. An entry is identified by the
// address of its key, which no other entry has as long as it exists.
//
// Thread: the service thread.
class Registrations {
 public:
  // The one for all registries of the process. Never destroyed.
  static Registrations& Get();

  void Add(const AbstractStream* stream, const google::protobuf::Message* key);

  // Does nothing for an unknown stream or key.
  void Remove(const AbstractStream* stream,
              const google::protobuf::Message* key);

  // Called by every stream's destructor.
  void Forget(const AbstractStream* stream);

  bool Has(const AbstractStream* stream,
           const google::protobuf::Message* key) const {
    return all_.contains({stream, key});
  }

 private:
  void Shrink();

  // The same twice: to ask about one, which every event does, and to forget all
  // of a stream.
  absl::flat_hash_set<
      std::pair<const AbstractStream*, const google::protobuf::Message*>>
      all_;
  absl::flat_hash_map<const AbstractStream*,
                      absl::flat_hash_set<const google::protobuf::Message*>>
      keys_;
};

// A heap copy of `key`, for a table to own.
const google::protobuf::Message* CopyKey(const google::protobuf::Message& key);

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_REGISTRATIONS_H_
