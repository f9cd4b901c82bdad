#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <vector>

namespace mw::detail {

/// Which methods of objects of this process a thread runs, for others to see: who waits for a call that does not end
/// can say which.
///
/// @par Threads  Its own writes, all may look. What is seen may just have ended, and of a thread that is deeper inside
///   calls than `kDepth` no more than the outer ones.
class RunningCalls {
 public:
  RunningCalls();
  RunningCalls(const RunningCalls&) = delete;
  RunningCalls& operator=(const RunningCalls&) = delete;
  ~RunningCalls();

  void enter(const void* object, unsigned member) noexcept {
    const std::size_t depth = depth_.load(std::memory_order_relaxed);
    if (depth < kDepth) {
      calls_[depth].object.store(object, std::memory_order_relaxed);
      calls_[depth].member.store(member, std::memory_order_relaxed);
    }
    depth_.store(depth + 1, std::memory_order_release);
  }
  void leave() noexcept { depth_.store(depth_.load(std::memory_order_relaxed) - 1, std::memory_order_release); }
  bool isInside() const noexcept { return depth_.load(std::memory_order_relaxed) > 0; }

  bool isJustIn(const void* object) const noexcept {
    return depth_.load(std::memory_order_relaxed) == 1 && calls_[0].object.load(std::memory_order_relaxed) == object;
  }

  /// The members of an object that run, on whichever threads, each once.
  static std::vector<unsigned> of(const void* object);

 private:
  static constexpr std::size_t kDepth = 8;
  struct Call {
    std::atomic<const void*> object{nullptr};
    std::atomic<unsigned> member{0};
  };
  std::atomic<std::size_t> depth_{0};
  std::array<Call, kDepth> calls_;
};

}  // namespace mw::detail
