#include "host/widget_process.h"

#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "host/view.h"
#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"

namespace orvane::host {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using State = WidgetProcessState;

// Runs the toy widget's program, whose path is WIDGET_SERVER.
class WidgetProcessTest : public ::testing::Test {
 protected:
  void Start(WidgetProcessOptions options) {
    auto process =
        WidgetProcess::Start(&loop_, std::move(options),
                             [this](State state, const absl::Status& why) {
                               states_.push_back(state);
                               whys_.emplace_back(why.message());
                             });
    ASSERT_TRUE(process.ok()) << process.status();
    process_ = *std::move(process);
  }
  void StartWidget() {
    Start({.command = {WIDGET_SERVER}, .first_pause = absl::Milliseconds(1)});
  }

  void Await(State state) {
    ASSERT_TRUE(loop_.RunUntil(
        [&] { return !states_.empty() && states_.back() == state; }));
  }

  // Whether the widget answers over a new connection.
  bool Answers() {
    auto connection = process_->Connect();
    EXPECT_TRUE(connection.ok()) << connection.status();
    if (!connection.ok()) return false;
    rpc::BrowserWidgetRpcClient widget(connection->get());
    return widget.Unfocus(testing::Browser(1)).ok();
  }

  EventLoop loop_;
  std::vector<State> states_;
  std::vector<std::string> whys_;
  std::unique_ptr<WidgetProcess> process_;
};

TEST_F(WidgetProcessTest, IsReachedAsSoonAsItIsStarted) {
  StartWidget();
  EXPECT_EQ(process_->state(), State::kRunning);
  EXPECT_TRUE(Answers());
  EXPECT_TRUE(Answers());
  EXPECT_THAT(states_, IsEmpty());
}

TEST_F(WidgetProcessTest, AProgramIsLookedForInThePath) {
  Start({.command = {"sh", "-c", "exec \"$0\" \"$@\"", WIDGET_SERVER}});
  EXPECT_TRUE(Answers());
}

TEST_F(WidgetProcessTest, AProgramThatDoesNotExistIsToldAtOnce) {
  const auto process =
      WidgetProcess::Start(&loop_, {.command = {"/no/such/widget"}});
  EXPECT_EQ(process.status().message(),
            "the widget cannot be started: /no/such/widget: No such file or "
            "directory");
}

TEST_F(WidgetProcessTest, AnEmptyCommandIsRefused) {
  EXPECT_TRUE(absl::IsInvalidArgument(
      WidgetProcess::Start(&loop_, {.command = {}}).status()));
}

TEST_F(WidgetProcessTest, OneThatDiesIsStartedAgain) {
  StartWidget();
  ASSERT_TRUE(Answers());
  const pid_t first = process_->pid();
  ::kill(first, SIGKILL);
  Await(State::kRunning);
  EXPECT_THAT(states_, ElementsAre(State::kPausing, State::kRunning));
  EXPECT_EQ(whys_.front(),
            "the widget was ended by signal 9, Killed; it is started again in "
            "1ms");
  EXPECT_NE(process_->pid(), first);
  EXPECT_TRUE(Answers());
}

TEST_F(WidgetProcessTest, ConnectionsEndWithTheProcess) {
  StartWidget();
  const auto connection = process_->Connect();
  ASSERT_TRUE(connection.ok()) << connection.status();
  ::kill(process_->pid(), SIGKILL);
  EXPECT_TRUE(loop_.RunUntil([&] { return !(*connection)->status().ok(); }));
  EXPECT_TRUE(absl::IsUnavailable((*connection)->status()));
}

TEST_F(WidgetProcessTest, ThePausesGrow) {
  Start({.command = {"false"},
         .first_pause = absl::Milliseconds(100),
         .last_pause = absl::Milliseconds(400)});
  ASSERT_TRUE(loop_.RunUntil([this] { return whys_.size() >= 7; }));
  for (std::size_t i = 0; i < 7; i += 2) {
    EXPECT_EQ(whys_[i],
              absl::StrCat("the widget exited with code 1; it is started "
                           "again in ",
                           i == 0   ? "100ms"
                           : i == 2 ? "200ms"
                                    : "400ms"));
  }
}

TEST_F(WidgetProcessTest, AProgramThatHasGoneIsTriedAgain) {
  const testing::TemporaryFolder folder;
  const std::string program = folder.path() + "/widget";
  std::filesystem::create_symlink(WIDGET_SERVER, program);
  Start({.command = {program}, .first_pause = absl::Milliseconds(1)});
  ASSERT_TRUE(Answers());
  std::filesystem::remove(program);
  ::kill(process_->pid(), SIGKILL);
  ASSERT_TRUE(loop_.RunUntil([this] {
    return !whys_.empty() && absl::StrContains(whys_.back(), "No such file");
  }));
  EXPECT_EQ(process_->pid(), 0);
  std::filesystem::create_symlink(WIDGET_SERVER, program);
  Await(State::kRunning);
  EXPECT_TRUE(Answers());
}

// A View gives up for good where it has no permission.
TEST_F(WidgetProcessTest, OneThatMayNotBeStartedIsTriedAgain) {
  const testing::TemporaryFolder folder;
  const std::string program = folder.path() + "/program";
  std::filesystem::create_symlink(WIDGET_SERVER, program);
  Start({.command = {program}, .first_pause = absl::Milliseconds(1)});
  ASSERT_TRUE(Answers());
  std::filesystem::remove(program);
  std::ofstream(program) << "not executable";
  ::kill(process_->pid(), SIGKILL);
  ASSERT_TRUE(loop_.RunUntil([this] {
    return !whys_.empty() &&
           absl::StrContains(whys_.back(), "Permission denied");
  }));
  EXPECT_EQ(process_->Connect().status().code(),
            absl::StatusCode::kUnavailable);
}

// Whether it has not ended. One that nobody waits for stays in the list.
bool IsAlive(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string state;
  file.ignore(std::numeric_limits<std::streamsize>::max(), ')') >> state;
  return !state.empty() && state != "Z";
}

TEST_F(WidgetProcessTest, WhatAScriptHasStartedIsKilledToo) {
  const testing::TemporaryFolder folder;
  const std::string file = folder.path() + "/number";
  Start(
      {.command = {"bash", "-c", "sleep 1000 & echo $! > " + file + "; wait"}});
  pid_t started = 0;
  while (!(std::ifstream(file) >> started)) std::this_thread::yield();
  EXPECT_TRUE(IsAlive(started));
  process_ = nullptr;
  while (IsAlive(started)) std::this_thread::yield();
}

TEST_F(WidgetProcessTest, WhileItPausesConnectingTellsWhy) {
  Start({.command = {"false"}, .first_pause = absl::Hours(1)});
  Await(State::kPausing);
  EXPECT_EQ(process_->Connect().status().message(), whys_.back());
}

TEST_F(WidgetProcessTest, OneThatHangsCanBeStartedAgain) {
  StartWidget();
  ASSERT_TRUE(Answers());
  ::kill(process_->pid(), SIGSTOP);
  process_->Restart();
  Await(State::kRunning);
  EXPECT_TRUE(Answers());
}

TEST_F(WidgetProcessTest, APauseCanBeCutShort) {
  Start({.command = {"false"},
         .first_pause = absl::Hours(1),
         .last_pause = absl::Hours(1)});
  Await(State::kPausing);
  process_->Restart();
  Await(State::kRunning);
}

TEST_F(WidgetProcessTest, StopEndsItInOrder) {
  StartWidget();
  ASSERT_TRUE(Answers());
  bool has_ended = false;
  process_->Stop(absl::Minutes(1), [&] { has_ended = true; });
  EXPECT_EQ(process_->state(), State::kEnding);
  EXPECT_EQ(process_->Connect().status().message(),
            "the widget has been told to end");
  ASSERT_TRUE(loop_.RunUntil([&] { return has_ended; }));
  EXPECT_THAT(states_, ElementsAre(State::kEnding, State::kEnded));
  EXPECT_EQ(whys_.back(), "the widget exited with code 0");
  EXPECT_EQ(process_->pid(), 0);
}

TEST_F(WidgetProcessTest, StopKillsOneThatHangs) {
  StartWidget();
  ASSERT_TRUE(Answers());
  ::kill(process_->pid(), SIGSTOP);
  bool has_ended = false;
  process_->Stop(absl::Milliseconds(1), [&] { has_ended = true; });
  ASSERT_TRUE(loop_.RunUntil([&] { return has_ended; }));
  EXPECT_EQ(whys_.back(), "the widget was ended by signal 9, Killed");
}

TEST_F(WidgetProcessTest, StopEndsThePause) {
  Start({.command = {"false"}, .first_pause = absl::Hours(1)});
  Await(State::kPausing);
  bool has_ended = false;
  process_->Stop(absl::Minutes(1), [&] { has_ended = true; });
  ASSERT_TRUE(loop_.RunUntil([&] { return has_ended; }));
  EXPECT_EQ(process_->state(), State::kEnded);
  process_->Restart();
  loop_.RunUntilIdle();
  EXPECT_EQ(process_->state(), State::kEnded);
}

TEST_F(WidgetProcessTest, MayBeDestroyedWhenToldOfItsEnd) {
  auto process = WidgetProcess::Start(
      &loop_, {.command = {"false"}},
      [this](State, const absl::Status&) { process_ = nullptr; });
  ASSERT_TRUE(process.ok()) << process.status();
  process_ = *std::move(process);
  EXPECT_TRUE(loop_.RunUntil([this] { return process_ == nullptr; }));
}

// What waited for that may be gone as well.
TEST_F(WidgetProcessTest,
       OneThatIsDestroyedWhenToldOfItsEndDoesNotTellStopped) {
  bool has_ended = false;
  bool is_told = false;
  auto process = WidgetProcess::Start(&loop_, {.command = {"cat"}},
                                      [&](State state, const absl::Status&) {
                                        if (state != State::kEnded) return;
                                        process_ = nullptr;
                                        has_ended = true;
                                      });
  ASSERT_TRUE(process.ok()) << process.status();
  process_ = *std::move(process);
  process_->Stop(absl::Minutes(1), [&] { is_told = true; });
  ASSERT_TRUE(loop_.RunUntil([&] { return has_ended; }));
  loop_.RunUntilIdle();
  EXPECT_FALSE(is_told);
}

TEST_F(WidgetProcessTest, ItsDestructionKillsTheWidget) {
  StartWidget();
  ASSERT_TRUE(Answers());
  const pid_t pid = process_->pid();
  process_ = nullptr;
  EXPECT_EQ(::kill(pid, 0), -1);
}

TEST_F(WidgetProcessTest, AViewTellsThatItsWidgetHangs) {
  StartWidget();
  View view(&loop_,
            {.connect = process_->connector(),
             .browser = testing::Browser(1),
             .patience = absl::Milliseconds(50)},
            {});
  view.SetSize(100, 100);
  ASSERT_TRUE(
      loop_.RunUntil([&] { return view.state() == ViewState::kAttached; }));
  EXPECT_EQ(view.StateText(), "");
  ::kill(process_->pid(), SIGSTOP);
  ASSERT_TRUE(loop_.RunUntil([&] { return view.is_hung(); }));
  EXPECT_EQ(view.StateText(), "The browser does not respond");
  ::kill(process_->pid(), SIGCONT);
  ASSERT_TRUE(loop_.RunUntil([&] { return !view.is_hung(); }));
  EXPECT_EQ(view.state(), ViewState::kAttached);
}

TEST_F(WidgetProcessTest, AViewComesBackAfterAHang) {
  StartWidget();
  View view(&loop_,
            {.connect = process_->connector(),
             .browser = testing::Browser(1),
             .patience = absl::Milliseconds(50)},
            {});
  view.SetSize(100, 100);
  ASSERT_TRUE(
      loop_.RunUntil([&] { return view.state() == ViewState::kAttached; }));
  ::kill(process_->pid(), SIGSTOP);
  ASSERT_TRUE(loop_.RunUntil([&] { return view.is_hung(); }));
  process_->Restart();
  ASSERT_TRUE(loop_.RunUntil([&] { return !view.is_hung(); }));
  ASSERT_TRUE(
      loop_.RunUntil([&] { return view.state() == ViewState::kAttached; }));
}

TEST_F(WidgetProcessTest, InheritsItsSocketAndTheOutputsOnly) {
  const testing::TemporaryFolder folder;
  const std::string list = folder.path() + "/list";
  const int ours = ::dup(STDERR_FILENO);  // Without close-on-exec.
  Start({.command = {"bash", "-c", "ls /proc/$$/fd > " + list + "; true"},
         .first_pause = absl::Hours(1)});
  Await(State::kPausing);
  ::close(ours);
  std::ifstream file(list);
  std::vector<std::string> names;
  for (std::string name; file >> name;) names.push_back(name);
  // 255 is the script of the shell itself.
  std::erase(names, "255");
  EXPECT_THAT(names, ElementsAre("0", "1", "2", "3"));
}

TEST_F(WidgetProcessTest, RunsInAGroupOfItsOwn) {
  StartWidget();
  EXPECT_EQ(::getpgid(process_->pid()), process_->pid());
}

}  // namespace
}  // namespace orvane::host
