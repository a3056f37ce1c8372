// Unix-domain sockets that only their owner can reach. Thread: any, but an
// object only by one at a time.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_UNIX_SOCKET_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_UNIX_SOCKET_H_

#include <string>
#include <utility>

#include "absl/status/status.h"
#include "absl/status/statusor.h"

#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace orvane {

// The default path of a server's socket: `name`.sock in $XDG_RUNTIME_DIR/orvane
// or, if that variable is not set, in /tmp/orvane-UID.
std::string DefaultSocketPath(const std::string& name);

// A listening socket and its socket file. Destroying it removes the file,
// unless another server has replaced the file.
class ListeningSocket {
 public:
  // Listens at `path`. The folder must be private to this user (mode 0700); if
  // it is missing, it is created, but not its parent. A socket file is replaced
  // if no server listens there any more; a lock on the file `path`.lock, which
  // is left behind, guards that. Errors tell the path and what is wrong with
  // it: for example, a server listens there already, others can enter the
  // folder, or the path is too long.
  static absl::StatusOr<ListeningSocket> Open(const std::string& path);

  ListeningSocket(ListeningSocket&& other) noexcept;
  ListeningSocket& operator=(ListeningSocket&&) = delete;
  ~ListeningSocket();

  // Passes the descriptor to the caller; this object still removes the file.
  int ReleaseDescriptor() { return descriptor_.Release(); }

 private:
  ListeningSocket(OwnedDescriptor descriptor, OwnedDescriptor lock,
                  std::string path);

  OwnedDescriptor lock_;  // Held until the file is removed.
  OwnedDescriptor descriptor_;
  std::string path_;  // Empty once moved from.
  // Identify our file, in case another server has replaced it.
  unsigned long device_ = 0;
  unsigned long inode_ = 0;
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
