#include "fuzz/program.h"

#include <getopt.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <sstream>
#include <streambuf>
#include <thread>

#include "absl/strings/str_split.h"
#include "absl/strings/string_view.h"
#include "gtest/gtest.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"
#include "zimbrel/src/core/common/rpc/printable.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"
#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"

namespace fuzz {

using rpc::transport::StreamMessage;

namespace {

// A frame with its length in front, or all bytes if it is longer than these.
std::string_view FirstFrame(std::string_view bytes) {
  std::uint32_t length = 0;
  if (bytes.size() < sizeof length) return bytes;
  std::memcpy(&length, bytes.data(), sizeof length);  // Little-endian.
  return bytes.substr(0, sizeof length + std::size_t{length});
}

// The call or stream that a frame belongs to; 0 if there is none.
std::uint64_t IdOf(std::string_view frame) {
  StreamMessage message;
  frame.remove_prefix(std::min(frame.size(), sizeof(std::uint32_t)));
  if (!message.ParseFromArray(frame.data(), static_cast<int>(frame.size())))
    return 0;
  return message.stream_id();
}

// The program at the other end of a connection. It may end it at any time.
class Peer {
 public:
  explicit Peer(int descriptor) : descriptor_(descriptor) {}

  // Waits until the program has begun that call or stream, as long as it sends
  // something now and then.
  void AwaitBegin(std::uint64_t id) {
    while (latest_id_ < id && IsReadableSoon() && Receive()) {
    }
  }

  void Send(std::string_view bytes) const {
    ::send(descriptor_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
  void FinishSending() const { ::shutdown(descriptor_.get(), SHUT_WR); }
  void AwaitEnd() {
    while (Receive()) {
    }
  }

 private:
  bool IsReadableSoon() const {
    constexpr int kMilliseconds = 10;
    pollfd peer = {descriptor_.get(), POLLIN, 0};
    return ::poll(&peer, 1, kMilliseconds) > 0;
  }

  // False at the end.
  bool Receive() {
    const ssize_t count =
        ::recv(descriptor_.get(), reader_.Space(), reader_.room(), 0);
    if (count <= 0) return false;
    reader_.Received(static_cast<std::size_t>(count));
    for (auto frame = *reader_.Next(); frame.has_value();
         frame = *reader_.Next()) {
      StreamMessage message;
      message.ParseFromArray(frame->data(), static_cast<int>(frame->size()));
      latest_id_ = std::max(latest_id_, message.stream_id());
    }
    return true;
  }

  const orvane::OwnedDescriptor descriptor_;
  orvane::internal::FrameReader reader_{
      orvane::ClientOptions().max_frame_bytes};
  std::uint64_t latest_id_ = 0;
};

// On a thread of its own, since the program has this one.
class Server {
 public:
  Server(const std::string& path, std::string_view bytes)
      : files_(*orvane::ListeningSocket::Open(path)),
        listening_(files_.ReleaseDescriptor()),
        thread_([this, bytes] { Serve(bytes); }) {}
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  ~Server() {
    // A program that has not connected is not waited for any more.
    ::shutdown(listening_.get(), SHUT_RDWR);
    thread_.join();
  }

 private:
  // What the program sends is taken to be right; it is not what is tested.
  void Serve(std::string_view bytes) const {
    Peer peer(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    while (!bytes.empty()) {
      const std::string_view frame = FirstFrame(bytes);
      bytes.remove_prefix(frame.size());
      peer.AwaitBegin(IdOf(frame));
      peer.Send(frame);
    }
    peer.FinishSending();
    peer.AwaitEnd();
  }

  orvane::ListeningSocket files_;
  const orvane::OwnedDescriptor listening_;
  std::thread thread_;
};

// Takes what is written to a stream instead of its own buffer.
class Capture {
 public:
  explicit Capture(std::ostream* stream)
      : stream_(stream), replaced_(stream->rdbuf(text_.rdbuf())) {}
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;
  ~Capture() { stream_->rdbuf(replaced_); }

  std::string text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::ostream* const stream_;
  std::streambuf* const replaced_;
};

}  // namespace

ProgramRun RunProgram(std::vector<std::string> arguments,
                      std::string_view bytes) {
  const orvane::testing::TemporaryFolder folder;
  const std::string socket = folder.path() + "/widget.sock";
  const Server server(socket, bytes);
  arguments.insert(arguments.begin() + 1, {"--socket", socket});
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  const Capture output(&std::cout);
  const Capture errors(&std::cerr);
  optind = 0;  // Makes getopt_long begin anew.
  ProgramRun run;
  run.exit_code = ProgramMain(static_cast<int>(arguments.size()), argv.data());
  run.output = output.text();
  run.errors = errors.text();
  return run;
}

void ExpectPrintable(const std::string& lines) {
  for (const absl::string_view line : absl::StrSplit(lines, '\n'))
    EXPECT_EQ(orvane::Printable(line, line.size()), line);
}

}  // namespace fuzz
