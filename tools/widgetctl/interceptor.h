// Stands between hosts and a widget.

#ifndef TOOLS_WIDGETCTL_INTERCEPTOR_H_
#define TOOLS_WIDGETCTL_INTERCEPTOR_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/string_view.h"
#include "google/protobuf/descriptor.h"

#include "tools/widgetctl/conversation.h"
#include "tools/widgetctl/relay.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace widgetctl {

// Learns what hosts and the widget say to each other. Connections are numbered
// from 1.
class Listener {
 public:
  virtual ~Listener() = default;

  // A host has connected. An error tells why it was turned away.
  virtual void OnConnected(int connection, const absl::Status& joined) = 0;

  // In the order in which the frames came.
  virtual void OnSaid(int connection, Said said) = 0;

  // Runs after one or more calls of OnSaid: nothing more is there now.
  virtual void OnPause() = 0;

  // Both sides have closed the connection.
  virtual void OnEnded(int connection) = 0;
};

// Accepts hosts at a path, connects each with the widget that listens at
// another one, and passes on all that they send.
//
// Thread: the service thread of the loop. Lifetime: loop and listener outlive
// the interceptor.
class Interceptor {
 public:
  struct Options {
    std::string widget;  // Where it listens.
    std::vector<const google::protobuf::ServiceDescriptor*> services;
    bool wants_payloads;
  };

  Interceptor(orvane::EventLoop* loop, Options options, Listener* listener);
  Interceptor(const Interceptor&) = delete;
  Interceptor& operator=(const Interceptor&) = delete;

  absl::Status Listen(const std::string& path);

 private:
  struct Connection {
    Conversation conversation;
    std::unique_ptr<Relay> relay;
  };

  void Accept();
  absl::Status Join(int number, orvane::OwnedDescriptor host_socket);
  void Take(int number, Connection& connection, Side from,
            absl::string_view bytes);

  orvane::EventLoop* const loop_;
  const Options options_;
  Listener* const listener_;
  std::unique_ptr<orvane::ListeningSocket> socket_;
  std::unique_ptr<orvane::EventLoop::Watch> acceptor_;
  std::unique_ptr<orvane::EventLoop::Timer> next_accept_;
  int count_ = 0;
  std::map<int, Connection> connections_;
};

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_INTERCEPTOR_H_
