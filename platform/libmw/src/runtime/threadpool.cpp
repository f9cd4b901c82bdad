#include "threadpool.h"

#include "afterserving.h"
#include "callerscope.h"
#include "processend.h"
#include "signalstack.h"

#include <hxerror/mutex.h>
#include <libmw/log.h>

#include <algorithm>
#include <bit>
#include <pthread.h>
#include <stdexcept>
#include <system_error>

#include <boost/asio/post.hpp>
#include <fmt/format.h>

namespace mw::detail {
namespace {

namespace asio = boost::asio;

constexpr const char* kCategory = "mw.eventloop";
constexpr std::size_t kLongestThreadName = 15;

thread_local const ThreadPool* currentPool = nullptr;

/// When to wake for what was asked for after `delay`: up to a sixty-fourth of it later, with what else ends about then.
/// What is done each second in a dozen places then wakes a process at rest once a second, and not a dozen times.
std::chrono::steady_clock::time_point endOf(std::chrono::nanoseconds delay) {
  constexpr std::chrono::nanoseconds::rep kMostLater = 64;
  delay = std::min(delay, std::chrono::nanoseconds::max() / 2);
  const auto step = static_cast<std::chrono::nanoseconds::rep>(std::bit_floor(
      static_cast<std::uint64_t>(std::max<std::chrono::nanoseconds::rep>(delay.count() / kMostLater, 1))));
  const auto end = std::chrono::steady_clock::now().time_since_epoch() + delay;
  return std::chrono::steady_clock::time_point((end + std::chrono::nanoseconds(step - 1)) / step * step);
}

EventLoop::Options completed(EventLoop::Options options) {
  if (options.minThreads == 0) options.minThreads = std::max<std::size_t>(4, std::thread::hardware_concurrency());
  options.maxThreads = std::max(options.maxThreads, options.minThreads);
  options.growAfter = std::max(options.growAfter, std::chrono::milliseconds(1));
  return options;
}

}  // namespace

ThreadPool::ThreadPool(EventLoop::Options options)
    : options_(completed(std::move(options))), service_(std::make_unique<Context>(1)) {
  monitorTimer_.emplace(*service_);
  workGuard_.emplace(work_.get_executor());
  serviceGuard_.emplace(service_->get_executor());
}

void ThreadPool::start() {
  startThread(&ThreadPool::runService);
  for (std::size_t i = 0; i < options_.minThreads; ++i) startWorker();
}

bool ThreadPool::post(std::function<void()> function) {
  const auto pass = accepting_.enter();
  if (!pass) return false;
  outstanding_.fetch_add(kForWorkers);
  try {
    asio::post(work_, [this, function = std::move(function)]() mutable { execute(function); });
  } catch (...) {
    oneDone(kForWorkers);
    throw;
  }
  if (isOverloaded()) armMonitor();
  return true;
}

bool ThreadPool::postAfter(std::function<void()> function, std::chrono::nanoseconds delay) {
  if (delay <= delay.zero()) return post(std::move(function));
  const auto pass = accepting_.enter();
  if (!pass) return false;
  auto timer = std::make_shared<asio::steady_timer>(*service_, endOf(delay));
  timer->async_wait([this, timer, function = std::move(function)](const boost::system::error_code& canceled) mutable {
    if (!canceled) post(std::move(function));
  });
  return true;
}

bool ThreadPool::postAfterServing(std::function<void()> function) {
  AfterServing* const serving = AfterServing::present();
  if (!serving || !serving->isOpen()) return post(std::move(function));
  const auto pass = accepting_.enter();
  if (!pass) return false;
  outstanding_.fetch_add(kLeftToOthers);
  try {
    serving->add(
        [self = shared_from_this(), function = std::move(function)]() mutable { self->executeLent(function); });
  } catch (...) {
    oneDone(kLeftToOthers);
    throw;
  }
  return true;
}

bool ThreadPool::isInThisPool() const noexcept { return currentPool == this; }

void ThreadPool::drain() {
  if (isInThisPool()) throw std::logic_error("EventLoop::drain: called on a thread of the loop");
  HX::MutexLock lock(mutex_);
  changed_.wait(lock.native(), [this] { return outstanding_.load() == 0; });
}

void ThreadPool::stop() {
  if (isForkedChild()) return;
  // From here on nothing is queued any more, so that the workers end when they have emptied the queue.
  accepting_.drain();
  isStopped_ = true;
  const HX::MutexLock lock(mutex_);
  workGuard_.reset();
  serviceGuard_.reset();
  if (service_) service_->stop();
}

bool ThreadPool::join(std::optional<std::chrono::milliseconds> timeout) {
  if (isForkedChild()) return true;  // There are no threads, and the lock may be held by one of them.
  std::vector<std::thread> ended;
  std::unique_ptr<Context> timers;
  HX::MutexLock lock(mutex_);
  const bool isOwnThread = isInThisPool();
  // The calling function counts as work, so the other workers would wait for it to return before they end.
  if (isOwnThread) work_.stop();
  std::size_t lent = isOwnThread ? 1 : 0;  // The calling one.
  if (const auto self = threads_.find(std::this_thread::get_id()); self != threads_.end()) {
    self->second.detach();
    threads_.erase(self);
    lent = 0;
  }
  const auto haveEnded = [this, lent]() HX_REQUIRES(mutex_) { return threads_.empty() && lent_ <= lent; };
  if (!timeout) {
    changed_.wait(lock.native(), haveEnded);
  } else if (!changed_.wait_for(lock.native(), *timeout, haveEnded)) {
    for (auto& [id, thread] : threads_) thread.detach();
    threads_.clear();
    return false;
  }
  ended.swap(ended_);
  if (!isOwnThread) timers.swap(service_);
  lock.unlock();
  for (auto& thread : ended) thread.join();
  if (timers) monitorTimer_.reset();
  return true;
}

void ThreadPool::startThread(void (ThreadPool::*body)()) {
  const HX::MutexLock lock(mutex_);
  std::thread thread([self = shared_from_this(), body] {
    pthread_setname_np(pthread_self(), self->options_.name.substr(0, kLongestThreadName).c_str());
    currentPool = self.get();
    const detail::SignalStack forOverflow;
    (self.get()->*body)();
    self->threadEnded();
  });
  const auto id = thread.get_id();
  threads_.emplace(id, std::move(thread));
}

void ThreadPool::startWorker() {
  const bool stays = workers_.fetch_add(1) < options_.minThreads;
  try {
    startThread(stays ? &ThreadPool::runStayingWorker : &ThreadPool::runWorker);
  } catch (...) {
    workers_.fetch_sub(1);
    throw;
  }
}

/// A wait with a time-out wakes each second, whatever the time: those who never retire wait without one.
void ThreadPool::runStayingWorker() {
  while (work_.run_one() != 0) continue;
  workers_.fetch_sub(1);
}

void ThreadPool::runWorker() {
  for (;;) {
    if (work_.run_one_for(options_.idleTimeout) != 0) continue;
    if (mayRetire()) return;
    if (!work_.stopped()) continue;
    workers_.fetch_sub(1);
    return;
  }
}

void ThreadPool::runService() { service_->run(); }

void ThreadPool::threadEnded() {
  std::vector<std::thread> ended;  // earlier ones; joined here, so that a long-lived loop does not collect them
  const HX::MutexLock lock(mutex_);
  ended.swap(ended_);
  for (auto& thread : ended) thread.join();
  if (auto self = threads_.extract(std::this_thread::get_id())) ended_.push_back(std::move(self.mapped()));
  changed_.notify_all();
}

/// Whether this idle worker is one more than the pool keeps.
bool ThreadPool::mayRetire() {
  auto workers = workers_.load();
  do {
    if (workers <= options_.minThreads) return false;
  } while (!workers_.compare_exchange_weak(workers, workers - 1));
  // A function posted just now may have counted on this worker.
  if (isOverloaded()) armMonitor();
  return true;
}

void ThreadPool::execute(std::function<void()>& function) {
  running_.fetch_add(1);
  started_.fetch_add(1);
  run(function);
  running_.fetch_sub(1);
  oneDone(kForWorkers);
}

void ThreadPool::executeLent(std::function<void()>& function) {
  if (isInThisPool()) {  // It was passed on to a worker, within a function of that.
    run(function);
    return oneDone(kLeftToOthers);
  }
  {
    const HX::MutexLock lock(mutex_);
    ++lent_;
  }
  const auto* const outer = std::exchange(currentPool, this);
  run(function);
  oneDone(kLeftToOthers);
  currentPool = outer;
  const HX::MutexLock lock(mutex_);
  --lent_;
  changed_.notify_all();
}

void ThreadPool::run(std::function<void()>& function) {
  try {
    const CallerScope caller;
    if (!isStopped_) function();
  } catch (const std::exception& error) {
    log::error(kCategory, "post", fmt::format("loop \"{}\": a function threw: {}", options_.name, error.what()));
  } catch (...) {
    log::error(kCategory, "post", fmt::format("loop \"{}\": a function threw an unknown exception", options_.name));
  }
  function = nullptr;  // what it captured is part of the function: whoever drains waits for that too
}

void ThreadPool::oneDone(std::uint64_t which) {
  if (outstanding_.fetch_sub(which) != which) return;
  const HX::MutexLock lock(mutex_);
  changed_.notify_all();
}

std::size_t ThreadPool::queued() const noexcept {
  const auto outstanding = forWorkers();
  const auto running = running_.load();  // may have grown since
  return outstanding > running ? outstanding - running : 0;
}

void ThreadPool::armMonitor() {
  if (isMonitorArmed_.exchange(true)) return;
  const auto pass = accepting_.enter();
  if (!pass) return;
  asio::post(*service_, [this] {
    noteProgress();
    scheduleTick();
  });
}

void ThreadPool::scheduleTick() {
  monitorTimer_->expires_after(options_.growAfter);
  monitorTimer_->async_wait([this](const boost::system::error_code& canceled) {
    if (!canceled) tick();
  });
}

void ThreadPool::tick() {
  if (queued() == 0) {
    isMonitorArmed_ = false;
    if (!isOverloaded() || isMonitorArmed_.exchange(true)) return;
  }
  if (started_.load() != startedBefore_) {
    noteProgress();
  } else {
    handleStall();
  }
  scheduleTick();
}

void ThreadPool::noteProgress() {
  startedBefore_ = started_.load();
  stalledSince_ = Clock::now();
  isStallReported_ = false;
}

void ThreadPool::handleStall() {
  if (workers_.load() < options_.maxThreads) {
    try {
      startWorker();
      return;
    } catch (const std::system_error&) {
      // The system gives no more threads: as good as the limit, and reported like it.
    }
  }
  if (isStallReported_ || Clock::now() - stalledSince_ < options_.stallWarning) return;
  isStallReported_ = true;
  log::error(kCategory, "post",
             fmt::format("loop \"{}\": {} functions have waited for {} ms, because all {} threads are busy (limit {})",
                         options_.name, queued(), options_.stallWarning.count(), workers_.load(), options_.maxThreads));
}

}  // namespace mw::detail
