// The engine's process.

#ifndef ENGINES_CHROMIUM_ENGINE_PROCESS_H_
#define ENGINES_CHROMIUM_ENGINE_PROCESS_H_

#include <sys/types.h>

#include <memory>
#include <string>
#include <utility>

#include "absl/status/statusor.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace chromium {

// The user that an engine runs as that root starts: "nobody".
inline constexpr uid_t kUnprivilegedUser = 65534;

struct EngineCommand {
  std::string path = "/usr/lib/chromium/chromium-headless-shell";

  // Where cookies and the like stay. Empty: in memory, and gone with the
  // engine.
  std::string profile = "";
};

// A process group that dies with this object, and with this process. It is
// never without its sandbox: started by root, it runs as kUnprivilegedUser. It
// inherits the pipe, and of the environment what says where programs, home,
// language, time zone and proxies are.
//
// Thread: that of the loop, which lives as long as the engine, since the system
// ends the engine with the thread that started it.
class EngineProcess {
 public:
  // Returns once the program has been started; words with the path if it cannot
  // be. Whether it works its pipe tells.
  static absl::StatusOr<std::unique_ptr<EngineProcess>> Start(
      orvane::EventLoop* loop, const EngineCommand& command);

  EngineProcess(const EngineProcess&) = delete;
  EngineProcess& operator=(const EngineProcess&) = delete;

  // Kills it and waits until it is gone.
  ~EngineProcess();

  pid_t pid() const { return pid_; }

  // The socket for its debugging pipe, at the first call.
  orvane::OwnedDescriptor TakePipe() { return std::move(pipe_); }

  // For an engine that has closed its pipe: waits for its end, briefly, kills
  // what is left of it, and tells in words how it ended and what it wrote last.
  // No other member may be called afterwards.
  std::string End();

 private:
  EngineProcess(pid_t pid, orvane::OwnedDescriptor pipe);

  void ReadOutput();
  void Kill(int* status);

  pid_t pid_;  // 0 after the end.
  orvane::OwnedDescriptor pipe_;
  std::unique_ptr<orvane::EventLoop::Watch> output_;
  std::string last_output_;
};

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_ENGINE_PROCESS_H_
