// Anything in any order, against a plain model of who must be listed where and
// who must receive what. Takes --gtest_random_seed.

#include <array>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/stream/event_stream.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/event_host.h"

namespace orvane::testing {
namespace {

using Host = EventHost<rpc::TooltipChanged>;
using Browsers = std::set<std::uint64_t>;

constexpr std::size_t kHosts = 6;
constexpr std::uint64_t kBrowsers = 5;
constexpr int kSteps = 20000;

enum class Driver {
  // Unsubscribes a stream from whatever is left, then completes it, and never
  // destroys one that it has not completed.
  kWithdrawsFirst,
  // Completes and destroys as it happens to.
  kDoesNot,
};

// What is to be true of the stream that a host has open.
struct Expected {
  bool is_completed = false;
  Browsers asked_for;
};

class EventStreamModelTest : public EventStreamFixture,
                             public ::testing::WithParamInterface<Driver> {
 protected:
  EventStreamModelTest() {
    const auto given = GTEST_FLAG_GET(random_seed);
    const auto seed = given != 0 ? static_cast<std::uint32_t>(given)
                                 : std::random_device()() % 100000;
    std::cout << "To repeat: --gtest_random_seed=" << seed << std::endl;
    random_.seed(seed);
  }

  std::size_t Random(std::size_t below) {
    return std::uniform_int_distribution<std::size_t>(0, below - 1)(random_);
  }

  void Step() {
    const std::size_t i = Random(kHosts);
    const std::uint64_t browser = 1 + Random(kBrowsers);
    if (Random(4) == 0) return PublishTo(browser);
    if (!hosts_[i].is_open()) return Open(i);
    if (expected_[i].is_completed) return Vanish(i);
    switch (Random(16)) {
      case 0:
        return End(i);
      case 1:
        if (GetParam() == Driver::kDoesNot) Vanish(i);
        return;
      case 2:
        return ToggleRefusal(i);
      case 3:
        return hosts_[i].SendPayload("");
      case 4:
      case 5:
      case 6:
      case 7:
      case 8:
        return Unsubscribe(i, browser);
      default:
        return Subscribe(i, browser);
    }
  }

  void Open(std::size_t i) {
    hosts_[i].Open();
    expected_[i] = Expected();
  }

  void Subscribe(std::size_t i, std::uint64_t browser) {
    hosts_[i].Subscribe(browser);
    expected_[i].asked_for.insert(browser);
    listed_[browser].insert(i);
  }

  void Unsubscribe(std::size_t i, std::uint64_t browser) {
    hosts_[i].Unsubscribe(browser);
    expected_[i].asked_for.erase(browser);
    listed_[browser].erase(i);
    if (listed_[browser].empty()) listed_.erase(browser);
  }

  void End(std::size_t i) {
    if (GetParam() == Driver::kWithdrawsFirst) {
      const Browsers left = expected_[i].asked_for;
      for (const std::uint64_t browser : left) Unsubscribe(i, browser);
    }
    const bool vanishes_inside = Random(2) == 0;
    hosts_[i].on_complete = [this, i, vanishes_inside] {
      if (vanishes_inside) hosts_[i].Vanish();
    };
    hosts_[i].Complete();
    expected_[i].is_completed = true;
    expected_[i].asked_for.clear();
    std::erase_if(listed_, [i](const auto& entry) {
      return entry.second == std::set{i};
    });
  }

  void Vanish(std::size_t i) {
    hosts_[i].Vanish();
    expected_[i].asked_for.clear();
  }

  void ToggleRefusal(std::size_t i) {
    refuses_[i] = !refuses_[i];
    hosts_[i].send_result =
        refuses_[i] ? absl::UnavailableError("refused") : absl::OkStatus();
  }

  void PublishTo(std::uint64_t browser) {
    std::vector<std::size_t> reached;
    for (std::size_t i = 0; i < kHosts; ++i) {
      hosts_[i].on_event = [&reached, i](const auto&) { reached.push_back(i); };
    }
    rpc::TooltipChanged event;
    event.set_text(std::to_string(++published_));
    const std::size_t result = Publish(Browser(browser), event);

    std::vector<std::size_t> due;
    for (std::size_t i = 0; i < kHosts; ++i) {
      if (!refuses_[i] && expected_[i].asked_for.contains(browser)) {
        due.push_back(i);
        EXPECT_EQ(hosts_[i].received.back(), event.SerializeAsString());
      }
    }
    EXPECT_EQ(reached, due);
    EXPECT_EQ(result, due.size());
  }

  // The registry, by the positions of the hosts, which are those of the
  // streams.
  std::map<std::uint64_t, std::set<std::size_t>> Listed() {
    std::map<std::uint64_t, std::set<std::size_t>> listed;
    for (const auto& [key, streams] : Host::Stream::stream_map_) {
      auto& positions = listed[static_cast<const BrowserId*>(key)->value()];
      EXPECT_TRUE(positions.empty()) << "one key twice";
      for (std::size_t i = 0; i < kHosts; ++i) {
        if (streams.contains(hosts_[i].stream())) positions.insert(i);
      }
      EXPECT_EQ(positions.size(), streams.size());
    }
    return listed;
  }

  void CheckRegistry() {
    EXPECT_EQ(Listed(), listed_);
    if (GetParam() == Driver::kDoesNot) return;
    for (const auto& [browser, positions] : listed_) {
      for (const std::size_t i : positions) {
        EXPECT_TRUE(expected_[i].asked_for.contains(browser));
      }
    }
  }

  // Unlists every address, whoever left it.
  void CleanUp() {
    for (std::size_t i = 0; i < kHosts; ++i) {
      hosts_[i].Vanish();
      hosts_[i].Open();
      for (std::uint64_t browser = 1; browser <= kBrowsers; ++browser) {
        Unsubscribe(i, browser);
      }
    }
  }

 private:
  std::mt19937 random_;
  std::uint64_t published_ = 0;
  std::array<Host, kHosts> hosts_ = {
      Host{&loop, &service}, Host{&loop, &service}, Host{&loop, &service},
      Host{&loop, &service}, Host{&loop, &service}, Host{&loop, &service}};
  std::array<Expected, kHosts> expected_;
  std::array<bool, kHosts> refuses_{};
  std::map<std::uint64_t, std::set<std::size_t>> listed_;
};

TEST_P(EventStreamModelTest, WhoAskedAndIsThereReceivesAndNobodyElse) {
  for (int step = 0; step < kSteps && !HasFailure(); ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    Step();
    CheckRegistry();
  }
  CleanUp();
}

INSTANTIATE_TEST_SUITE_P(Drivers, EventStreamModelTest,
                         ::testing::Values(Driver::kWithdrawsFirst,
                                           Driver::kDoesNot),
                         [](const auto& driver) {
                           return driver.param == Driver::kDoesNot
                                      ? "DoesNotWithdraw"
                                      : "WithdrawsFirst";
                         });

}  // namespace
}  // namespace orvane::testing
