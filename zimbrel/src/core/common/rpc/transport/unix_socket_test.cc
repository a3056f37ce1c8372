#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"

namespace orvane::testing {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

constexpr uid_t kNobody = 65534;

class UnixSocketTest : public ::testing::Test {
 protected:
  std::string Path(const std::string& name) const {
    return folder_.path() + "/" + name;
  }

  static std::string ErrorOf(const std::string& path) {
    const absl::StatusOr<ListeningSocket> socket = ListeningSocket::Open(path);
    return socket.ok() ? "no error" : std::string(socket.status().message());
  }

  static unsigned ModeOf(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0);
    return info.st_mode & 0777;
  }

  static bool Exists(const std::string& path) {
    return std::filesystem::exists(path);
  }

  // Makes a folder of this mode and returns its path.
  std::string Folder(const std::string& name, mode_t mode) const {
    std::filesystem::create_directory(Path(name));
    EXPECT_EQ(::chmod(Path(name).c_str(), mode), 0);
    return Path(name);
  }

  const TemporaryFolder folder_;
};

TEST_F(UnixSocketTest, ListensAndIsConnectedTo) {
  const auto listening = ListeningSocket::Open(Path("s"));
  ASSERT_TRUE(listening.ok()) << listening.status();
  EXPECT_TRUE(ConnectTo(Path("s")).ok());
}

TEST_F(UnixSocketTest, TheSocketIsItsOwnersAlone) {
  const auto listening = ListeningSocket::Open(Path("s"));
  ASSERT_TRUE(listening.ok()) << listening.status();
  EXPECT_EQ(ModeOf(Path("s")), 0600u);
}

TEST_F(UnixSocketTest, MakesItsFolderPrivate) {
  const auto listening = ListeningSocket::Open(Path("new/s"));
  ASSERT_TRUE(listening.ok()) << listening.status();
  EXPECT_EQ(ModeOf(Path("new")), 0700u);
}

TEST_F(UnixSocketTest, MakesNoMoreThanTheLastFolder) {
  EXPECT_THAT(ErrorOf(Path("a/b/s")), HasSubstr("cannot inspect " + Path("a")));
  EXPECT_FALSE(Exists(Path("a")));
}

TEST_F(UnixSocketTest, RefusesAFolderThatOthersCanEnter) {
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
  EXPECT_THAT(ErrorOf(Path("s")),
              AllOf(HasSubstr("has mode 755"), HasSubstr("must be 700")));
}

TEST_F(UnixSocketTest, RefusesAFolderOfSomebodyElse) {
  if (::geteuid() != 0)
    GTEST_SKIP() << "only root can make a folder of another user";
  ASSERT_EQ(::chown(folder_.path().c_str(), kNobody, kNobody), 0);
  EXPECT_THAT(ErrorOf(Path("s")), HasSubstr("belongs to user 65534"));
}

TEST_F(UnixSocketTest, RefusesALinkInPlaceOfTheFolder) {
  std::filesystem::create_symlink(Folder("real", 0700), Path("link"));
  for (const std::string path : {"link/s", "link//s", "link/./s", "link/.//s"})
    EXPECT_THAT(ErrorOf(Path(path)), HasSubstr("link is not a folder")) << path;
}

TEST_F(UnixSocketTest, FollowsALinkOnTheWay) {
  Folder("real", 0755);
  std::filesystem::create_symlink("real/.", Path("relative"));
  std::filesystem::create_symlink(Path("relative/"), Path("absolute"));
  const auto listening = ListeningSocket::Open(Path("absolute/new/s"));
  ASSERT_TRUE(listening.ok()) << listening.status();
  EXPECT_TRUE(Exists(Path("real/new/s")));
}

TEST_F(UnixSocketTest, TheFolderAboveALinkIsThatOfItsTarget) {
  Folder("real", 0755);
  Folder("real/below", 0755);
  std::filesystem::create_symlink("real/below", Path("link"));
  const auto listening = ListeningSocket::Open(Path("link/../new/s"));
  ASSERT_TRUE(listening.ok()) << listening.status();
  EXPECT_TRUE(Exists(Path("real/new/s")));
}

TEST_F(UnixSocketTest, FollowsLinksInACircleNotForEver) {
  std::filesystem::create_symlink("circle", Path("circle"));
  EXPECT_THAT(ErrorOf(Path("circle/new/s")),
              HasSubstr("cannot follow the link " + Path("circle")));
}

TEST_F(UnixSocketTest, RefusesAFolderWhoseParentOthersCanChange) {
  for (const mode_t mode : {0777, 0702, 0720}) {
    const std::string parent = Folder("parent", mode);
    EXPECT_THAT(ErrorOf(parent + "/new/s"),
                AllOf(HasSubstr(parent + ", on the way to the socket, has"),
                      HasSubstr("others could replace what is in it")));
    EXPECT_FALSE(Exists(parent + "/new"));
  }
}

TEST_F(UnixSocketTest, RefusesAFolderWhoseParentsParentOthersCanChange) {
  Folder("open", 0777);
  Folder("open/parent", 0700);
  EXPECT_THAT(ErrorOf(Path("open/parent/new/s")), HasSubstr("mode 777"));
}

TEST_F(UnixSocketTest, RefusesALinkToAFolderWhoseParentOthersCanChange) {
  Folder("open", 0777);
  Folder("open/parent", 0700);
  std::filesystem::create_symlink("open/parent", Path("link"));
  EXPECT_THAT(ErrorOf(Path("link/new/s")), HasSubstr("mode 777"));
}

TEST_F(UnixSocketTest, TakesAFolderInAStickyOne) {
  const auto listening =
      ListeningSocket::Open(Folder("sticky", 01777) + "/new/s");
  EXPECT_TRUE(listening.ok()) << listening.status();
}

TEST_F(UnixSocketTest, RefusesAFolderBelowThatOfSomebodyElse) {
  if (::geteuid() != 0)
    GTEST_SKIP() << "only root can make a folder of another user";
  const std::string parent = Folder("parent", 0755);
  ASSERT_EQ(::chown(parent.c_str(), kNobody, kNobody), 0);
  EXPECT_THAT(
      ErrorOf(parent + "/new/s"),
      HasSubstr(parent + ", on the way to the socket, belongs to user 65534"));
}

TEST_F(UnixSocketTest, RefusesALinkOfSomebodyElse) {
  if (::geteuid() != 0)
    GTEST_SKIP() << "only root can make a link of another user";
  Folder("real", 0755);
  std::filesystem::create_symlink("real", Path("link"));
  ASSERT_EQ(::lchown(Path("link").c_str(), kNobody, kNobody), 0);
  EXPECT_THAT(ErrorOf(Path("link/new/s")),
              HasSubstr(Path("link") + ", on the way to the socket, belongs"));
}

TEST_F(UnixSocketTest, APathMayBeRelativeAndTheCurrentFolderMayChange) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(folder_.path());
  {
    const auto here = ListeningSocket::Open("s");
    const auto below = ListeningSocket::Open("new/s");
    std::filesystem::current_path(before);
    EXPECT_TRUE(here.ok()) << here.status();
    EXPECT_TRUE(below.ok()) << below.status();
    EXPECT_TRUE(Exists(Path("s")));
    EXPECT_TRUE(Exists(Path("new/s")));
  }
  EXPECT_TRUE(std::filesystem::is_empty(folder_.path()));
}

TEST_F(UnixSocketTest, ReplacesASocketThatNobodyListensAt) {
  {
    auto listening = ListeningSocket::Open(Path("s"));
    ASSERT_TRUE(listening.ok()) << listening.status();
    // Like after a crash: the descriptor is closed, the file stays.
    ::close(listening->ReleaseDescriptor());
    std::filesystem::create_hard_link(Path("s"), Path("kept"));
  }
  std::filesystem::rename(Path("kept"), Path("s"));
  const auto again = ListeningSocket::Open(Path("s"));
  EXPECT_TRUE(again.ok()) << again.status();
  EXPECT_TRUE(ConnectTo(Path("s")).ok());
}

TEST_F(UnixSocketTest, RefusesASocketOfALiveServer) {
  const auto first = ListeningSocket::Open(Path("s"));
  ASSERT_TRUE(first.ok()) << first.status();
  EXPECT_THAT(ErrorOf(Path("s")),
              HasSubstr("a server listens at " + Path("s") + " already"));
  EXPECT_TRUE(ConnectTo(Path("s")).ok()) << "the first server lost its socket";
}

TEST_F(UnixSocketTest, RefusesAPathThatAnotherServerHasClaimed) {
  // Like another server that is about to replace a stale socket.
  OwnedDescriptor lock(
      ::open(Path("s.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
  EXPECT_THAT(ErrorOf(Path("s")),
              HasSubstr("a server listens at " + Path("s") + " already"));
  EXPECT_FALSE(Exists(Path("s")));
}

// Tries to listen at `path` in a process of its own, once `gate` is closed, and
// keeps the socket until `end` is. Exits with 0 if it listens.
pid_t StartServer(const std::string& path, const int (&gate)[2],
                  const int (&end)[2], int told) {
  const pid_t server = ::fork();
  if (server != 0) return server;
  ::close(gate[1]);
  ::close(end[1]);
  char byte = 0;
  static_cast<void>(!::read(gate[0], &byte, 1));
  const auto listening = ListeningSocket::Open(path);
  if (::write(told, &byte, 1) != 1) ::_exit(2);
  static_cast<void>(!::read(end[0], &byte, 1));
  ::_exit(listening.ok() ? 0 : 1);
}

TEST_F(UnixSocketTest, OfServersThatStartAtOnceOverAStaleSocketOneListens) {
  constexpr int kServers = 8;
  for (int round = 0; round < 20; ++round) {
    int gate[2];
    int end[2];
    int told[2];
    ASSERT_EQ(::pipe(gate) + ::pipe(end) + ::pipe(told), 0);
    std::vector<pid_t> servers(kServers);
    for (pid_t& server : servers)
      server = StartServer(Path("s"), gate, end, told[1]);
    ::close(gate[1]);
    for (int i = 0; i < kServers; ++i) {
      char byte = 0;
      ASSERT_EQ(::read(told[0], &byte, 1), 1);
    }
    EXPECT_TRUE(ConnectTo(Path("s")).ok());
    ::close(end[1]);
    int listened = 0;
    for (const pid_t server : servers) {
      int status = 0;
      ASSERT_EQ(::waitpid(server, &status, 0), server);
      if (status == 0) ++listened;
    }
    EXPECT_EQ(listened, 1);
    // They left their socket file behind, so the next round finds a stale one.
    EXPECT_TRUE(Exists(Path("s")));
    for (const int descriptor : {gate[0], end[0], told[0], told[1]})
      ::close(descriptor);
  }
}

TEST_F(UnixSocketTest, RefusesAFileThatIsNoSocketAndLeavesIt) {
  std::ofstream(Path("s")) << "precious";
  EXPECT_THAT(ErrorOf(Path("s")), HasSubstr("is not a socket"));
  EXPECT_TRUE(Exists(Path("s")));
}

TEST_F(UnixSocketTest, RefusesAPathThatDoesNotFitAnAddress) {
  const std::string longest =
      Path(std::string(107 - folder_.path().size() - 1, 'x'));
  EXPECT_TRUE(ListeningSocket::Open(longest).ok());
  EXPECT_THAT(ErrorOf(longest + "x"), HasSubstr("108 bytes; the limit is 107"));
  EXPECT_THAT(ConnectTo(longest + "x").status().message(),
              HasSubstr("the limit is 107"));
}

TEST_F(UnixSocketTest, RefusesAPathThatTheSystemWouldCut) {
  const std::string path = Path(std::string("s\0x", 3));
  EXPECT_THAT(ErrorOf(path), HasSubstr("zero byte"));
  EXPECT_THAT(ConnectTo(path).status().message(), HasSubstr("zero byte"));
}

TEST_F(UnixSocketTest, RefusesAFileInPlaceOfTheLockAndLeavesIt) {
  std::ofstream(Path("s.lock")) << "precious";
  EXPECT_THAT(ErrorOf(Path("s")), HasSubstr("s.lock exists and is not the"));
  EXPECT_TRUE(Exists(Path("s.lock")));
}

TEST_F(UnixSocketTest, RemovesItsFilesAtTheEnd) {
  { EXPECT_TRUE(ListeningSocket::Open(Path("s")).ok()); }
  EXPECT_TRUE(std::filesystem::is_empty(folder_.path()));
}

TEST_F(UnixSocketTest, RemovesTheFolderThatItHasMade) {
  { EXPECT_TRUE(ListeningSocket::Open(Path("new/s")).ok()); }
  EXPECT_FALSE(Exists(Path("new")));
}

TEST_F(UnixSocketTest, LeavesTheFolderToAnotherServer) {
  std::optional<ListeningSocket> first = *ListeningSocket::Open(Path("new/1"));
  const auto second = ListeningSocket::Open(Path("new/2"));
  first.reset();
  EXPECT_TRUE(ConnectTo(Path("new/2")).ok());
}

TEST_F(UnixSocketTest, AServerThatCannotListenLeavesTheFilesOfTheOther) {
  const auto listening = ListeningSocket::Open(Path("new/s"));
  EXPECT_FALSE(ListeningSocket::Open(Path("new/s")).ok());
  EXPECT_TRUE(Exists(Path("new/s.lock")));
  EXPECT_TRUE(ConnectTo(Path("new/s")).ok());
}

TEST_F(UnixSocketTest, LeavesAFileThatHasTakenItsPlace) {
  {
    const auto listening = ListeningSocket::Open(Path("s"));
    ASSERT_TRUE(listening.ok()) << listening.status();
    std::filesystem::remove(Path("s"));
    std::ofstream(Path("s")) << "somebody else's";
  }
  EXPECT_TRUE(Exists(Path("s")));
}

TEST_F(UnixSocketTest, ConnectingToNobodyNamesThePath) {
  const auto connected = ConnectTo(Path("s"));
  EXPECT_TRUE(absl::IsUnavailable(connected.status()));
  EXPECT_THAT(connected.status().message(),
              HasSubstr("no server listens at " + Path("s")));
}

TEST_F(UnixSocketTest, APeerOfThisUserIsAccepted) {
  const auto pair = ConnectedPair();
  ASSERT_TRUE(pair.ok()) << pair.status();
  EXPECT_TRUE(CheckPeerIsThisUser(pair->first.get()).ok());
}

TEST_F(UnixSocketTest, APeerOfAnotherUserIsRefusedWithBothIds) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  ASSERT_EQ(::chown(folder_.path().c_str(), kNobody, kNobody), 0);
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t server = ::fork();
  ASSERT_GE(server, 0);
  if (server == 0) {
    if (::setuid(kNobody) != 0) ::_exit(1);
    const auto listening = ListeningSocket::Open(Path("s"));
    const char told = listening.ok() ? 'y' : 'n';
    if (::write(ready[1], &told, 1) != 1) ::_exit(1);
    ::pause();
    ::_exit(0);
  }
  char told = 0;
  ASSERT_EQ(::read(ready[0], &told, 1), 1);
  ASSERT_EQ(told, 'y');
  const auto connected = ConnectTo(Path("s"));
  ASSERT_TRUE(connected.ok()) << connected.status();
  EXPECT_EQ(CheckPeerIsThisUser(connected->get()),
            absl::PermissionDeniedError(
                "the peer runs as user 65534, and this process as user 0"));
  ::kill(server, SIGKILL);
  ::waitpid(server, nullptr, 0);
  ::close(ready[0]);
  ::close(ready[1]);
}

TEST_F(UnixSocketTest, ConnectingToAnotherUsersSocketIsDenied) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const auto listening = ListeningSocket::Open(Path("s"));
  ASSERT_TRUE(listening.ok()) << listening.status();
  const pid_t stranger = ::fork();
  ASSERT_GE(stranger, 0);
  if (stranger == 0) {
    if (::setuid(kNobody) != 0) ::_exit(1);
    ::_exit(ConnectTo(Path("s")).status() ==
                    absl::PermissionDeniedError("not allowed to connect to " +
                                                Path("s") +
                                                ": Permission denied")
                ? 0
                : 2);
  }
  int ended = 0;
  ASSERT_EQ(::waitpid(stranger, &ended, 0), stranger);
  EXPECT_EQ(ended, 0);
}

TEST_F(UnixSocketTest, TheDefaultPathIsInTheRuntimeFolder) {
  const char* const before = std::getenv("XDG_RUNTIME_DIR");
  const std::optional<std::string> kept =
      before == nullptr ? std::nullopt : std::optional<std::string>(before);
  ::setenv("XDG_RUNTIME_DIR", "/run/user/7", 1);
  EXPECT_EQ(DefaultSocketPath("widget"), "/run/user/7/orvane/widget.sock");
  ::unsetenv("XDG_RUNTIME_DIR");
  EXPECT_EQ(DefaultSocketPath("widget"),
            "/tmp/orvane-" + std::to_string(::geteuid()) + "/widget.sock");
  if (kept.has_value()) ::setenv("XDG_RUNTIME_DIR", kept->c_str(), 1);
}

}  // namespace
}  // namespace orvane::testing
