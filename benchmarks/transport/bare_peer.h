// The two ends of a connection with bare frames, without the socket code.

#ifndef BENCHMARKS_TRANSPORT_BARE_PEER_H_
#define BENCHMARKS_TRANSPORT_BARE_PEER_H_

#include <cstddef>
#include <string>
#include <vector>

#include "benchmarks/transport/bare_frames.h"
#include "benchmarks/transport/measure.h"

namespace benchmarks {

// Answers hosts, or calls one.
class BareServer {
 public:
  BareServer(const Options& options, Meter& meter);

  void Connected(Link* link) { links_.push_back(link); }
  void OnFrame(Link& link, const FrameHeader& header, const char* payload);

 private:
  Meter& meter_;
  const std::string payload_;
  std::vector<Link*> links_;
};

// Calls a server until the meter is done, or answers it.
class BareHost {
 public:
  // Sends the first frames of the figure; for a storm, call SendMove instead.
  BareHost(const Options& options, Meter& meter, std::vector<Link*> links);

  // Waits until the next move of a storm is due, and sends it.
  void SendMove();

  void OnFrame(Link& link, const FrameHeader& header, const char* payload);

 private:
  void Call(Link& link);

  const Options& options_;
  Meter& meter_;
  const std::string payload_;
  const std::vector<Link*> links_;
  std::size_t moves_ = 0;
  std::int64_t next_move_ns_;
  int events_ = 0;  // Of the burst that is arriving.
};

}  // namespace benchmarks

#endif  // BENCHMARKS_TRANSPORT_BARE_PEER_H_
