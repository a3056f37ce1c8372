// Bare Asio, as people write it by hand: one thread, an asynchronous read loop,
// frames written without waiting.
//
//   --interface each      each frame is written separately, at once
//   --interface batched   frames that are sent while a batch of received frames
//                         is handled are written together afterwards

#include "benchmarks/transport/asio_hook.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "asio/buffer.hpp"
#include "asio/io_context.hpp"
#include "asio/local/stream_protocol.hpp"

#include "benchmarks/transport/bare_frames.h"
#include "benchmarks/transport/bare_peer.h"
#include "benchmarks/transport/measure.h"

namespace benchmarks {
namespace {

using asio::local::stream_protocol;

class AsioLink final : public Link {
 public:
  using OnFrame =
      std::function<void(Link&, const FrameHeader&, const char* payload)>;

  AsioLink(stream_protocol::socket socket, bool is_batched)
      : socket_(std::move(socket)), is_batched_(is_batched) {
    asio::error_code refused;  // Ignored: the first read would report it.
    socket_.non_blocking(true, refused);
  }

  // `on_batch` runs when all received frames have been passed on.
  void Start(OnFrame on_frame, std::function<void()> on_batch,
             std::function<void()> on_end) {
    on_frame_ = std::move(on_frame);
    on_batch_ = std::move(on_batch);
    on_end_ = std::move(on_end);
    Read();
  }

  void Send(const FrameHeader& header, const char* payload) override {
    std::size_t written = 0;
    if (!is_batched_ && queued_.empty()) {
      const std::array<asio::const_buffer, 2> parts{
          asio::const_buffer(&header, sizeof header),
          asio::const_buffer(payload, header.payload_bytes)};
      asio::error_code error;
      written = socket_.write_some(parts, error);
      frame_left_ = sizeof header + header.payload_bytes - written;
    }
    Queue(reinterpret_cast<const char*>(&header), sizeof header, &written);
    Queue(payload, header.payload_bytes, &written);
    if (!is_batched_ && !queued_.empty()) Flush();
  }

  void Flush() {
    while (!is_waiting_ && !queued_.empty()) {
      asio::error_code error;
      const std::size_t written = socket_.write_some(
          asio::const_buffer(queued_.data() + sent_, NextToWrite()), error);
      if (error == asio::error::would_block) {
        is_waiting_ = true;
        socket_.async_wait(stream_protocol::socket::wait_write,
                           [this](asio::error_code failed) {
                             is_waiting_ = false;
                             if (!failed) Flush();
                           });
        return;
      }
      sent_ += error ? queued_.size() - sent_ : written;
      frame_left_ -= std::min(frame_left_, written);
      if (sent_ < queued_.size()) continue;
      queued_.clear();
      sent_ = 0;
    }
  }

 private:
  // Without the bytes that have been written.
  void Queue(const char* bytes, std::size_t size, std::size_t* written) {
    const std::size_t skipped = std::min(size, *written);
    queued_.append(bytes + skipped, size - skipped);
    *written -= skipped;
  }

  // How many of the queued bytes are written together.
  std::size_t NextToWrite() {
    if (is_batched_) return queued_.size() - sent_;
    if (frame_left_ == 0) {
      FrameHeader header;
      std::memcpy(&header, queued_.data() + sent_, sizeof header);
      frame_left_ = sizeof header + header.payload_bytes;
    }
    return frame_left_;
  }

  void Read() {
    socket_.async_read_some(
        asio::mutable_buffer(received_.space(), received_.room()),
        [this](asio::error_code error, std::size_t bytes) {
          if (error) return on_end_();
          received_.Received(bytes);
          FrameHeader header;
          const char* payload;
          while (received_.Next(&header, &payload))
            on_frame_(*this, header, payload);
          on_batch_();
          Read();
        });
  }

  stream_protocol::socket socket_;
  const bool is_batched_;
  OnFrame on_frame_;
  std::function<void()> on_batch_;
  std::function<void()> on_end_;
  FrameBuffer received_;
  std::string queued_;
  std::size_t sent_ = 0;        // Of what is queued.
  std::size_t frame_left_ = 0;  // Of the frame that has begun to be written.
  bool is_waiting_ = false;
};

using Links = std::vector<std::unique_ptr<AsioLink>>;

// After a batch on one connection, others may have frames to write.
void FlushAll(const Links& links) {
  for (const auto& link : links) link->Flush();
}

bool IsBatched(const Options& options) {
  if (options.interface == "batched") return true;
  if (options.interface == "each" || options.interface.empty()) return false;
  Fail("--interface is each or batched");
}

void Serve(const Options& options, Meter& meter) {
  asio::io_context io{1};
  asio::error_code error;
  stream_protocol::acceptor acceptor(io);
  acceptor.open(stream_protocol(), error);
  acceptor.bind(stream_protocol::endpoint(options.socket_path), error);
  acceptor.listen(asio::socket_base::max_listen_connections, error);
  if (error) Fail("cannot listen");
  meter.SetReady();
  BareServer server(options, meter);
  Links links;
  while (static_cast<int>(links.size()) < options.hosts) {
    stream_protocol::socket socket(io);
    acceptor.accept(socket, error);
    links.push_back(
        std::make_unique<AsioLink>(std::move(socket), IsBatched(options)));
    server.Connected(links.back().get());
    links.back()->Start(
        [&](Link& link, const FrameHeader& header, const char* payload) {
          server.OnFrame(link, header, payload);
        },
        [&links] { FlushAll(links); }, [] {});
  }
  io.run();
}

void Drive(const Options& options, Meter& meter) {
  asio::io_context io{1};
  Links links;
  std::vector<Link*> borrowed;
  for (int i = 0; i < options.hosts; ++i) {
    stream_protocol::socket socket(io);
    asio::error_code error;
    socket.connect(stream_protocol::endpoint(options.socket_path), error);
    if (error) Fail("cannot connect");
    links.push_back(
        std::make_unique<AsioLink>(std::move(socket), IsBatched(options)));
    borrowed.push_back(links.back().get());
  }
  BareHost host(options, meter, borrowed);
  for (const auto& link : links) {
    link->Flush();
    link->Start(
        [&](Link& from, const FrameHeader& header, const char* payload) {
          host.OnFrame(from, header, payload);
          if (meter.is_done()) io.stop();
        },
        [&links] { FlushAll(links); }, [&io] { io.stop(); });
  }
  if (options.figure != Figure::kStorm) {
    io.run();
    return;
  }
  while (!meter.is_done()) {
    host.SendMove();
    FlushAll(links);
    io.poll();
  }
}

}  // namespace
}  // namespace benchmarks

int main(int argc, char** argv) {
  return benchmarks::Run(
      argc, argv, {.serve = benchmarks::Serve, .drive = benchmarks::Drive});
}
