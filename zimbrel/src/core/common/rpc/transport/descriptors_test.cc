// What a process keeps open for its servers and clients is closed in programs
// that it starts.

#include <sys/socket.h>

#include <array>
#include <csignal>
#include <memory>
#include <string>

#include "absl/time/time.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace orvane::testing {
namespace {

// What a program that this process starts has open.
std::string OpenInAChild() {
  return ChildProcess({"/bin/ls", "/proc/self/fd"}).Wait().output;
}

class StartingWidget final : public rpc::BrowserWidgetRpc {
 public:
  void Show(google::protobuf::RpcController*, const BrowserId*,
            google::protobuf::Empty*,
            google::protobuf::Closure* done) override {
    seen_by_child = OpenInAChild();
    done->Run();
  }

  std::string seen_by_child;
};

TEST(DescriptorsTest, AProgramThatAServiceStartsHasNoneOfThem) {
  const std::string seen_before = OpenInAChild();
  const TemporaryFolder folder;
  const std::string path = folder.path() + "/s";
  EventLoop loop;
  loop.OnSignal({SIGUSR1}, [] {});
  const auto timer = loop.RunAfter(absl::Hours(1), [] {});
  StartingWidget widget;
  SocketServer server(&loop, &widget);
  ASSERT_TRUE(server.Listen(path).ok());
  const auto accepted = SocketClient::Connect(&loop, path);
  ASSERT_TRUE(accepted.ok()) << accepted.status();
  // Made by somebody who did not think of it.
  std::array<int, 2> ends{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
  ASSERT_TRUE(server.Adopt(ends[0]).ok());
  const auto adopted = SocketClient::Adopt(&loop, ends[1]);
  ASSERT_TRUE(adopted.ok()) << adopted.status();
  for (const auto* client : {&accepted, &adopted}) {
    EXPECT_TRUE(
        rpc::BrowserWidgetRpcClient((*client)->get()).Show(Browser(1)).ok());
    EXPECT_EQ(widget.seen_by_child, seen_before);
  }
}

}  // namespace
}  // namespace orvane::testing
