#include "benchmarks/transport/bare_peer.h"

#include <cstdlib>
#include <utility>

namespace benchmarks {
namespace {

// The sizes of a mouse move and of an event in protobuf's encoding.
constexpr std::size_t kMoveBytes = 54;
constexpr std::size_t kEventBytes = 8;

FrameHeader Header(FrameHeader::Kind kind, std::size_t payload_bytes,
                   std::int64_t sent_ns) {
  return {.payload_bytes = static_cast<std::uint32_t>(payload_bytes),
          .kind = kind,
          .unused = 0,
          .sent_ns = sent_ns};
}

}  // namespace

BareServer::BareServer(const Options& options, Meter& meter)
    : meter_(meter), payload_(options.payload_bytes + kEventBytes, '\0') {}

void BareServer::OnFrame(Link& link, const FrameHeader& header,
                         const char* payload) {
  const auto echo_bytes = payload_.size() - kEventBytes;
  switch (header.kind) {
    case FrameHeader::kEcho:
      return link.Send(
          Header(FrameHeader::kReply, header.payload_bytes, header.sent_ns),
          payload);
    case FrameHeader::kMove:
      meter_.Ended(header.sent_ns);
      [[fallthrough]];
    case FrameHeader::kUpload:
      return link.Send(Header(FrameHeader::kReply, 0, header.sent_ns), nullptr);
    case FrameHeader::kAskBurst:
      for (int i = 0; i < kBurst; ++i) {
        for (Link* const each : links_)
          each->Send(Header(FrameHeader::kEvent, kEventBytes, 0),
                     payload_.data());
      }
      return;
    case FrameHeader::kReply:
      if (!meter_.Ended(header.sent_ns)) std::_Exit(0);
      [[fallthrough]];
    case FrameHeader::kServe:
      return link.Send(Header(FrameHeader::kEcho, echo_bytes, Now()),
                       payload_.data());
    case FrameHeader::kEvent:
      Fail("the host sent a frame that only servers send");
  }
}

BareHost::BareHost(const Options& options, Meter& meter,
                   std::vector<Link*> links)
    : options_(options),
      meter_(meter),
      payload_(options.payload_bytes + kMoveBytes, '\0'),
      links_(std::move(links)),
      next_move_ns_(Now()) {
  switch (options.figure) {
    case Figure::kUnary:
    case Figure::kUpload:
      for (int i = 0; i < options.in_flight; ++i) Call(*links_[0]);
      break;
    case Figure::kEvents:
      for (int i = 0; i < kBurstsInFlight; ++i)
        links_[0]->Send(Header(FrameHeader::kAskBurst, 0, 0), nullptr);
      break;
    case Figure::kCallback:
      links_[0]->Send(Header(FrameHeader::kServe, 0, 0), nullptr);
      break;
    case Figure::kStorm:
      break;
    case Figure::kSurface:
      Fail("bare sockets carry pictures as uploads; measure upload");
    case Figure::kPosts:
    case Figure::kIdle:
      Fail("posts and idle are measured in toolkits' main loops");
  }
}

void BareHost::Call(Link& link) {
  const auto kind = options_.figure == Figure::kUpload ? FrameHeader::kUpload
                                                       : FrameHeader::kEcho;
  link.Send(Header(kind, options_.payload_bytes, Now()), payload_.data());
}

void BareHost::SendMove() {
  next_move_ns_ += kStormPeriodNs / options_.hosts;
  SleepUntil(next_move_ns_);
  links_[moves_++ % links_.size()]->Send(
      Header(FrameHeader::kMove, kMoveBytes, Now()), payload_.data());
}

void BareHost::OnFrame(Link& link, const FrameHeader& header,
                       const char* payload) {
  switch (header.kind) {
    case FrameHeader::kEcho:
      return link.Send(
          Header(FrameHeader::kReply, header.payload_bytes, header.sent_ns),
          payload);
    case FrameHeader::kReply:
      if (options_.figure != Figure::kStorm && meter_.Ended(header.sent_ns))
        Call(link);
      return;
    case FrameHeader::kEvent:
      if (++events_ < kBurst * options_.hosts) return;
      events_ = 0;
      if (meter_.Ended(kBurst * options_.hosts))
        links_[0]->Send(Header(FrameHeader::kAskBurst, 0, 0), nullptr);
      return;
    default:
      Fail("the server sent a frame that only hosts send");
  }
}

}  // namespace benchmarks
