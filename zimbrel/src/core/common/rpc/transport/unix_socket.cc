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
#include <filesystem>
#include <list>
#include <optional>
#include <system_error>
#include <utility>

#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"

namespace orvane {

namespace fs = std::filesystem;

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
  if (path.find('\0') != std::string::npos)
    return absl::InvalidArgumentError("the socket's path has a zero byte");
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

absl::StatusOr<DescriptorPair> NewPair(int type) {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends.data()) != 0)
    return SystemError("cannot make a pair of sockets");
  return DescriptorPair(ends[0], ends[1]);
}

using FileId = std::pair<dev_t, ino_t>;

FileId IdOf(const struct stat& info) { return {info.st_dev, info.st_ino}; }

// The file or link of that name; empty if there is none.
std::optional<FileId> Find(const fs::path& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return std::nullopt;
  return IdOf(info);
}

std::string ModeInWords(mode_t mode) {
  return absl::StrCat("mode ", absl::Hex(mode >> 6 & 7),
                      absl::Hex(mode >> 3 & 7), absl::Hex(mode & 7));
}

// OK if only this user and root can replace a folder or link, or what is in it.
// In a sticky folder, nobody can replace what belongs to others.
absl::Status CheckOnTheWay(const fs::path& path, const struct stat& info) {
  if (info.st_uid != ::geteuid() && info.st_uid != 0) {
    return absl::PermissionDeniedError(absl::StrCat(
        path.native(), ", on the way to the socket, belongs to user ",
        info.st_uid, "; it must belong to root or user ", ::geteuid(),
        ", as whom this process runs"));
  }
  if (S_ISDIR(info.st_mode) && (info.st_mode & (S_IWGRP | S_IWOTH)) != 0 &&
      (info.st_mode & S_ISVTX) == 0) {
    return absl::PermissionDeniedError(absl::StrCat(
        path.native(), ", on the way to the socket, has ",
        ModeInWords(info.st_mode),
        ", so others could replace what is in it; make it writable by its "
        "owner only, or sticky"));
  }
  return absl::OkStatus();
}

// Follows the absolute path of a folder up to its last name and returns it
// without links. The last name may be missing or a link.
absl::StatusOr<fs::path> FollowTo(const fs::path& folder) {
  constexpr int kMostLinks = 40;  // As many as the kernel follows.
  std::list<fs::path> names(folder.begin(), folder.end());
  const auto says_nothing = [](const fs::path& name) {
    return name.empty() || name == ".";
  };
  names.remove_if(says_nothing);
  fs::path reached = "/";
  for (int links = 0; names.size() > 1;) {
    const fs::path name = std::move(names.front());
    names.pop_front();
    if (name == "..") {
      reached = reached.parent_path();
      continue;
    }
    const fs::path next = reached / name;
    struct stat info {};
    if (::lstat(next.c_str(), &info) != 0) {
      return SystemError(absl::StrCat("cannot inspect ", next.native(),
                                      ", on the way to the socket"));
    }
    if (absl::Status status = CheckOnTheWay(next, info); !status.ok())
      return status;
    if (!S_ISLNK(info.st_mode)) {
      reached = next;
      continue;
    }
    std::error_code error;
    const fs::path target = fs::read_symlink(next, error);
    if (error || ++links > kMostLinks) {
      return absl::FailedPreconditionError(absl::StrCat(
          "cannot follow the link ", next.native(), " on the way to the socket",
          error ? ": " + error.message() : ", after so many others"));
    }
    std::list<fs::path> behind(target.begin(), target.end());
    behind.remove_if(says_nothing);
    names.splice(names.begin(), behind);
  }
  return reached / names.back();
}

absl::Status CheckPrivate(const fs::path& folder) {
  struct stat info {};
  if (::lstat(folder.c_str(), &info) != 0) {
    return SystemError(
        absl::StrCat("cannot inspect the socket's folder ", folder.native()));
  }
  if (!S_ISDIR(info.st_mode)) {
    return absl::FailedPreconditionError(
        absl::StrCat(folder.native(), " is not a folder"));
  }
  if (info.st_uid != ::geteuid()) {
    return absl::PermissionDeniedError(absl::StrCat(
        "the socket's folder ", folder.native(), " belongs to user ",
        info.st_uid, ", and this process runs as user ", ::geteuid()));
  }
  if ((info.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    return absl::PermissionDeniedError(absl::StrCat(
        "the socket's folder ", folder.native(), " has ",
        ModeInWords(info.st_mode), "; it must be 700, private to its owner"));
  }
  return absl::OkStatus();
}

absl::Status ListensAlready(const std::string& path) {
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
  if (::connect(probe->get(), AsGeneric(address), sizeof address) == 0)
    return ListensAlready(path);
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

// What is in the file system goes away with this object, however far it came.
class ListeningSocket::Files {
 public:
  explicit Files(std::string path) : path_(std::move(path)) {}
  Files(const Files&) = delete;
  Files& operator=(const Files&) = delete;
  ~Files() {
    if (socket_.has_value() && Find(socket_path_) == socket_)
      ::unlink(socket_path_.c_str());
    if (lock_.has_value()) ::unlink(lock_path_.c_str());
    if (made_folder_) ::rmdir(folder_.c_str());  // If it is empty.
  }

  // Keeps the path for this server, and with it the folder. Without it, if two
  // servers started at the same time over a stale socket, one could remove the
  // socket that the other has just created.
  absl::Status Reserve() {
    std::error_code error;
    const fs::path whole = fs::absolute(path_, error);
    if (error) {
      return absl::UnavailableError(
          absl::StrCat("cannot find the current folder: ", error.message()));
    }
    absl::StatusOr<fs::path> folder = FollowTo(whole.parent_path());
    if (!folder.ok()) return folder.status();
    folder_ = *std::move(folder);
    socket_path_ = folder_ / whole.filename();
    lock_path_ = socket_path_.native() + ".lock";
    absl::StatusOr<bool> is_reserved = false;
    while (is_reserved.ok() && !*is_reserved) {
      if (absl::Status status = MakeFolder(); !status.ok()) return status;
      is_reserved = Lock();
    }
    return is_reserved.status();
  }

  absl::Status Bind(int socket, const sockaddr_un& address) {
    const auto bind = [&] {
      return ::bind(socket, AsGeneric(address), sizeof address) == 0;
    };
    if (!bind()) {
      if (errno != EADDRINUSE)
        return SystemError(absl::StrCat("cannot bind ", path_));
      if (absl::Status status = RemoveStale(path_, address); !status.ok())
        return status;
      if (!bind()) return SystemError(absl::StrCat("cannot bind ", path_));
    }
    socket_ = Find(socket_path_);
    // The folder already keeps other users out.
    if (::chmod(path_.c_str(), S_IRUSR | S_IWUSR) != 0)
      return SystemError(absl::StrCat("cannot make ", path_, " private"));
    return absl::OkStatus();
  }

 private:
  absl::Status MakeFolder() {
    if (::mkdir(folder_.c_str(), S_IRWXU) == 0) {
      made_folder_ = true;
    } else if (errno != EEXIST) {
      return SystemError(
          absl::StrCat("cannot make the socket's folder ", folder_.native()));
    }
    return CheckPrivate(folder_);
  }

  // False if another server has just removed the lock file or its folder.
  absl::StatusOr<bool> Lock() {
    OwnedDescriptor lock(::open(lock_path_.c_str(),
                                O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
                                S_IRUSR | S_IWUSR));
    if (lock.get() < 0) {
      if (errno == ENOENT) return false;
      return SystemError(
          absl::StrCat("cannot open the lock ", lock_path_.native()));
    }
    struct stat info {};
    if (::fstat(lock.get(), &info) != 0) {
      return SystemError(
          absl::StrCat("cannot inspect the lock ", lock_path_.native()));
    }
    if (!S_ISREG(info.st_mode) || info.st_size != 0) {
      return absl::AlreadyExistsError(absl::StrCat(
          lock_path_.native(), " exists and is not the lock of a server"));
    }
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno == EWOULDBLOCK) return ListensAlready(path_);
      absl::Status why = SystemError(
          absl::StrCat("cannot take the lock ", lock_path_.native()));
      // Locks do not work here, so no other server has it.
      ::unlink(lock_path_.c_str());
      return why;
    }
    if (Find(lock_path_) != IdOf(info)) return false;
    lock_.emplace(std::move(lock));
    return true;
  }

  const std::string path_;  // As the application names it.
  // The same without links.
  fs::path folder_;
  fs::path socket_path_;
  fs::path lock_path_;
  bool made_folder_ = false;
  std::optional<OwnedDescriptor> lock_;
  std::optional<FileId> socket_;  // In case another server replaces it.
};

absl::StatusOr<ListeningSocket> ListeningSocket::Open(const std::string& path) {
  const absl::StatusOr<sockaddr_un> address = AddressOf(path);
  if (!address.ok()) return address.status();
  auto files = std::make_unique<Files>(path);
  if (absl::Status status = files->Reserve(); !status.ok()) return status;
  absl::StatusOr<OwnedDescriptor> descriptor = NewSocket();
  if (!descriptor.ok()) return descriptor.status();
  if (absl::Status status = files->Bind(descriptor->get(), *address);
      !status.ok())
    return status;
  if (::listen(descriptor->get(), SOMAXCONN) != 0)
    return SystemError(absl::StrCat("cannot listen at ", path));
  return ListeningSocket(std::move(files), *std::move(descriptor));
}

ListeningSocket::ListeningSocket(std::unique_ptr<Files> files,
                                 OwnedDescriptor descriptor)
    : files_(std::move(files)), descriptor_(std::move(descriptor)) {}

ListeningSocket::ListeningSocket(ListeningSocket&&) noexcept = default;

ListeningSocket::~ListeningSocket() = default;

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

absl::StatusOr<DescriptorPair> ConnectedPair() { return NewPair(SOCK_STREAM); }

absl::StatusOr<DescriptorPair> ChannelPair() { return NewPair(SOCK_SEQPACKET); }

absl::StatusOr<OwnedDescriptor> ConnectThrough(int channel) {
  absl::StatusOr<DescriptorPair> pair = ConnectedPair();
  if (!pair.ok()) return pair.status();
  char byte = 0;
  iovec text = {&byte, sizeof byte};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &text;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr* const part = CMSG_FIRSTHDR(&message);
  part->cmsg_level = SOL_SOCKET;
  part->cmsg_type = SCM_RIGHTS;
  part->cmsg_len = CMSG_LEN(sizeof(int));
  const int passed = pair->second.get();
  std::memcpy(CMSG_DATA(part), &passed, sizeof passed);
  if (TEMP_FAILURE_RETRY(
          ::sendmsg(channel, &message, MSG_NOSIGNAL | MSG_DONTWAIT)) >= 0)
    return std::move(pair->first);
  if (errno == EAGAIN || errno == ETOOMANYREFS) {
    return absl::UnavailableError(
        "the server does not take the connections that wait for it");
  }
  const int error = errno;
  return absl::UnavailableError(
      absl::StrCat("no server takes connections: ", std::strerror(error)));
}

std::vector<OwnedDescriptor> TakeInheritedSockets() {
  constexpr int kFirst = 3;
  const auto number = [](const char* variable) {
    const char* const text = std::getenv(variable);
    int value = 0;
    return text != nullptr && absl::SimpleAtoi(text, &value) ? value : 0;
  };
  const int count =
      number("LISTEN_PID") == ::getpid() ? number("LISTEN_FDS") : 0;
  for (const char* const variable :
       {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"})
    ::unsetenv(variable);
  std::vector<OwnedDescriptor> sockets;
  for (int i = 0; i < count; ++i) {
    // Not for programs that this one starts.
    if (::fcntl(kFirst + i, F_SETFD, FD_CLOEXEC) != 0) break;
    sockets.emplace_back(kFirst + i);
  }
  return sockets;
}

absl::StatusOr<SocketKind> KindOfSocket(int descriptor) {
  const auto option = [descriptor](int name) -> absl::StatusOr<int> {
    int value = 0;
    socklen_t size = sizeof value;
    if (::getsockopt(descriptor, SOL_SOCKET, name, &value, &size) != 0)
      return SystemError(absl::StrCat("descriptor ", descriptor));
    return value;
  };
  const auto domain = option(SO_DOMAIN);
  const auto type = option(SO_TYPE);
  const auto listens = option(SO_ACCEPTCONN);
  for (const auto* known : {&domain, &type, &listens}) {
    if (!known->ok()) return known->status();
  }
  if (*domain == AF_UNIX && *type == SOCK_STREAM && *listens != 0)
    return SocketKind::kListening;
  if (*domain == AF_UNIX && *listens == 0 &&
      (*type == SOCK_STREAM || *type == SOCK_SEQPACKET)) {
    sockaddr_un peer = {};
    socklen_t size = sizeof peer;
    if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) !=
        0) {
      return SystemError(absl::StrCat("descriptor ", descriptor));
    }
    return *type == SOCK_STREAM ? SocketKind::kConnected : SocketKind::kChannel;
  }
  return absl::InvalidArgumentError(absl::StrCat(
      "descriptor ", descriptor,
      " is not a Unix-domain socket of a kind that can be served"));
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
