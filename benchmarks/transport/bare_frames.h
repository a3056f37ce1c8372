// The frames of the benchmarks with bare sockets: no more than is needed to
// separate messages on a stream.

#ifndef BENCHMARKS_TRANSPORT_BARE_FRAMES_H_
#define BENCHMARKS_TRANSPORT_BARE_FRAMES_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

namespace benchmarks {

// Precedes each payload. About as long as the length and the header of one of
// our own frames.
struct FrameHeader {
  enum Kind : std::uint16_t {
    kEcho,    // Answered by a kReply with the same payload.
    kUpload,  // Answered by an empty kReply.
    kMove,    // Answered by an empty kReply.
    kReply,
    kAskBurst,  // Answered by kBurst times kEvent, on every connection.
    kEvent,
    kServe,  // From now on the server calls, with kEcho.
  };

  std::uint32_t payload_bytes;
  Kind kind;
  std::uint16_t unused;
  std::int64_t sent_ns;  // A reply repeats that of its request.
};

// One connection.
class Link {
 public:
  virtual ~Link() = default;
  virtual void Send(const FrameHeader& header, const char* payload) = 0;
};

// Cuts received bytes into frames.
class FrameBuffer {
 public:
  // Where to put the next bytes, and how many.
  char* space() { return bytes_.get() + end_; }
  std::size_t room() const { return capacity_ - end_; }
  void Received(std::size_t bytes) { end_ += bytes; }

  // Takes the next whole frame; false if there is none. The payload is valid
  // until the next call.
  bool Next(FrameHeader* header, const char** payload) {
    const std::size_t held = end_ - begin_;
    std::size_t needed = sizeof *header;
    if (held >= sizeof *header) {
      std::memcpy(header, bytes_.get() + begin_, sizeof *header);
      needed += header->payload_bytes;
      if (held >= needed) {
        *payload = bytes_.get() + begin_ + sizeof *header;
        begin_ += needed;
        return true;
      }
    }
    MakeRoom(needed, held);
    return false;
  }

 private:
  void MakeRoom(std::size_t needed, std::size_t held) {
    if (held > 0 && begin_ + needed <= capacity_) return;
    if (needed <= capacity_) {
      std::memmove(bytes_.get(), bytes_.get() + begin_, held);
    } else {
      auto grown = std::make_unique_for_overwrite<char[]>(needed);
      std::memcpy(grown.get(), bytes_.get() + begin_, held);
      bytes_ = std::move(grown);
      capacity_ = needed;
    }
    begin_ = 0;
    end_ = held;
  }

  std::size_t capacity_ = std::size_t{64} << 10;
  std::unique_ptr<char[]> bytes_ =
      std::make_unique_for_overwrite<char[]>(capacity_);
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace benchmarks

#endif  // BENCHMARKS_TRANSPORT_BARE_FRAMES_H_
