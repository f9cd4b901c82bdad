#pragma once

#include <cstddef>
#include <functional>
#include <latch>
#include <thread>
#include <vector>

namespace kit {

/// Runs every job on a thread of its own, all begun at once, and waits for them.
inline void together(const std::vector<std::function<void()>>& jobs) {
  std::latch begin(static_cast<std::ptrdiff_t>(jobs.size()));
  std::vector<std::jthread> threads;
  for (const auto& job : jobs) {
    threads.emplace_back([&begin, &job] {
      begin.arrive_and_wait();
      job();
    });
  }
}

/// The same job on `count` threads.
inline void together(std::size_t count, const std::function<void()>& job) { together(std::vector(count, job)); }

}  // namespace kit
