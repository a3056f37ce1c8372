#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"

namespace orvane {
namespace {

absl::Status SystemError(absl::string_view what) {
  const int error = errno;
  return absl::ErrnoToStatus(error, what);
}

absl::StatusOr<sockaddr_un> AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty())
    return absl::InvalidArgumentError("the socket's path is empty");
  if (path.size() >= sizeof address.sun_path) {
    return absl::InvalidArgumentError(absl::StrCat(
        "the socket's path has ", path.size(), " bytes; the limit is ",
        sizeof address.sun_path - 1, ": ", path));
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

const sockaddr* AsGeneric(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

absl::StatusOr<OwnedDescriptor> NewSocket() {
  OwnedDescriptor descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (descriptor.get() < 0) return SystemError("cannot make a socket");
  return descriptor;
}

std::string FolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

absl::Status EnsurePrivate(const std::string& folder) {
  if (::mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
    return SystemError(
        absl::StrCat("cannot make the socket's folder ", folder));
  }
  struct stat info {};
  if (::lstat(folder.c_str(), &info) != 0) {
    return SystemError(
        absl::StrCat("cannot inspect the socket's folder ", folder));
  }
  if (!S_ISDIR(info.st_mode)) {
    return absl::FailedPreconditionError(
        absl::StrCat(folder, " is not a folder"));
  }
  if (info.st_uid != ::geteuid()) {
    return absl::PermissionDeniedError(absl::StrCat(
        "the socket's folder ", folder, " belongs to user ", info.st_uid,
        ", and this process runs as user ", ::geteuid()));
  }
  if ((info.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    return absl::PermissionDeniedError(absl::StrCat(
        "the socket's folder ", folder, " has mode ",
        absl::Hex(info.st_mode >> 6 & 7), absl::Hex(info.st_mode >> 3 & 7),
        absl::Hex(info.st_mode & 7), "; it must be 700, private to its owner"));
  }
  return absl::OkStatus();
}

// Reserves `path` for this server until the result is destroyed. Without it, if
// two servers started at the same time over a stale socket, one could remove
// the socket that the other has just created. The lock file is never removed:
// otherwise two servers could each hold a lock on a file of that name.
absl::StatusOr<OwnedDescriptor> Lock(const std::string& path) {
  const std::string lock_path = path + ".lock";
  OwnedDescriptor lock(::open(lock_path.c_str(),
                              O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
                              S_IRUSR | S_IWUSR));
  if (lock.get() < 0) {
    return SystemError(absl::StrCat("cannot open the lock ", lock_path));
  }
  if (::flock(lock.get(), LOCK_EX | LOCK_NB) == 0) return lock;
  if (errno != EWOULDBLOCK) {
    return SystemError(absl::StrCat("cannot take the lock ", lock_path));
  }
  return absl::AlreadyExistsError(
      absl::StrCat("a server listens at ", path, " already"));
}

// Removes a socket file at which no server listens.
absl::Status RemoveStale(const std::string& path, const sockaddr_un& address) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) == 0 && !S_ISSOCK(info.st_mode)) {
    return absl::AlreadyExistsError(
        absl::StrCat(path, " exists and is not a socket"));
  }
  const absl::StatusOr<OwnedDescriptor> probe = NewSocket();
  if (!probe.ok()) return probe.status();
  if (::connect(probe->get(), AsGeneric(address), sizeof address) == 0) {
    return absl::AlreadyExistsError(
        absl::StrCat("a server listens at ", path, " already"));
  }
  if (errno != ECONNREFUSED)
    return SystemError(
        absl::StrCat("cannot tell whether a server listens at ", path));
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    return SystemError(absl::StrCat("cannot remove the stale socket ", path));
  }
  return absl::OkStatus();
}

}  // namespace

std::string DefaultSocketPath(const std::string& name) {
  const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
  const std::string folder = runtime != nullptr && *runtime != '\0'
                                 ? absl::StrCat(runtime, "/orvane")
                                 : absl::StrCat("/tmp/orvane-", ::geteuid());
  return absl::StrCat(folder, "/", name, ".sock");
}

absl::StatusOr<ListeningSocket> ListeningSocket::Open(const std::string& path) {
  const absl::StatusOr<sockaddr_un> address = AddressOf(path);
  if (!address.ok()) return address.status();
  if (absl::Status status = EnsurePrivate(FolderOf(path)); !status.ok())
    return status;
  absl::StatusOr<OwnedDescriptor> lock = Lock(path);
  if (!lock.ok()) return lock.status();
  absl::StatusOr<OwnedDescriptor> descriptor = NewSocket();
  if (!descriptor.ok()) return descriptor.status();

  const auto bind = [&] {
    return ::bind(descriptor->get(), AsGeneric(*address), sizeof *address) == 0;
  };
  if (!bind()) {
    if (errno != EADDRINUSE)
      return SystemError(absl::StrCat("cannot bind ", path));
    if (absl::Status status = RemoveStale(path, *address); !status.ok())
      return status;
    if (!bind()) return SystemError(absl::StrCat("cannot bind ", path));
  }
  ListeningSocket listening(*std::move(descriptor), *std::move(lock), path);
  // The folder already keeps other users out.
  if (::chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0) {
    return SystemError(absl::StrCat("cannot make ", path, " private"));
  }
  if (::listen(listening.descriptor_.get(), SOMAXCONN) != 0) {
    return SystemError(absl::StrCat("cannot listen at ", path));
  }
  return listening;
}

ListeningSocket::ListeningSocket(OwnedDescriptor descriptor,
                                 OwnedDescriptor lock, std::string path)
    : lock_(std::move(lock)),
      descriptor_(std::move(descriptor)),
      path_(std::move(path)) {
  struct stat info {};
  if (::lstat(path_.c_str(), &info) == 0) {
    device_ = info.st_dev;
    inode_ = info.st_ino;
  }
}

ListeningSocket::ListeningSocket(ListeningSocket&& other) noexcept
    : lock_(std::move(other.lock_)),
      descriptor_(std::move(other.descriptor_)),
      path_(std::exchange(other.path_, {})),
      device_(other.device_),
      inode_(other.inode_) {}

ListeningSocket::~ListeningSocket() {
  if (path_.empty()) return;
  struct stat info {};
  if (::lstat(path_.c_str(), &info) == 0 && info.st_dev == device_ &&
      info.st_ino == inode_) {
    ::unlink(path_.c_str());
  }
}

absl::StatusOr<OwnedDescriptor> ConnectTo(const std::string& path) {
  const absl::StatusOr<sockaddr_un> address = AddressOf(path);
  if (!address.ok()) return address.status();
  absl::StatusOr<OwnedDescriptor> descriptor = NewSocket();
  if (!descriptor.ok()) return descriptor.status();
  int result = 0;
  do {
    result = ::connect(descriptor->get(), AsGeneric(*address), sizeof *address);
  } while (result != 0 && errno == EINTR);
  if (result == 0) return descriptor;
  const int error = errno;
  const std::string reason = absl::StrCat(path, ": ", std::strerror(error));
  return error == EACCES || error == EPERM
             ? absl::PermissionDeniedError(
                   absl::StrCat("not allowed to connect to ", reason))
             : absl::UnavailableError(
                   absl::StrCat("no server listens at ", reason));
}

absl::StatusOr<std::pair<OwnedDescriptor, OwnedDescriptor>> ConnectedPair() {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    return SystemError("cannot make a pair of sockets");
  }
  return std::make_pair(OwnedDescriptor(ends[0]), OwnedDescriptor(ends[1]));
}

absl::Status CheckPeerIsThisUser(int descriptor) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    return SystemError("cannot read the user id of the socket's peer");
  }
  if (peer.uid == ::geteuid() || peer.uid == 0) return absl::OkStatus();
  return absl::PermissionDeniedError(
      absl::StrCat("the peer runs as user ", peer.uid,
                   ", and this process as user ", ::geteuid()));
}

}  // namespace orvane
