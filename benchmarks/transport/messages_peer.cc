// Only the messages, without a socket: one process serializes them into memory
// and parses them. A stack that carries protobuf cannot be faster.

#include <unistd.h>

#include <cstdint>
#include <string>

#include "benchmarks/transport/measure.h"
#include "benchmarks/transport/messages.h"
#include "benchmarks/transport/peer.pb.h"

namespace benchmarks {
namespace {

// Serializes `sent` into `bytes`, whose memory is reused, and parses it again.
template <typename Message>
void Pass(const Message& sent, std::string* bytes, Message* received) {
  bytes->resize(sent.ByteSizeLong());
  static_cast<void>(sent.SerializeWithCachedSizesToArray(
      reinterpret_cast<std::uint8_t*>(bytes->data())));
  if (!received->ParseFromString(*bytes)) Fail("cannot parse a message");
}

// Parses each payload into a new message. A unary call also passes its
// response.
void PassPayloads(const Options& options, Meter& meter) {
  Payload sent;
  sent.set_data(std::string(options.payload_bytes, '\0'));
  std::string bytes;
  std::int64_t begun = 0;
  do {
    begun = Now();
    Payload request;
    Pass(sent, &bytes, &request);
    if (options.figure == Figure::kUnary) {
      Payload response;
      Pass(request, &bytes, &response);
    }
  } while (meter.Ended(begun));
}

void PassEvents(Meter& meter) {
  const rpc::CursorChanged sent = CursorEvent();
  std::string bytes;
  rpc::CursorChanged received;
  do {
    for (int i = 0; i < kBurst; ++i) Pass(sent, &bytes, &received);
  } while (meter.Ended(kBurst));
}

void Serve(const Options&, Meter& meter) {
  meter.SetReady();
  pause();  // The other process does all the work.
}

void Drive(const Options& options, Meter& meter) {
  switch (options.figure) {
    case Figure::kUnary:
    case Figure::kUpload:
      return PassPayloads(options, meter);
    case Figure::kEvents:
      return PassEvents(meter);
    default:
      Fail("without a socket there are only unary, upload and events");
  }
}

}  // namespace
}  // namespace benchmarks

int main(int argc, char** argv) {
  return benchmarks::Run(
      argc, argv, {.serve = benchmarks::Serve, .drive = benchmarks::Drive});
}
