// Unix-domain sockets that only their owner can reach. Thread: any, but an
// object only by one at a time.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_UNIX_SOCKET_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_UNIX_SOCKET_H_

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"

#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace orvane {

// The default path of a server's socket: `name`.sock in $XDG_RUNTIME_DIR/orvane
// or, if that variable is not set, in /tmp/orvane-UID.
std::string DefaultSocketPath(const std::string& name);

// A listening socket and the files that belong to it: the socket file, a lock
// and, if it was missing, their folder. Destroying it removes them, but not a
// socket file that another server has put in place of its own, nor a folder
// with something else in it.
class ListeningSocket {
 public:
  // Listens at `path`. Nobody but this user and root may be able to replace
  // what is there: the folder must be private to this user (mode 0700), and
  // each folder and symbolic link on the way to it must belong to this user or
  // root. Those folders must not be writable by others unless they are sticky,
  // like /tmp. The last folder is created if it is missing, but not its parent.
  // A socket file is replaced if no server listens there any more; a lock on
  // the file `path`.lock guards that.
  //
  // Errors tell the path and what is wrong with it: for example, a server
  // listens there already, others can enter the folder, or the path is too
  // long. After an error nothing is left behind.
  static absl::StatusOr<ListeningSocket> Open(const std::string& path);

  ListeningSocket(ListeningSocket&&) noexcept;
  ListeningSocket& operator=(ListeningSocket&&) = delete;
  ~ListeningSocket();

  // Passes the descriptor to the caller; this object still removes the files.
  int ReleaseDescriptor() { return descriptor_.Release(); }

 private:
  class Files;

  ListeningSocket(std::unique_ptr<Files> files, OwnedDescriptor descriptor);

  std::unique_ptr<Files> files_;
  OwnedDescriptor descriptor_;
};

// Connects to the server at `path`. Blocks only while the server's queue of
// connections is full.
absl::StatusOr<OwnedDescriptor> ConnectTo(const std::string& path);

using DescriptorPair = std::pair<OwnedDescriptor, OwnedDescriptor>;

// Two sockets connected to each other: for a server and a client in one
// process, as in tests, or for a child process that inherits one of them.
absl::StatusOr<DescriptorPair> ConnectedPair();

// Two ends of a channel over which connections are passed, so that a child
// process that inherits one of them can be connected to again and again: its
// server adopts that end. No path on disk is needed, and no time: connections
// wait in the channel until the server takes them.
absl::StatusOr<DescriptorPair> ChannelPair();

// Connects to the server that has, or will have, adopted the other end of a
// channel. Never blocks. kUnavailable if nobody has that end any more, or if
// more connections wait there than it holds.
absl::StatusOr<OwnedDescriptor> ConnectThrough(int channel);

// The sockets that a service manager passes to this process, in its order: the
// descriptors from 3 on that LISTEN_FDS counts if LISTEN_PID names this
// process. Both variables are removed from the environment, so that no program
// that this one starts takes them for its own. Called before other threads
// read the environment.
std::vector<OwnedDescriptor> TakeInheritedSockets();

enum class SocketKind { kConnected, kListening, kChannel };

// An error in words if this is no Unix-domain socket that a server can adopt.
absl::StatusOr<SocketKind> KindOfSocket(int descriptor);

// OK if the process at the other end of a connected socket runs as this user or
// as root; otherwise kPermissionDenied, with both users' ids.
absl::Status CheckPeerIsThisUser(int descriptor);

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_UNIX_SOCKET_H_
