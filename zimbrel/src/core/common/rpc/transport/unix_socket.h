// Unix-domain sockets that only their owner can reach. Thread: any, but an
// object only by one at a time.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_UNIX_SOCKET_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_UNIX_SOCKET_H_

#include <memory>
#include <string>
#include <utility>

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

// Two sockets connected to each other: for a server and a client in one
// process, as in tests, or for a child process that inherits one of them.
absl::StatusOr<std::pair<OwnedDescriptor, OwnedDescriptor>> ConnectedPair();

// OK if the process at the other end of a connected socket runs as this user or
// as root; otherwise kPermissionDenied, with both users' ids.
absl::Status CheckPeerIsThisUser(int descriptor);

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_UNIX_SOCKET_H_
