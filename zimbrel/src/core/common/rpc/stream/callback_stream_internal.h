// The parts of CallbackStream that do not depend on its message type.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_CALLBACK_STREAM_INTERNAL_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_CALLBACK_STREAM_INTERNAL_H_

#include <memory>

#include "google/protobuf/message.h"

#include "rpc/transport/stream_message.pb.h"

namespace orvane::internal {

// A heap message of `prototype`'s type, with whatever of the payload parses.
std::unique_ptr<google::protobuf::Message> ReadPayload(
    const google::protobuf::Message& prototype,
    const rpc::transport::StreamMessage& frame);

// Erases the entry of `key`, which there must be, from a table that owns its
// keys; `key` may be that entry's own. The entry's content is destroyed when
// the table is whole again and while the key still exists: its destructors may
// be foreign code, which may come back here.
template <typename Table>
void EraseEntry(Table& table, const google::protobuf::Message& key) {
  std::unique_ptr<const google::protobuf::Message> own_key;
  const auto entry = table.extract(&key);
  own_key.reset(entry.key());
}

// Logs that a stream subscribes to `key` while another stream serves it.
void WarnOfTakeover(const google::protobuf::Message& key);

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_CALLBACK_STREAM_INTERNAL_H_
