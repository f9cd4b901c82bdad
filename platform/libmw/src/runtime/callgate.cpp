#include <libmw/trackable.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cassert>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace mw {
namespace {

constexpr std::uint64_t kClosed = 1;
constexpr std::uint64_t kOnePass = 2;
constexpr std::size_t kCacheLine = 64;

struct alignas(kCacheLine) Counter {
  std::atomic<std::uint64_t> word{0};
};

struct ThisThread {
  CallGate::Pass* innermost = nullptr;
  unsigned number = 0;  // 0: none given yet
};

constinit thread_local ThisThread thisThread;

unsigned threadNumber() noexcept {
  static std::atomic<unsigned> last{0};
  if (thisThread.number == 0) thisThread.number = last.fetch_add(1, std::memory_order_relaxed) + 1;
  return thisThread.number;
}

}  // namespace

class CallGate::Core : public std::enable_shared_from_this<Core> {
 public:
  explicit Core(unsigned counters)
      : mask_(std::bit_ceil(std::max(counters, 1U)) - 1), counters_(std::make_unique<Counter[]>(mask_ + 1U)) {}

  bool enter() noexcept {
    auto& word = mine();
    auto seen = word.load(std::memory_order_relaxed);
    do {
      if (seen & kClosed) return false;
    } while (!word.compare_exchange_weak(seen, seen + kOnePass, std::memory_order_acquire, std::memory_order_relaxed));
    return true;
  }

  void leave() noexcept {
    auto& word = mine();
    auto seen = word.load(std::memory_order_relaxed);
    while (!(seen & kClosed)) {
      if (word.compare_exchange_weak(seen, seen - kOnePass, std::memory_order_release, std::memory_order_relaxed))
        return;
    }
    // Notified under the mutex: once the waiter has it, nothing here touches the core any more.
    const std::lock_guard lock(mutex_);
    word.fetch_sub(kOnePass, std::memory_order_release);
    left_.notify_all();
  }

  void close() noexcept {
    for (unsigned i = 0; i <= mask_; ++i) counters_[i].word.fetch_or(kClosed, std::memory_order_acq_rel);
  }

  bool isClosed() const noexcept { return counters_[mask_].word.load(std::memory_order_acquire) & kClosed; }

  void drain() noexcept {
    close();
    const auto own = keepAliveForOwnPasses();
    std::unique_lock lock(mutex_);
    left_.wait(lock, [&] { return passes() <= own; });
  }

  bool isEnteredByThisThread() const noexcept {
    for (auto* pass = thisThread.innermost; pass; pass = pass->outer_) {
      if (pass->core_ == this) return true;
    }
    return false;
  }

 private:
  std::atomic<std::uint64_t>& mine() noexcept { return counters_[threadNumber() & mask_].word; }

  std::uint64_t passes() const noexcept {
    std::uint64_t sum = 0;
    for (unsigned i = 0; i <= mask_; ++i) sum += counters_[i].word.load(std::memory_order_acquire) / kOnePass;
    return sum;
  }

  /// The calling thread may be about to destroy the gate from inside; its passes still have to end on something.
  std::uint64_t keepAliveForOwnPasses() noexcept {
    std::uint64_t own = 0;
    for (auto* pass = thisThread.innermost; pass; pass = pass->outer_) {
      if (pass->core_ != this) continue;
      pass->keptAlive_ = shared_from_this();
      ++own;
    }
    return own;
  }

  const unsigned mask_;
  const std::unique_ptr<Counter[]> counters_;
  std::mutex mutex_;  // guards the decrements of closed counters, so that waiters miss none
  std::condition_variable left_;
};

CallGate::CallGate(unsigned counters) : core_(std::make_shared<Core>(counters)) {}
CallGate::~CallGate() { core_->drain(); }

CallGate::Pass CallGate::enter() const noexcept { return Pass(core_.get()); }
CallGate::Token CallGate::token() const noexcept { return Token(core_); }
void CallGate::close() noexcept { core_->close(); }
bool CallGate::isClosed() const noexcept { return core_->isClosed(); }
void CallGate::drain() noexcept { core_->drain(); }
bool CallGate::isEnteredByThisThread() const noexcept { return core_->isEnteredByThisThread(); }

CallGate::Pass CallGate::Token::enter() const noexcept { return Pass(core_.get()); }
bool CallGate::Token::isClosed() const noexcept { return !core_ || core_->isClosed(); }

CallGate::Pass::Pass(Core* core) noexcept {
  if (!core || !core->enter()) return;
  core_ = core;
  outer_ = thisThread.innermost;
  thisThread.innermost = this;
}

void CallGate::Pass::leave() noexcept {
  assert(thisThread.innermost == this && "passes end in the reverse of the order in which they began");
  thisThread.innermost = outer_;
  core_->leave();
}

}  // namespace mw
