// For tests: a function as a closure.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_THEN_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_THEN_H_

#include <functional>
#include <memory>
#include <utility>

#include "google/protobuf/service.h"
#include "google/protobuf/stubs/common.h"

namespace orvane::testing {

// Runs a function once and deletes itself.
class Then final : public google::protobuf::Closure {
 public:
  explicit Then(std::function<void()> what) : what_(std::move(what)) {}
  void Run() override {
    const std::unique_ptr<Then> self(this);
    what_();
  }

 private:
  std::function<void()> what_;
};

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_THEN_H_
