#include "zimbrel/src/core/common/rpc/loop/epoll_set.h"

#include <fcntl.h>
#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "absl/log/log.h"
#include "absl/status/status.h"
#include "absl/strings/str_cat.h"

namespace orvane::internal {
namespace {

// The other end will not send any more.
constexpr std::uint32_t kNoMoreInput = EPOLLRDHUP | EPOLLHUP | EPOLLERR;
// The other end will not receive any more.
constexpr std::uint32_t kNoMoreOutput = EPOLLHUP | EPOLLERR;
constexpr std::uint32_t kInput = EPOLLIN | EPOLLRDHUP | EPOLLET;

// More than are ready at the same time in most programs.
constexpr int kEventsPerWait = 64;

}  // namespace

// Shared by the handle and by posted tasks, which may run after the handle is
// gone.
class EpollSet::Watched final : public std::enable_shared_from_this<Watched> {
 public:
  Watched(EpollSet* set, OwnedDescriptor descriptor)
      : set_(set), descriptor_(std::move(descriptor)) {}

  int descriptor() const { return descriptor_.get(); }

  bool Control(int operation, std::uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = this;
    return ::epoll_ctl(set_->descriptor(), operation, descriptor_.get(),
                       &event) == 0;
  }

  // The task that is replaced is destroyed last: its destructor may use this
  // object, or drop the handle of it and this object with it.
  void WhenReadable(Task task) {
    set_->loop_->CheckServiceThread("EventLoop::Watch::WhenReadable");
    const Task replaced = std::exchange(input_.task, std::move(task));
    if (input_.is_ready) Post<&Watched::input_>();
  }

  void WhenWritable(Task task) {
    set_->loop_->CheckServiceThread("EventLoop::Watch::WhenWritable");
    const Task replaced = std::exchange(output_.task, std::move(task));
    SetAwaitingOutput(output_.task != nullptr);
  }

  void OnEvents(std::uint32_t events) {
    if ((events & kNoMoreInput) != 0) input_.stays_ready = true;
    if ((events & (EPOLLIN | kNoMoreInput)) != 0) {
      input_.is_ready = true;
      Post<&Watched::input_>();
    }
    if (awaits_output_ && (events & (EPOLLOUT | kNoMoreOutput)) != 0) {
      SetAwaitingOutput(false);
      Post<&Watched::output_>();
    }
  }

  // Closing twice is harmless.
  void Close() {
    if (descriptor_.get() < 0) return;
    set_->loop_->CheckServiceThread("EventLoop::Watch::~Watch");
    set_->watched_.erase(this);
    // Closing alone is not enough: a child process may have the same socket.
    Control(EPOLL_CTL_DEL, 0);
    const OwnedDescriptor closed(std::move(descriptor_));
    // Moved out of this object first: their destructors may use it.
    const Task dropped[] = {std::exchange(input_.task, nullptr),
                            std::exchange(output_.task, nullptr)};
  }

 private:
  struct Direction {
    Task task;
    bool is_posted = false;  // Whether the loop has been told to run `task`.
    bool is_ready = false;
    bool stays_ready = false;
  };

  template <Direction Watched::*direction>
  void Post() {
    Direction& self = this->*direction;
    if (self.task == nullptr || std::exchange(self.is_posted, true)) return;
    set_->loop_->Post([watched = shared_from_this()] {
      Direction& due = (*watched).*direction;
      due.is_posted = false;
      due.is_ready = due.stays_ready;
      // The task may wait again, or close this object.
      if (Task task = std::exchange(due.task, nullptr); task != nullptr)
        std::move(task)();
    });
  }

  // Output is awaited only while somebody wants to write; otherwise each read
  // at the other end would wake the loop.
  void SetAwaitingOutput(bool awaits) {
    if (awaits == awaits_output_) return;
    awaits_output_ = awaits;
    if (!Control(EPOLL_CTL_MOD, awaits ? kInput | EPOLLOUT : kInput))
      PLOG(FATAL) << "event loop: cannot watch a descriptor";
  }

  EpollSet* const set_;
  OwnedDescriptor descriptor_;  // None once it is closed.
  Direction input_;
  Direction output_;
  bool awaits_output_ = false;
};

class EpollSet::WatchHandle final : public EventLoop::Watch {
 public:
  explicit WatchHandle(std::shared_ptr<Watched> watched)
      : watched_(std::move(watched)) {}
  ~WatchHandle() override { watched_->Close(); }

  int descriptor() const override { return watched_->descriptor(); }
  void WhenReadable(Task task) override {
    watched_->WhenReadable(std::move(task));
  }
  void WhenWritable(Task task) override {
    watched_->WhenWritable(std::move(task));
  }

 private:
  const std::shared_ptr<Watched> watched_;
};

EpollSet::EpollSet(EventLoop* loop)
    : loop_(loop), set_(::epoll_create1(EPOLL_CLOEXEC)) {
  if (set_.get() < 0)
    PLOG(FATAL) << "event loop: cannot create an epoll descriptor";
}

void EpollSet::AddWaker(int descriptor) {
  epoll_event event{};
  event.events = EPOLLIN | EPOLLET;
  event.data.ptr = nullptr;
  if (::epoll_ctl(set_.get(), EPOLL_CTL_ADD, descriptor, &event) != 0)
    PLOG(FATAL) << "event loop: cannot watch the descriptor that wakes it";
}

absl::StatusOr<std::unique_ptr<EventLoop::Watch>> EpollSet::Watch(
    OwnedDescriptor descriptor) {
  const int number = descriptor.get();
  const int flags = ::fcntl(number, F_GETFL);
  const auto watched = std::make_shared<Watched>(this, std::move(descriptor));
  if (flags < 0 || ::fcntl(number, F_SETFL, flags | O_NONBLOCK) != 0 ||
      ::fcntl(number, F_SETFD, FD_CLOEXEC) != 0 ||
      !watched->Control(EPOLL_CTL_ADD, kInput)) {
    const int error = errno;
    return absl::ErrnoToStatus(
        error, absl::StrCat("cannot watch descriptor ", number));
  }
  watched_.insert(watched.get());
  return std::make_unique<WatchHandle>(watched);
}

void EpollSet::Drop() {
  while (!watched_.empty()) {
    const auto watched = (*watched_.begin())->shared_from_this();
    watched->Close();
  }
}

void EpollSet::Look(Waiting waiting) {
  std::array<epoll_event, kEventsPerWait> events;
  int milliseconds = waiting == Waiting::kYes ? -1 : 0;
  int found = kEventsPerWait;
  // Until all that is ready has been found; the set reports each once.
  while (found == kEventsPerWait) {
    // An interrupted wait has found nothing.
    found = ::epoll_wait(set_.get(), events.data(), kEventsPerWait,
                         std::exchange(milliseconds, 0));
    // Nothing is closed in this function, so all that was found still exists.
    for (int i = 0; i < found; ++i) {
      const epoll_event& event = events[static_cast<std::size_t>(i)];
      if (event.data.ptr != nullptr)
        static_cast<Watched*>(event.data.ptr)->OnEvents(event.events);
    }
  }
}

}  // namespace orvane::internal
