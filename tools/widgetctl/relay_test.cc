#include "tools/widgetctl/relay.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace widgetctl {
namespace {

using orvane::OwnedDescriptor;

// The test is both the host and the widget.
class RelayTest : public testing::Test {
 protected:
  RelayTest() {
    auto host = *orvane::ConnectedPair();
    auto widget = *orvane::ConnectedPair();
    host_.emplace(std::move(host.first));
    widget_.emplace(std::move(widget.first));
    for (const int end : {host_->get(), widget_->get()})
      ::fcntl(end, F_SETFL, ::fcntl(end, F_GETFL) | O_NONBLOCK);
    relay_ = std::make_unique<Relay>(
        &loop_, *loop_.WatchDescriptor(std::move(host.second)),
        *loop_.WatchDescriptor(std::move(widget.second)),
        Relay::Handlers{[this](Side from, absl::string_view bytes) {
                          (from == Side::kHost ? from_host_ : from_widget_)
                              .append(bytes.data(), bytes.size());
                        },
                        [this] { has_ended_ = true; }});
  }

  static ssize_t Write(const OwnedDescriptor& to, const std::string& bytes) {
    return ::send(to.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }

  // All that is there; "" also for the end of the connection.
  static std::string Read(const OwnedDescriptor& from) {
    std::string read;
    char chunk[4096];
    ssize_t bytes = 0;
    while ((bytes = ::recv(from.get(), chunk, sizeof chunk, 0)) > 0)
      read.append(chunk, static_cast<std::size_t>(bytes));
    return read;
  }
  static bool IsAtEnd(const OwnedDescriptor& socket) {
    char byte = 0;
    return ::recv(socket.get(), &byte, 1, MSG_PEEK) == 0;
  }

  orvane::EventLoop loop_;
  std::optional<OwnedDescriptor> host_;
  std::optional<OwnedDescriptor> widget_;
  std::unique_ptr<Relay> relay_;
  std::string from_host_;
  std::string from_widget_;
  bool has_ended_ = false;
};

TEST_F(RelayTest, PassesBytesOnAndTellsThem) {
  Write(*host_, "question");
  loop_.RunUntilIdle();
  EXPECT_EQ(Read(*widget_), "question");
  Write(*widget_, "answer");
  loop_.RunUntilIdle();
  EXPECT_EQ(Read(*host_), "answer");
  EXPECT_EQ(from_host_, "question");
  EXPECT_EQ(from_widget_, "answer");
}

TEST_F(RelayTest, WaitsForASideThatDoesNotReadAndLosesNothing) {
  std::string sent;
  std::string chunk(100'000, ' ');
  for (std::size_t i = 0; i < chunk.size(); ++i)
    chunk[i] = static_cast<char>('a' + i % 23);
  ssize_t written = 0;
  while ((written = Write(*host_, chunk)) > 0) {
    sent.append(chunk, 0, static_cast<std::size_t>(written));
    loop_.RunUntilIdle();
  }
  EXPECT_EQ(errno, EAGAIN);
  std::string received;
  for (std::string part; !(part = Read(*widget_)).empty();) {
    received += part;
    loop_.RunUntilIdle();
  }
  EXPECT_EQ(received, sent);
  EXPECT_EQ(from_host_, sent);
}

TEST_F(RelayTest, PassesDescriptorsOnWithTheirBytes) {
  int pipe[2];
  ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
  const OwnedDescriptor read_end(pipe[0]);
  OwnedDescriptor write_end(pipe[1]);
  char byte = 'x';
  iovec bytes = {&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
  msghdr message = {};
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr* const part = CMSG_FIRSTHDR(&message);
  part->cmsg_level = SOL_SOCKET;
  part->cmsg_type = SCM_RIGHTS;
  part->cmsg_len = CMSG_LEN(sizeof(int));
  *reinterpret_cast<int*>(CMSG_DATA(part)) = write_end.get();
  ASSERT_EQ(::sendmsg(host_->get(), &message, 0), 1);
  loop_.RunUntilIdle();

  message.msg_controllen = sizeof control;
  ASSERT_EQ(::recvmsg(widget_->get(), &message, MSG_CMSG_CLOEXEC), 1);
  ASSERT_NE(CMSG_FIRSTHDR(&message), nullptr);
  const OwnedDescriptor passed(
      *reinterpret_cast<int*>(CMSG_DATA(CMSG_FIRSTHDR(&message))));
  ASSERT_EQ(::write(passed.get(), "through", 7), 7);
  char read[8] = {};
  EXPECT_EQ(::read(read_end.get(), read, sizeof read), 7);
  EXPECT_STREQ(read, "through");
}

TEST_F(RelayTest, ASideThatSendsNoMoreStillGetsItsAnswer) {
  Write(*host_, "last words");
  ::shutdown(host_->get(), SHUT_WR);
  loop_.RunUntilIdle();
  EXPECT_EQ(Read(*widget_), "last words");
  EXPECT_TRUE(IsAtEnd(*widget_));
  Write(*widget_, "goodbye");
  loop_.RunUntilIdle();
  EXPECT_EQ(Read(*host_), "goodbye");
  EXPECT_FALSE(has_ended_);
  widget_.reset();
  loop_.RunUntilIdle();
  EXPECT_TRUE(IsAtEnd(*host_));
  EXPECT_TRUE(has_ended_);
}

TEST_F(RelayTest, ASideThatIsGoneIsGoneForTheOther) {
  Write(*widget_, "unread");
  widget_.reset();
  loop_.RunUntilIdle();
  EXPECT_EQ(Read(*host_), "unread");
  EXPECT_TRUE(IsAtEnd(*host_));
  Write(*host_, "to nobody");
  loop_.RunUntilIdle();
  EXPECT_EQ(Write(*host_, "again"), -1);
  EXPECT_EQ(errno, EPIPE);
  host_.reset();
  loop_.RunUntilIdle();
  EXPECT_TRUE(has_ended_);
}

// Hosts that a widget turns away need not notice that soon.
TEST_F(RelayTest, ASideThatIsGoneEndsTheConnectionThoughTheOtherStays) {
  Write(*widget_, "no room");
  widget_.reset();
  loop_.RunUntilIdle();
  EXPECT_TRUE(has_ended_);
  EXPECT_EQ(Read(*host_), "no room");
}

TEST_F(RelayTest, ItsEndBreaksTheConnectionOff) {
  relay_.reset();
  EXPECT_TRUE(IsAtEnd(*host_));
  EXPECT_TRUE(IsAtEnd(*widget_));
}

}  // namespace
}  // namespace widgetctl
