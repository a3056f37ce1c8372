// The base of every generated service class: what a transport drives.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_SERVICE_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_SERVICE_H_

#include "google/protobuf/descriptor.h"
#include "google/protobuf/service.h"

#include "zimbrel/src/core/common/rpc/stream_channel.h"

namespace orvane {

class AbstractStream;

// A protobuf service whose methods may also be streams. Unary methods go
// through CallMethod, streaming methods through OpenStream; calling either with
// a method of the other kind is a broken program and ends the process.
//
// Applications derive from a generated service, not from this class.
//
// Thread: a service object holds no state of its own. CallMethod, the
// prototypes and OpenStream may be called from any thread; the streams that
// OpenStream returns belong to the service thread. Lifetime: a service outlives
// every call in progress and every stream opened on it.
class Service : public google::protobuf::Service {
 public:
  Service() = default;
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  ~Service() override;

  // Makes the server side of a stream of `method`, which must be one of this
  // service's streaming methods. `channel` is moved into the stream.
  //
  // Never null. The caller owns the result: it delivers the peer's frames to
  // it, calls OnCompleted once when the peer has ended the stream or is gone,
  // and then deletes it. Opening registers the stream nowhere.
  virtual AbstractStream* OpenStream(
      const google::protobuf::MethodDescriptor* method,
      StreamChannel channel) = 0;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_SERVICE_H_
