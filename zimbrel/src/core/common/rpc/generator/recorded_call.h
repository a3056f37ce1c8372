// A unary call as its caller sees it, for tests of generated classes.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_RECORDED_CALL_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_RECORDED_CALL_H_

#include <string>
#include <thread>

#include "google/protobuf/service.h"

namespace orvane::generator {

// Controller and closure in one; pass it as both.
class RecordedCall final : public google::protobuf::RpcController,
                           public google::protobuf::Closure {
 public:
  // How often `done` ran, and on which thread last.
  int runs() const { return runs_; }
  std::thread::id thread() const { return thread_; }

  // Whether the call had failed when `done` last ran.
  bool had_failed_when_run() const { return had_failed_when_run_; }

  void SetFailed(const std::string& reason) override {
    failed_ = true;
    reason_ = reason;
  }
  bool Failed() const override { return failed_; }
  std::string ErrorText() const override { return reason_; }

  void Run() override {
    ++runs_;
    thread_ = std::this_thread::get_id();
    had_failed_when_run_ = failed_;
  }

  void Reset() override {}
  void StartCancel() override {}
  bool IsCanceled() const override { return false; }
  void NotifyOnCancel(google::protobuf::Closure* /*callback*/) override {}

 private:
  bool failed_ = false;
  std::string reason_;
  int runs_ = 0;
  std::thread::id thread_;
  bool had_failed_when_run_ = false;
};

}  // namespace orvane::generator

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_RECORDED_CALL_H_
