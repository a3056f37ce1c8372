// Unix-domain sockets that only their owner can reach. Thread: any, an object
// used by one at a time.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_UNIX_SOCKET_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_UNIX_SOCKET_H_

#include <string>
#include <utility>

#include "absl/status/status.h"
#include "absl/status/statusor.h"

#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace orvane {

// Where a server listens and its hosts look when nobody says otherwise:
// `name`.sock in $XDG_RUNTIME_DIR/orvane, or in /tmp/orvane-UID without one.
std::string DefaultSocketPath(const std::string& name);

// A listening socket with the file that it is reached by. Closing it removes
// the file, unless another server's has taken its place.
class ListeningSocket {
 public:
  // Listens at `path`. The folder must be private to this user (mode 0700); it
  // is made if only it is missing. A socket file that nobody listens at is
  // replaced, under a lock: the file `path`.lock, which stays. Errors say what
  // is wrong with which path: among them a server that is alive there, a folder
  // that others can enter, a path that is too long.
  static absl::StatusOr<ListeningSocket> Open(const std::string& path);

  ListeningSocket(ListeningSocket&& other) noexcept;
  ListeningSocket& operator=(ListeningSocket&&) = delete;
  ~ListeningSocket();

  // Gives the descriptor to the caller; this object still removes the file.
  int ReleaseDescriptor() { return descriptor_.Release(); }

 private:
  ListeningSocket(OwnedDescriptor descriptor, OwnedDescriptor lock,
                  std::string path);

  OwnedDescriptor lock_;  // Held until the file is removed.
  OwnedDescriptor descriptor_;
  std::string path_;  // Empty once moved from.
  // Tells our file from one that another server has put in its place.
  unsigned long device_ = 0;
  unsigned long inode_ = 0;
};

// Connects to the server at `path`. Waits only as long as the server's queue of
// connections is full.
absl::StatusOr<OwnedDescriptor> ConnectTo(const std::string& path);

// Two sockets connected to each other. For a server and a client in one
// process, as tests want them, or for a child process to inherit one.
absl::StatusOr<std::pair<OwnedDescriptor, OwnedDescriptor>> ConnectedPair();

// OK if the process at the other end of a connected socket runs as this user or
// as root; else words with both users' ids.
absl::Status CheckPeerIsThisUser(int descriptor);

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_UNIX_SOCKET_H_
