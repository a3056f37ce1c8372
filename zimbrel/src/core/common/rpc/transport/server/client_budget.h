// What clients have taken of a server's limits.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_CLIENT_BUDGET_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_CLIENT_BUDGET_H_

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>

#include "absl/status/status.h"
#include "absl/time/time.h"

#include "rpc/transport/status.pb.h"
#include "zimbrel/src/core/common/rpc/transport/server_limits.h"

namespace orvane::internal {

// What is counted while it is there, and refused beyond a number.
enum class Held {
  kCalls,
  kRequestBytes,
  kStreams,
  kSubscriptions,
  kLifetimeSubscriptions,  // Never given back.
};
inline constexpr std::size_t kHeldKinds = 5;

// What is counted when it happens, and slowed down beyond a rate.
enum class Done { kOpenStream, kSubscribe, kTakeOver };
inline constexpr std::size_t kDoneKinds = 3;

// A rate limit at work. What exceeds it happens nevertheless, and makes a debt
// that time pays off.
class TokenBucket {
 public:
  explicit TokenBucket(RateLimit limit)
      : limit_(limit), tokens_(limit.at_once) {}

  // Takes one token. Returns how long it takes until no debt is left, 0 if
  // there is none.
  absl::Duration Take(std::chrono::steady_clock::time_point now);

 private:
  const RateLimit limit_;
  double tokens_;  // Below 0: a debt.
  std::chrono::steady_clock::time_point last_take_{};
};

// One client's part of a server's limits. Owned by its connection, and by those
// of its calls whose handlers have not run `done`, which may outlive it.
//
// Thread: the service thread; the destructor any.
class ClientBudget {
 public:
  // What all clients of a server have taken together.
  class Total;
  static std::shared_ptr<Total> MakeTotal(const ServerLimits& limits);

  // Tells all limits on what clients hold together, by their names.
  static void Describe(const Total& total,
                       rpc::transport::ServerStatus* status);

  explicit ClientBudget(std::shared_ptr<Total> total);

  // Takes `amount` more. An error, kResourceExhausted in words that tell value
  // and limit, means that nothing was taken.
  absl::Status Take(Held what, std::size_t amount = 1);

  // Gives back what was taken.
  void GiveBack(Held what, std::size_t amount = 1);

  // Counts something that happens. Returns for how long nothing more should be
  // read from the client.
  absl::Duration Count(Done what);

 private:
  const std::shared_ptr<Total> total_;
  std::array<std::size_t, kHeldKinds> held_{};
  std::array<TokenBucket, kDoneKinds> done_;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_CLIENT_BUDGET_H_
