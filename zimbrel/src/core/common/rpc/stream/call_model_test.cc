// Anything in any order, against a plain model of how each call must end. Takes
// --gtest_random_seed.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <vector>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/testing/scripted_host.h"

namespace orvane::testing {
namespace {

using rpc::TakeFocus;
using Host = ScriptedHost<TakeFocus>;
using absl::StatusCode;

constexpr std::size_t kHosts = 4;
constexpr std::size_t kBrowsers = 3;
constexpr int kSteps = 20000;

// One call as it must be.
struct Expected {
  std::size_t host;
  std::size_t browser;
  std::int64_t id;
  bool has_deadline;  // At once.
  CallHandle handle;
  std::optional<StatusCode> end;  // None while it must wait.
  // Its deadline may have come before that.
  bool may_be_late = false;
  int ends = 0;
};

class CallModelTest : public CallbackStreamFixture {
 protected:
  CallModelTest() {
    const auto given = GTEST_FLAG_GET(random_seed);
    const auto seed = given != 0 ? static_cast<std::uint32_t>(given)
                                 : std::random_device()() % 100000;
    std::cout << "To repeat: --gtest_random_seed=" << seed << std::endl;
    random_.seed(seed);
    for (std::size_t i = 0; i < kHosts; ++i) Open(i);
  }

  std::size_t Random(std::size_t below) {
    return std::uniform_int_distribution<std::size_t>(0, below - 1)(random_);
  }

  // Anything but running the loop.
  void Step() {
    const std::size_t i = Random(kHosts);
    const std::size_t browser = Random(kBrowsers);
    if (hosts_[i] == nullptr) return Open(i);
    switch (Random(40)) {
      case 0:
        return Complete(i);
      case 1:
        return Vanish(i);
      case 2:
        return Unsubscribe(i, browser);
      case 3:
        hosts_[i]->send_result = hosts_[i]->send_result.ok()
                                     ? absl::UnavailableError("gone")
                                     : absl::OkStatus();
        return;
      case 4:
        return AnswerAtRandom(i, browser);
      case 5:
      case 6:
      case 7:
        return Subscribe(i, browser);
      default:
        break;
    }
    if (calls_.empty() || Random(2) == 0) return Ask(browser);
    const std::size_t call =
        calls_.size() - 1 - Random(std::min<std::size_t>(calls_.size(), 32));
    switch (Random(4)) {
      case 0:
        return Cancel(call);
      case 1:
        return Fail(call);
      default:
        return Answer(call);
    }
  }

  // Runs the loop until everything that must have ended has, and looks.
  void RunAndCheck() {
    is_running_ = true;
    ASSERT_TRUE(loop.RunUntil([this] {
      return std::none_of(open_.begin(), open_.end(), [this](std::size_t call) {
        return calls_[call].end.has_value() || calls_[call].has_deadline;
      });
    }));
    loop.RunUntilIdle();
    is_running_ = false;
    Check();
  }

  void EndEverything() {
    for (std::size_t i = 0; i < kHosts; ++i) {
      if (hosts_[i] == nullptr) continue;
      if (Random(2) == 0)
        Complete(i);
      else
        Vanish(i);
    }
    may_act_ = false;
    RunAndCheck();
    for (const Expected& call : calls_) EXPECT_EQ(call.ends, 1);
    for (std::size_t browser = 0; browser < kBrowsers; ++browser) {
      RemoveRegistration<TakeFocus>(Browser(browser));
    }
  }

  // How calls ended, those included that were none.
  std::map<StatusCode, int> ends;

 private:
  void Open(std::size_t i) {
    hosts_[i] = std::make_unique<Host>(&loop, &service);
  }

  void Subscribe(std::size_t i, std::size_t browser) {
    serving_[browser] = i;
    hosts_[i]->Subscribe(Browser(browser));
  }

  void Unsubscribe(std::size_t i, std::size_t browser) {
    serving_.erase(browser);
    EndAll(i, browser);
    hosts_[i]->Unsubscribe(Browser(browser));
  }

  void Complete(std::size_t i) {
    Leave(i);
    hosts_[i]->End();
    hosts_[i].reset();
  }

  void Vanish(std::size_t i) {
    Leave(i);
    hosts_[i]->Vanish();
    hosts_[i].reset();
  }

  void Leave(std::size_t i) {
    std::erase_if(serving_,
                  [i](const auto& entry) { return entry.second == i; });
    for (std::size_t browser = 0; browser < kBrowsers; ++browser)
      EndAll(i, browser);
  }

  void EndAll(std::size_t i, std::size_t browser) {
    for (const std::size_t call : open_) {
      if (calls_[call].host == i && calls_[call].browser == browser) {
        Expect(call, StatusCode::kCancelled);
      }
    }
  }

  void Ask(std::size_t browser) {
    const auto serving = serving_.find(browser);
    const bool has_deadline = Random(4) == 0;
    const std::size_t call = calls_.size();
    CallHandle handle = Call<TakeFocus>(
        Browser(browser), {},
        [this, call](const absl::StatusOr<rpc::TakeFocusResponse>& answer) {
          HasEnded(call, answer.status().code());
        },
        {.timeout =
             has_deadline ? absl::Nanoseconds(1) : absl::InfiniteDuration()});
    if (serving == serving_.end()) {
      calls_.push_back(
          {0, browser, 0, false, std::move(handle), StatusCode::kNotFound});
      return;
    }
    Host& host = *hosts_[serving->second];
    if (!host.send_result.ok()) {
      calls_.push_back({serving->second, browser, 0, false, std::move(handle),
                        host.send_result.code()});
      return;
    }
    calls_.push_back({serving->second, browser, host.last_id(), has_deadline,
                      std::move(handle), std::nullopt});
    open_.insert(call);
  }

  // Also for calls that have ended: then nothing may come of it.
  void Answer(std::size_t call) {
    if (hosts_[calls_[call].host] == nullptr) return;
    Expect(call, StatusCode::kOk);
    hosts_[calls_[call].host]->Answer(Browser(calls_[call].browser),
                                      calls_[call].id);
  }

  void Fail(std::size_t call) {
    if (hosts_[calls_[call].host] == nullptr) return;
    Expect(call, StatusCode::kUnknown);
    hosts_[calls_[call].host]->Fail(Browser(calls_[call].browser),
                                    calls_[call].id);
  }

  void Cancel(std::size_t call) {
    Expect(call, StatusCode::kCancelled);
    calls_[call].handle.Cancel();
  }

  // Of the right host and key, as like as not, but of an id that nobody has.
  void AnswerAtRandom(std::size_t i, std::size_t browser) {
    hosts_[i]->Answer(Browser(browser), -1);
    hosts_[i]->Fail(Browser(browser), -1);
  }

  void Expect(std::size_t index, StatusCode end) {
    Expected& call = calls_[index];
    if (call.ends > 0 || call.end.has_value()) return;
    call.end = end;
    call.may_be_late = call.has_deadline && is_running_;
  }

  void HasEnded(std::size_t index, StatusCode end) {
    Expected& call = calls_[index];
    EXPECT_EQ(++call.ends, 1) << "call " << call.id << " ended again";
    open_.erase(index);
    if (end != call.end) {
      EXPECT_EQ(end, StatusCode::kDeadlineExceeded) << "call " << call.id;
      EXPECT_TRUE(call.end.has_value() ? call.may_be_late : call.has_deadline);
    }
    ++ends[end];
    if (may_act_ && Random(4) == 0) Step();
  }

  void Check() {
    std::map<std::size_t, std::map<std::size_t, std::set<std::int64_t>>>
        waiting;
    for (const std::size_t call : open_) {
      EXPECT_FALSE(calls_[call].end.has_value());
      waiting[calls_[call].host][calls_[call].browser].insert(calls_[call].id);
    }
    for (std::size_t i = 0; i < kHosts; ++i) {
      if (hosts_[i] == nullptr) {
        EXPECT_TRUE(waiting[i].empty());
        continue;
      }
      const auto& table = hosts_[i]->stream().pending_calls_;
      EXPECT_EQ(table.size(), waiting[i].size());
      for (const auto& [browser, ids] : waiting[i]) {
        const BrowserId key = Browser(browser);
        const auto entry = table.find(&key);
        ASSERT_NE(entry, table.end());
        std::set<std::int64_t> listed;
        for (const auto& [id, call] : entry->second) listed.insert(id);
        EXPECT_EQ(listed, ids);
      }
    }
    for (const auto& [browser, i] : serving_) {
      const BrowserId key = Browser(browser);
      const auto entry = CallbackStream<TakeFocus>::stream_map_.find(&key);
      ASSERT_NE(entry, CallbackStream<TakeFocus>::stream_map_.end());
      EXPECT_EQ(entry->second, &hosts_[i]->stream());
    }
  }

  std::mt19937 random_;
  bool is_running_ = false;
  bool may_act_ = true;  // Of continuations.
  std::array<std::unique_ptr<Host>, kHosts> hosts_;
  std::map<std::size_t, std::size_t> serving_;  // By browser.
  std::vector<Expected> calls_;
  std::set<std::size_t> open_;  // Indices of those that have not ended.
};

TEST_F(CallModelTest, EveryCallEndsOnceAndAsTheModelSays) {
  for (int step = 0; step < kSteps && !HasFailure(); ++step) {
    Step();
    if (Random(16) == 0) RunAndCheck();
  }
  EndEverything();
  for (const StatusCode end :
       {StatusCode::kOk, StatusCode::kUnknown, StatusCode::kCancelled,
        StatusCode::kDeadlineExceeded, StatusCode::kNotFound,
        StatusCode::kUnavailable}) {
    EXPECT_GT(ends[end], kSteps / 100) << end;
  }
}

}  // namespace
}  // namespace orvane::testing
