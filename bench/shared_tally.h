#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <span>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace bench {

inline constexpr std::size_t kListeners = 10;

/// Nanoseconds on a clock that all processes of a machine share.
inline std::int64_t sharedNow() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

/// What listeners in processes of their own have received, in memory that they share with whoever measures.
class SharedTally {
 public:
  /// @param path  A file; made when it is not there.
  explicit SharedTally(const std::string& path) : file_(::open(path.c_str(), O_RDWR | O_CREAT, 0600)) {
    if (file_ < 0 || ::ftruncate(file_, sizeof(Shared)) != 0) throw std::runtime_error("cannot make " + path);
    void* const mapped = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0);
    if (mapped == MAP_FAILED) throw std::runtime_error("cannot map " + path);
    shared_ = static_cast<Shared*>(mapped);
  }
  SharedTally(const SharedTally&) = delete;
  SharedTally& operator=(const SharedTally&) = delete;
  ~SharedTally() {
    ::munmap(shared_, sizeof(Shared));
    ::close(file_);
  }

  /// Counts a message that was sent at `sent`.
  void receive(std::size_t listener, std::int64_t sent) {
    const auto microseconds = static_cast<std::size_t>((sharedNow() - sent) / 1000);
    Listener& own = shared_->listeners[listener];
    own.latencies[std::min(microseconds, kSlots - 1)].fetch_add(1, std::memory_order_relaxed);
    own.received.fetch_add(1, std::memory_order_release);
  }
  /// Counts messages whose time does not matter.
  void count(std::size_t listener, std::uint64_t messages) {
    shared_->listeners[listener].received.fetch_add(messages, std::memory_order_release);
  }
  /// Waits until the first `listeners` have received so many each. @return False when that takes too long.
  bool waitFor(std::uint64_t count, std::size_t listeners = kListeners) const {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (const Listener& one : std::span(shared_->listeners).first(listeners)) {
      while (one.received < count) {
        if (std::chrono::steady_clock::now() > end) return false;
        ::usleep(20);
      }
    }
    return true;
  }
  std::uint64_t received(std::size_t listener = 0) const { return shared_->listeners[listener].received; }
  void forgetLatencies() {
    for (Listener& one : shared_->listeners) {
      for (auto& slot : one.latencies) slot = 0;
    }
  }
  /// Microseconds that so large a part of the messages took at most.
  double percentile(double part) const {
    std::vector<std::uint64_t> slots(kSlots);
    std::uint64_t all = 0;
    for (const Listener& one : shared_->listeners) {
      for (std::size_t i = 0; i < kSlots; ++i) slots[i] += one.latencies[i];
    }
    for (const std::uint64_t slot : slots) all += slot;
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < kSlots; ++i) {
      seen += slots[i];
      if (static_cast<double>(seen) >= part * static_cast<double>(all)) return static_cast<double>(i);
    }
    return 0;
  }

 private:
  static constexpr std::size_t kSlots = 100'000;
  /// On cache lines of its own: a listener does not wait for another one's counting.
  struct alignas(64) Listener {
    std::atomic<std::uint64_t> received;
    std::array<std::atomic<std::uint64_t>, kSlots> latencies;
  };
  struct Shared {
    std::array<Listener, kListeners> listeners;
  };
  const int file_;
  Shared* shared_ = nullptr;
};

}  // namespace bench
