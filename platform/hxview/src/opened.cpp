#include <hxview/futex.h>
#include <hxview/opened.h>

#include <utility>

namespace HX::view {

Opened::~Opened() = default;

std::shared_ptr<const Place> Opened::place() const {
  const MutexLock lock(mutex_);
  return place_;
}

void Opened::waitForChange(std::uint64_t standing, std::chrono::nanoseconds limit) const noexcept {
  sleepWhile(standing_, standing, limit);
}

void Opened::connect(std::shared_ptr<const Place> place) {
  {
    const MutexLock lock(mutex_);
    place_.swap(place);
    standing_.store((standing_.load(std::memory_order_relaxed) + 1) | 1U, std::memory_order_release);
  }
  wakeAll(standing_);
}

void Opened::disconnect() {
  std::shared_ptr<const Place> left;
  {
    const MutexLock lock(mutex_);
    left = place_;
    const std::uint64_t before = standing_.load(std::memory_order_relaxed);
    if (isThere(before)) standing_.store(before + 1, std::memory_order_release);
  }
  wakeAll(standing_);
  if (left) wakeAll(left->sequence());
}

}  // namespace HX::view
