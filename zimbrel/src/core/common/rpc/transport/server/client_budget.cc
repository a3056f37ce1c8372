#include "zimbrel/src/core/common/rpc/transport/server/client_budget.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include "absl/strings/str_cat.h"

namespace orvane::internal {
namespace {

using std::chrono::steady_clock;

constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

// One row of the limits on what is held.
struct HeldLimit {
  absl::string_view what;
  absl::string_view name;  // Of the total, in ServerLimits.
  std::size_t each_client;
  std::size_t total;
};

using HeldLimits = std::array<HeldLimit, kHeldKinds>;
using Buckets = std::array<TokenBucket, kDoneKinds>;

// In the order of Held.
HeldLimits HeldLimitsOf(const ServerLimits& limits) {
  return {{
      {"calls in progress", "max_total_calls", limits.max_calls,
       limits.max_total_calls},
      {"bytes of requests in progress", "max_total_request_bytes",
       limits.max_request_bytes, limits.max_total_request_bytes},
      {"streams open", "max_total_streams", limits.max_streams,
       limits.max_total_streams},
      {"subscriptions", "max_total_subscriptions", limits.max_subscriptions,
       limits.max_total_subscriptions},
      {"subscriptions since the server was made", "max_lifetime_subscriptions",
       kNoLimit, limits.max_lifetime_subscriptions},
  }};
}

// In the order of Done.
Buckets BucketsOfClient(const ServerLimits& limits) {
  return {TokenBucket(limits.max_stream_rate),
          TokenBucket(limits.max_subscription_rate),
          TokenBucket(limits.max_takeover_rate)};
}
Buckets BucketsOfAll(const ServerLimits& limits) {
  return {TokenBucket(limits.max_total_stream_rate),
          TokenBucket(limits.max_total_subscription_rate),
          TokenBucket(limits.max_total_takeover_rate)};
}

// `held` is what there is, "3" or, where more is asked for at once, "3 + 5".
std::string Sum(std::size_t held, std::size_t amount) {
  return amount == 1 ? absl::StrCat(held) : absl::StrCat(held, " + ", amount);
}

}  // namespace

absl::Duration TokenBucket::Take(steady_clock::time_point now) {
  if (std::isinf(limit_.per_second)) return absl::ZeroDuration();
  const std::chrono::duration<double> passed = now - last_take_;
  last_take_ = now;
  tokens_ =
      std::min(limit_.at_once, tokens_ + passed.count() * limit_.per_second) -
      1;
  return absl::Seconds(std::max(0.0, -tokens_ / limit_.per_second));
}

class ClientBudget::Total {
 public:
  explicit Total(const ServerLimits& server_limits)
      : limits(server_limits),
        held_limits(HeldLimitsOf(server_limits)),
        done(BucketsOfAll(server_limits)) {}

  // What is kept for each client.
  std::size_t Share(std::size_t kind) const {
    return held_limits[kind].total / 2 /
           std::max<std::size_t>(1, limits.max_connections);
  }

  const ServerLimits limits;
  const HeldLimits held_limits;
  std::array<std::size_t, kHeldKinds> held{};
  // The part of it that clients hold beyond their shares.
  std::array<std::size_t, kHeldKinds> beyond_shares{};
  Buckets done;
};

std::shared_ptr<ClientBudget::Total> ClientBudget::MakeTotal(
    const ServerLimits& limits) {
  return std::make_shared<Total>(limits);
}

void ClientBudget::Describe(const Total& total,
                            rpc::transport::ServerStatus* status) {
  for (std::size_t kind = 0; kind < kHeldKinds; ++kind) {
    rpc::transport::BudgetStatus* const budget = status->add_budgets();
    budget->set_limit(std::string(total.held_limits[kind].name));
    budget->set_used(total.held[kind]);
    budget->set_available(total.held_limits[kind].total);
  }
}

ClientBudget::ClientBudget(std::shared_ptr<Total> total)
    : total_(std::move(total)), done_(BucketsOfClient(total_->limits)) {}

absl::Status ClientBudget::Take(Held what, std::size_t amount) {
  const auto kind = static_cast<std::size_t>(what);
  const HeldLimit& limit = total_->held_limits[kind];
  std::size_t& own = held_[kind];
  if (amount > limit.each_client - own) {
    return absl::ResourceExhaustedError(
        absl::StrCat(Sum(own, amount), " ", limit.what, "; the limit is ",
                     limit.each_client));
  }

  std::size_t& all = total_->held[kind];
  std::size_t& beyond_shares = total_->beyond_shares[kind];
  const std::size_t share = total_->Share(kind);
  const std::size_t more_beyond =
      std::max(own + amount, share) - std::max(own, share);
  const std::size_t shared_out =
      share * std::max<std::size_t>(1, total_->limits.max_connections);
  if (amount > limit.total - all ||
      more_beyond > limit.total - shared_out - beyond_shares) {
    return absl::ResourceExhaustedError(absl::StrCat(
        Sum(all, amount), " ", limit.what, ", of all clients; the limit is ",
        limit.total, ", half of it in equal parts for each client"));
  }
  own += amount;
  all += amount;
  beyond_shares += more_beyond;
  return absl::OkStatus();
}

void ClientBudget::GiveBack(Held what, std::size_t amount) {
  const auto kind = static_cast<std::size_t>(what);
  const std::size_t share = total_->Share(kind);
  std::size_t& own = held_[kind];
  total_->beyond_shares[kind] -=
      std::max(own, share) - std::max(own - amount, share);
  total_->held[kind] -= amount;
  own -= amount;
}

absl::Duration ClientBudget::Count(Done what) {
  const auto kind = static_cast<std::size_t>(what);
  const auto now = steady_clock::now();
  const absl::Duration own = done_[kind].Take(now);
  const absl::Duration all = total_->done[kind].Take(now);
  return std::max(own, all);
}

}  // namespace orvane::internal
