#include "threadlocal.h"

#include <hxerror/mutex.h>
#include <libmw/detail/racepoint.h>
#include <libmw/trackable.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cassert>
#include <condition_variable>
#include <cstdint>

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

HX_THREAD_LOCAL constinit ThisThread thisThread;

unsigned nextThreadNumber() noexcept {
  static std::atomic<unsigned> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace

class CallGate::Core : public std::enable_shared_from_this<Core> {
 public:
  explicit Core(unsigned counters)
      : mask_(std::bit_ceil(std::max(counters, 1U)) - 1), counters_(std::make_unique<Counter[]>(mask_ + 1U)) {}

  bool enter(Pass& pass, unsigned threadNumber) noexcept {
    auto& word = counters_[threadNumber & mask_].word;
    const auto before = word.fetch_add(kOnePass, std::memory_order_acquire);
    if (before & kClosed) {
      endOnClosed(word);
      return false;
    }
    pass.counter_ = &word;
    pass.entered_ = before + kOnePass;
    return true;
  }

  void leave(Pass& pass) noexcept {
    // Guessing the present value saves reading it, which costs as much as the exchange right after one.
    auto seen = pass.entered_;
    while (!(seen & kClosed)) {
      if (pass.counter_->compare_exchange_weak(seen, seen - kOnePass, std::memory_order_release,
                                               std::memory_order_relaxed))
        return;
    }
    endOnClosed(*pass.counter_);
  }

  void close() noexcept {
    for (unsigned i = 0; i <= mask_; ++i) counters_[i].word.fetch_or(kClosed, std::memory_order_acq_rel);
  }

  bool isClosed() const noexcept { return counters_[mask_].word.load(std::memory_order_acquire) & kClosed; }

  void drain() noexcept {
    close();
    const auto own = keepAliveForOwnPasses();
    HX::MutexLock lock(mutex_);
    left_.wait(lock.native(), [&] { return haveLeft(own); });
  }

  bool drainFor(std::chrono::nanoseconds limit) noexcept {
    close();
    const auto own = keepAliveForOwnPasses();
    HX::MutexLock lock(mutex_);
    return left_.wait_for(lock.native(), limit, [&] { return haveLeft(own); });
  }

  bool isEnteredByThisThread() const noexcept {
    for (auto* pass = thisThread.innermost; pass; pass = pass->outer_) {
      if (pass->core_ == this) return true;
    }
    return false;
  }

 private:
  /// Notifies under the mutex: once the waiter has it, nothing here touches the core any more.
  void endOnClosed(std::atomic<std::uint64_t>& word) noexcept {
    const HX::MutexLock lock(mutex_);
    word.fetch_sub(kOnePass, std::memory_order_release);
    left_.notify_all();
  }

  bool haveLeft(std::uint64_t own) const noexcept {
    const bool haveLeft = passes() <= own;
    if (!haveLeft) HX_RACE_POINT("a gate has counted who is inside");
    return haveLeft;
  }

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
  HX::Mutex mutex_;  // guards the decrements of closed counters, so that waiters miss none
  std::condition_variable left_;
};

CallGate::CallGate(unsigned counters) : core_(std::make_shared<Core>(counters)) {}
CallGate::~CallGate() { core_->drain(); }

CallGate::Pass CallGate::enter() const noexcept { return Pass(core_.get()); }
CallGate::Token CallGate::token() const noexcept { return Token(core_); }
void CallGate::close() noexcept { core_->close(); }
bool CallGate::isClosed() const noexcept { return core_->isClosed(); }
void CallGate::drain() noexcept { core_->drain(); }
bool CallGate::drainFor(std::chrono::nanoseconds limit) noexcept { return core_->drainFor(limit); }
bool CallGate::isEnteredByThisThread() const noexcept { return core_->isEnteredByThisThread(); }

CallGate::Pass CallGate::Token::enter() const noexcept { return Pass(core_.get()); }
bool CallGate::Token::isClosed() const noexcept { return !core_ || core_->isClosed(); }

CallGate::Pass::Pass(Core* core) noexcept {
  auto& self = thisThread;
  if (self.number == 0) self.number = nextThreadNumber();
  if (!core || !core->enter(*this, self.number)) return;
  core_ = core;
  innermost_ = &self.innermost;
  outer_ = self.innermost;
  self.innermost = this;
}

void CallGate::Pass::leave() noexcept {
  assert(*innermost_ == this && "passes end in the reverse of the order in which they began, on their own thread");
  *innermost_ = outer_;
  core_->leave(*this);
}

}  // namespace mw
