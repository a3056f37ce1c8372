#include "zimbrel/src/core/common/rpc/transport/server/client_budget.h"

#include <chrono>
#include <cstddef>
#include <limits>
#include <memory>
#include <vector>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace orvane::internal {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::HasSubstr;

// Rates.

TEST(TokenBucketTest, WhatIsAllowedAtOnceMakesNoDebt) {
  TokenBucket bucket({.at_once = 3, .per_second = 10});
  const auto now = steady_clock::now();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(bucket.Take(now), absl::ZeroDuration());
}

TEST(TokenBucketTest, ADebtTakesAsLongAsItsRateSays) {
  TokenBucket bucket({.at_once = 1, .per_second = 10});
  const auto now = steady_clock::now();
  bucket.Take(now);
  EXPECT_EQ(bucket.Take(now), absl::Milliseconds(100));
  EXPECT_EQ(bucket.Take(now), absl::Milliseconds(200));
}

TEST(TokenBucketTest, TimePaysTheDebtAndThenFillsTheBucket) {
  TokenBucket bucket({.at_once = 2, .per_second = 10});
  const auto now = steady_clock::now();
  for (int i = 0; i < 3; ++i) bucket.Take(now);
  EXPECT_EQ(bucket.Take(now + milliseconds(200)), absl::ZeroDuration());
  // No fuller than at the start, however long it takes.
  const auto later = now + std::chrono::hours(1);
  EXPECT_EQ(bucket.Take(later), absl::ZeroDuration());
  EXPECT_EQ(bucket.Take(later), absl::ZeroDuration());
  EXPECT_GT(bucket.Take(later), absl::ZeroDuration());
}

TEST(TokenBucketTest, WithoutALimitThereIsNeverADebt) {
  TokenBucket bucket(RateLimit::None());
  const auto now = steady_clock::now();
  for (int i = 0; i < 1000; ++i)
    EXPECT_EQ(bucket.Take(now), absl::ZeroDuration());
}

// Numbers.

class ClientBudgetTest : public ::testing::Test {
 protected:
  // Of 16 streams 2 are kept for each of 4 clients, and 8 are for whoever
  // comes.
  ClientBudgetTest()
      : total_(ClientBudget::MakeTotal({.max_connections = 4,
                                        .max_streams = 10,
                                        .max_total_streams = 16})) {}

  static absl::Status Take(ClientBudget& client, std::size_t streams) {
    return client.Take(Held::kStreams, streams);
  }

  const std::shared_ptr<ClientBudget::Total> total_;
};

TEST_F(ClientBudgetTest, OneClientTakesAsManyAsItMay) {
  ClientBudget client(total_);
  EXPECT_TRUE(Take(client, 10).ok());
  EXPECT_EQ(Take(client, 1),
            absl::ResourceExhaustedError("10 streams open; the limit is 10"));
}

TEST_F(ClientBudgetTest, WhatIsRefusedIsNotTaken) {
  ClientBudget client(total_);
  EXPECT_EQ(Take(client, 11), absl::ResourceExhaustedError(
                                  "0 + 11 streams open; the limit is 10"));
  EXPECT_TRUE(Take(client, 10).ok());
}

TEST_F(ClientBudgetTest, ClientsShareTheTotalButForWhatIsKeptForTheOthers) {
  ClientBudget greedy(total_);
  ClientBudget other(total_);
  EXPECT_TRUE(Take(greedy, 10).ok());
  EXPECT_TRUE(Take(other, 2).ok());
  EXPECT_THAT(Take(other, 1).message(),
              HasSubstr("12 streams open, of all clients; the limit is 16"));
}

TEST_F(ClientBudgetTest, EachClientHasItsPartWhateverTheOthersTook) {
  ClientBudget first(total_);
  ClientBudget second(total_);
  EXPECT_TRUE(Take(first, 6).ok());
  EXPECT_TRUE(Take(second, 6).ok());
  EXPECT_FALSE(Take(first, 1).ok());
  ClientBudget third(total_);
  EXPECT_TRUE(Take(third, 2).ok());
  EXPECT_FALSE(Take(third, 1).ok());
}

TEST_F(ClientBudgetTest, WhatIsGivenBackIsThereForTheOthers) {
  ClientBudget first(total_);
  ClientBudget second(total_);
  EXPECT_TRUE(Take(first, 10).ok());
  first.GiveBack(Held::kStreams, 9);
  EXPECT_TRUE(Take(second, 10).ok());
}

// A client that leaves while its handlers are at work, again and again.
TEST_F(ClientBudgetTest, WhatClientsThatHaveLeftHoldStillCounts) {
  std::vector<std::unique_ptr<ClientBudget>> gone;
  std::size_t taken = 0;
  for (int i = 0; i < 100; ++i) {
    gone.push_back(std::make_unique<ClientBudget>(total_));
    while (Take(*gone.back(), 1).ok()) ++taken;
  }
  EXPECT_EQ(taken, 16u);
}

TEST(ClientBudgetWithoutLimits, GivesAsMuchAsIsAskedFor) {
  constexpr auto kNone = std::numeric_limits<std::size_t>::max();
  ClientBudget client(
      ClientBudget::MakeTotal({.max_connections = kNone,
                               .max_request_bytes = kNone,
                               .max_total_request_bytes = kNone}));
  EXPECT_TRUE(client.Take(Held::kRequestBytes, kNone / 2).ok());
  EXPECT_TRUE(client.Take(Held::kRequestBytes, kNone / 2).ok());
}

TEST(ClientBudgetRates, TheLongerTimeOfClientAndTotalCounts) {
  const auto total = ClientBudget::MakeTotal(
      {.max_takeover_rate = {.at_once = 100, .per_second = 1},
       .max_total_takeover_rate = {.at_once = 2, .per_second = 1}});
  ClientBudget first(total);
  ClientBudget second(total);
  EXPECT_EQ(first.Count(Done::kTakeOver), absl::ZeroDuration());
  EXPECT_EQ(second.Count(Done::kTakeOver), absl::ZeroDuration());
  EXPECT_GT(first.Count(Done::kTakeOver), absl::ZeroDuration());
}

}  // namespace
}  // namespace orvane::internal
