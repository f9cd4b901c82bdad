#pragma once

#include <hxjournal/executor.h>

#include <functional>
#include <map>
#include <mutex>
#include <utility>

namespace kit {

/// Runs what is posted when the test says so, by a clock that the test moves.
class ManualExecutor : public HX::journal::Executor {
 public:
  using Clock = std::chrono::steady_clock;

  bool post(std::function<void()> task, std::chrono::nanoseconds delay) override {
    const std::lock_guard lock(mutex_);
    ++posted_;
    tasks_.emplace(now_ + delay, std::move(task));
    return true;
  }
  /// Keeps one task, where the test lets it, until the test runs `runLeft`.
  bool leave(const std::function<void()>& task) override {
    const std::lock_guard lock(mutex_);
    if (!mayLeave_ || left_) return false;
    left_ = task;
    return true;
  }
  void letLeave() {
    const std::lock_guard lock(mutex_);
    mayLeave_ = true;
  }
  void runLeft() {
    std::function<void()> task;
    {
      const std::lock_guard lock(mutex_);
      std::swap(task, left_);
    }
    if (task) task();
  }
  Clock::time_point now() const noexcept override {
    const std::lock_guard lock(mutex_);
    return now_;
  }

  /// Runs the next task that is due. @return False when none is.
  bool runOne() {
    std::function<void()> task;
    {
      const std::lock_guard lock(mutex_);
      if (tasks_.empty() || tasks_.begin()->first > now_) return false;
      task = std::move(tasks_.begin()->second);
      tasks_.erase(tasks_.begin());
    }
    task();
    return true;
  }
  /// Runs what is due, and what that posts for now.
  void run() {
    while (runOne()) {
    }
  }
  /// Lets time pass, and runs each task when it is due.
  void advance(std::chrono::nanoseconds time) {
    const auto until = now() + time;
    run();
    while (moveToNext(until)) run();
  }

  /// Forgets what has not run. A task may hold whoever posted it, who holds the executor.
  void clear() {
    std::multimap<Clock::time_point, std::function<void()>> forgotten;
    const std::lock_guard lock(mutex_);
    tasks_.swap(forgotten);
  }

  std::size_t waiting() const {
    const std::lock_guard lock(mutex_);
    return tasks_.size();
  }
  std::size_t posted() const {
    const std::lock_guard lock(mutex_);
    return posted_;
  }

 private:
  bool moveToNext(Clock::time_point until) {
    const std::lock_guard lock(mutex_);
    if (tasks_.empty() || tasks_.begin()->first > until) {
      now_ = until;
      return false;
    }
    now_ = std::max(now_, tasks_.begin()->first);
    return true;
  }

  mutable std::mutex mutex_;  // Guards all below.
  std::multimap<Clock::time_point, std::function<void()>> tasks_;
  Clock::time_point now_{std::chrono::hours(1)};
  std::size_t posted_ = 0;
  bool mayLeave_ = false;
  std::function<void()> left_;
};

}  // namespace kit
