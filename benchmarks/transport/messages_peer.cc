// The messages alone, in one process and without any socket: written into
// memory and read out of it. What every stack that carries protobuf takes at
// the least.

#include <unistd.h>

#include <cstdint>
#include <string>

#include "benchmarks/transport/measure.h"
#include "benchmarks/transport/messages.h"
#include "benchmarks/transport/peer.pb.h"

namespace benchmarks {
namespace {

// From one end to the other, through memory that serves again.
template <typename Message>
void Pass(const Message& sent, std::string* bytes, Message* received) {
  bytes->resize(sent.ByteSizeLong());
  sent.SerializeWithCachedSizesToArray(
      reinterpret_cast<std::uint8_t*>(bytes->data()));
  if (!received->ParseFromString(*bytes)) Fail("a message that nobody reads");
}

// Each ends in a message of its own; those of unary calls come back.
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
  pause();  // Only the other process has something to do.
}

void Drive(const Options& options, Meter& meter) {
  switch (options.figure) {
    case Figure::kUnary:
    case Figure::kUpload:
      return PassPayloads(options, meter);
    case Figure::kEvents:
      return PassEvents(meter);
    default:
      Fail("the messages alone are measured for unary, upload and events");
  }
}

}  // namespace
}  // namespace benchmarks

int main(int argc, char** argv) {
  return benchmarks::Run(
      argc, argv, {.serve = benchmarks::Serve, .drive = benchmarks::Drive});
}
