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

// A heap copy of `key`, for a table to own.
const google::protobuf::Message* CopyKey(const google::protobuf::Message& key);

// Erases the entry of `key`, if there is one, from a table that owns its keys;
// `key` may be that entry's own. The table is whole again before the entry's
// content is destroyed, since that may be foreign code.
template <typename Table>
void EraseEntry(Table& table, const google::protobuf::Message& key) {
  const auto entry = table.extract(&key);
  if (!entry.empty()) delete entry.key();
}

// Another stream than the one subscribing now serves `key`.
void WarnOfTakeover(const google::protobuf::Message& key);

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_CALLBACK_STREAM_INTERNAL_H_
