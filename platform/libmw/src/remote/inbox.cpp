#include "inbox.h"

#include <libmw/eventloop.h>

#include <algorithm>
#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>

namespace mw::remote {
namespace {

/// A thread that has called and does not wait at once may never do so. What came for it is then done by others.
constexpr std::chrono::milliseconds kPatience{5};

}  // namespace

void Inbox::wake() noexcept {
  const HX::MutexLock lock(mutex_);
  wakeLocked();
}

void Inbox::wakeLocked() noexcept {
  woken_ = true;
  if (!polling_) {
    condition_.notify_one();
  } else if (std::this_thread::get_id() != owner_ && !std::exchange(signalled_, true)) {
    const std::uint64_t one = 1;
    static_cast<void>(!::write(file_.number(), &one, sizeof one));
  }
}

void Inbox::put(const Caller& caller, Task task) {
  const HX::MutexLock lock(mutex_);
  tasks_.emplace_back(caller, std::move(task));
  if (isAwaited(caller)) return wakeLocked();
  defaultLoop().post(
      [self = shared_from_this()] {
        while (const Task late = self->takeIf(false)) late();
      },
      kPatience);
}

Inbox::Task Inbox::takeIf(bool isAwaitedOne) {
  const HX::MutexLock lock(mutex_);
  const auto isOne = [&](const auto& one) HX_REQUIRES(mutex_) { return isAwaited(one.first) == isAwaitedOne; };
  const auto found = std::ranges::find_if(tasks_, isOne);
  if (found == tasks_.end()) return {};
  Task task = std::move(found->second);
  tasks_.erase(found);
  return task;
}

Caller Inbox::beginWait(const Caller& caller) {
  const HX::MutexLock lock(mutex_);
  ++waits_;
  woken_ = false;  // The thread looks for whatever it was before it sleeps.
  return std::exchange(caller_, caller);
}

void Inbox::endWait(const Caller& outer) {
  std::deque<std::pair<Caller, Task>> left;
  {
    const HX::MutexLock lock(mutex_);
    caller_ = outer;
    if (--waits_ == 0) left.swap(tasks_);
  }
  for (auto& [caller, task] : left) defaultLoop().post(std::move(task));
}

void Inbox::sleep(std::chrono::steady_clock::time_point deadline) {
  HX::MutexLock lock(mutex_);
  const auto isWoken = [this]() HX_REQUIRES(mutex_) { return woken_; };
  condition_.wait_until(lock.native(), deadline, isWoken);
  woken_ = false;
}

int Inbox::beginPolling() {
  const HX::MutexLock lock(mutex_);
  if (!file_) file_ = File(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!file_ || woken_) return -1;
  polling_ = true;
  return file_.number();
}

void Inbox::endPolling() {
  const HX::MutexLock lock(mutex_);
  polling_ = false;
  woken_ = false;  // Whatever it was for is looked at next.
  if (!std::exchange(signalled_, false)) return;
  std::uint64_t count = 0;
  static_cast<void>(!::read(file_.number(), &count, sizeof count));
}

}  // namespace mw::remote
