#include "poller.h"

#include "../runtime/threadlocal.h"
#include "../runtime/threadwait.h"

#include <libmw/eventloop.h>
#include <libmw/log.h>

#include <array>
#include <cerrno>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace mw::local {
namespace {

using namespace std::chrono_literals;

const char* const kCategory = "mw.link";
/// How often the monitor looks: a call keeps the lead for one to two ticks.
constexpr auto kTick = 2ms;
/// The first of them where no call was met in the middle, and no socket asks. Each tick of each process takes time from
/// the others.
constexpr auto kCalmTick = 5ms;
/// How many ticks without work end the looking.
constexpr int kIdleTicks = 5;
/// How long a thread beyond the first spare one is kept without work.
constexpr auto kIdleThread = 10s;
/// How long the end of the process waits for what still runs.
constexpr auto kGrace = 2s;
/// The file that wakes up the leader; sockets are numbered from 1.
constexpr std::uint64_t kWakeUp = 0;

/// The term in which the calling thread leads; 0 when it does not.
HX_THREAD_LOCAL std::uint64_t ledTerm = 0;

File made(int number, const char* what) {
  if (number < 0) throw std::system_error(errno, std::generic_category(), what);
  return File(number);
}

}  // namespace

File::~File() {
  if (number_ >= 0) ::close(number_);
}

/// At the end of the process nobody must be inside libraries that go. The poller itself stays: destructors of other
/// statics may still use it.
class Poller::AtExit {
 public:
  explicit AtExit(Poller& poller) : poller_(poller) {}
  AtExit(const AtExit&) = delete;
  AtExit& operator=(const AtExit&) = delete;
  ~AtExit() { poller_.stop(); }

 private:
  Poller& poller_;
};

Poller& Poller::instance() {
  defaultLoop();  // It is stopped after the poller, which posts to it.
  static auto* const the = new Poller;
  static const AtExit atExit(*the);
  return *the;
}

Poller::Poller()
    : epoll_(made(::epoll_create1(EPOLL_CLOEXEC), "watching connections")),
      wakeUp_(made(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "watching connections")) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = kWakeUp;
  ::epoll_ctl(epoll_.number(), EPOLL_CTL_ADD, wakeUp_.number(), &event);
}

std::uint64_t Poller::add(int socket, const std::weak_ptr<Pollable>& owner) {
  std::uint64_t number = 0;
  {
    const std::lock_guard lock(socketsMutex_);
    number = ++lastNumber_;
    sockets_.emplace(number, owner);
  }
  epoll_event event{};
  event.data.u64 = number;
  if (::epoll_ctl(epoll_.number(), EPOLL_CTL_ADD, socket, &event) != 0) {
    const int error = errno;
    const std::lock_guard lock(socketsMutex_);
    sockets_.erase(number);
    throw std::system_error(error, std::generic_category(), "watching a connection");
  }
  const std::lock_guard lock(mutex_);
  if (threads_ == 0 && !stopped_) startThreadLocked();
  return number;
}

void Poller::watch(std::uint64_t number, int socket, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = number;
  ::epoll_ctl(epoll_.number(), EPOLL_CTL_MOD, socket, &event);
}

void Poller::remove(std::uint64_t number, int socket) {
  ::epoll_ctl(epoll_.number(), EPOLL_CTL_DEL, socket, nullptr);
  const std::lock_guard lock(socketsMutex_);
  sockets_.erase(number);
}

std::shared_ptr<Pollable> Poller::find(std::uint64_t number) const {
  const std::lock_guard lock(socketsMutex_);
  const auto found = sockets_.find(number);
  return found == sockets_.end() ? nullptr : found->second.lock();
}

// --- Leading --------------------------------------------------------------------------------------------------------

void Poller::startThreadLocked() {
  if (threads_ >= kMostThreads) {
    if (!std::exchange(excessReported_, true)) {
      log::error(kCategory, "call",
                 fmt::format("calls from other processes wait: all {} threads are in one", threads_));
    }
    return;
  }
  excessReported_ = false;
  std::thread([this] { runThread(); }).detach();
  ++threads_;
}

void Poller::runThread() {
  ::pthread_setname_np(::pthread_self(), "link");
  std::unique_lock lock(mutex_);
  while (true) {
    ++spare_;
    const bool wanted = changed_.wait_for(lock, kIdleThread, [this] { return !hasLeader_ || stopped_; });
    --spare_;
    if (stopped_ || (!wanted && spare_ > 0)) break;
    if (!wanted) continue;
    hasLeader_ = true;
    const std::uint64_t term = ++term_;
    lock.unlock();
    lead(term);
    lock.lock();
  }
  --threads_;
  changed_.notify_all();
}

void Poller::lead(std::uint64_t term) {
  ledTerm = term;
  detail::ThreadWait::setBeforeWaiting(&Poller::aboutToWait);
  std::array<epoll_event, 64> events;  // NOLINT(cppcoreguidelines-pro-type-member-init): epoll_wait fills it
  std::vector<remote::Work> works;
  while (term_.load() == term) {
    const int count = ::epoll_wait(epoll_.number(), events.data(), static_cast<int>(events.size()), -1);
    for (int i = 0; i < count && term_.load() == term; ++i) {
      const epoll_event& event = events[static_cast<std::size_t>(i)];
      if (event.data.u64 == kWakeUp) {
        handOn(term);  // The process ends.
        break;
      }
      const auto ready = find(event.data.u64);
      if (!ready) continue;
      ready->onReady(event.events, works);
      if (!works.empty()) work(works);
    }
  }
  ledTerm = 0;
  detail::ThreadWait::setBeforeWaiting(nullptr);
}

void Poller::work(std::vector<remote::Work>& works) {
  const std::uint64_t term = ledTerm;
  for (std::size_t i = 1; i < works.size(); ++i) defaultLoop().post(std::move(works[i]));
  works_.fetch_add(1, std::memory_order_relaxed);
  // The monitor looks at the two in the other order: one sees the other. The latest term stays, whoever is late.
  for (auto seen = working_.load(); seen < term && !working_.compare_exchange_weak(seen, term);) {
  }
  lookAfter();
  try {
    works.front()();
  } catch (const std::exception& error) {
    log::error(kCategory, "call", fmt::format("a call failed: {}", error.what()));
  } catch (...) {
    log::error(kCategory, "call", "a call failed");
  }
  works.clear();
  if (std::uint64_t mine = term; mine != 0) working_.compare_exchange_strong(mine, 0);
}

bool Poller::lookAfter() {
  if (stopped_) return false;
  if (monitored_.load() || monitored_.exchange(true)) return true;
  const std::lock_guard lock(mutex_);
  if (stopped_) return false;
  if (monitors_ == 0) {
    try {
      std::thread([this] { monitor(); }).detach();
    } catch (const std::system_error&) {
      monitored_ = false;  // Whoever is next tries again.
      return false;
    }
    monitors_ = 1;
  }
  monitorWanted_.notify_one();
  return true;
}

bool Poller::lookAfterSockets(Wish wish) {
  ++wishes_;
  if (!lookAfter()) return false;
  if (wish == Wish::Soon && calm_.load() && calm_.exchange(false)) {
    const std::lock_guard lock(mutex_);
    monitorWanted_.notify_one();
  }
  return true;
}

bool Poller::handOn(std::uint64_t term) {
  const std::lock_guard lock(mutex_);
  // Raised here and again by whoever leads next: no two leaders, and no leader and none, share a term.
  if (!hasLeader_ || !term_.compare_exchange_strong(term, term + 1)) return false;
  working_ = 0;
  hasLeader_ = false;
  if (stopped_) return true;
  if (spare_ == 0) startThreadLocked();
  changed_.notify_one();
  return true;
}

void Poller::aboutToWait() {
  if (ledTerm == 0) return;
  instance().handOn(std::exchange(ledTerm, 0));
}

void Poller::askSockets() {
  std::vector<std::shared_ptr<Pollable>> all;
  {
    const std::lock_guard lock(socketsMutex_);
    for (const auto& [number, socket] : sockets_) {
      if (auto held = socket.lock()) all.push_back(std::move(held));
    }
  }
  for (const auto& socket : all) {
    try {
      socket->lookAfter();
    } catch (const std::exception& error) {
      log::error(kCategory, "monitor", fmt::format("a connection is not looked after: {}", error.what()));
    }
  }
}

void Poller::monitor() {
  ::pthread_setname_np(::pthread_self(), "link.monitor");
  while (true) {
    {
      std::unique_lock lock(mutex_);
      monitorWanted_.wait(lock, [this] { return monitored_.load() || stopped_; });
      if (stopped_) {
        lock.unlock();
        askSockets();  // What waits to leave does, or never.
        lock.lock();
        monitors_ = 0;
        changed_.notify_all();
        return;
      }
    }
    std::uint64_t seen = works_.load();
    std::uint64_t wishes = 0;
    bool wasWished = false;
    bool isCalm = false;
    for (int idle = 0; idle < kIdleTicks && !stopped_;) {
      const std::uint64_t term = term_.load();
      {
        std::unique_lock lock(mutex_);
        // Whoever wishes looks at the two in the other order: one sees the other.
        calm_ = isCalm;
        if (wishes_.load() != wishes) calm_ = isCalm = false;
        const auto ends = [&] { return stopped_ || (isCalm && !calm_); };
        if (monitorWanted_.wait_for(lock, isCalm ? kCalmTick : kTick, ends) && std::exchange(isCalm, false)) continue;
      }
      const bool lasts = working_.load() == term && works_.load() == seen;
      if (lasts) handOn(term);
      const std::uint64_t made = wishes_.load();
      const bool isWished = made != std::exchange(wishes, made);
      if (isWished || wasWished) askSockets();  // Twice: what is too new at first is not then.
      wasWished = isWished;
      isCalm = working_.load() == 0 && !isWished;
      idle = works_.load() == seen && working_.load() == 0 && !isWished ? idle + 1 : 0;
      seen = works_.load();
    }
    calm_ = false;
    monitored_ = false;
    // A call that began just before would not be looked at.
    if (working_.load() != 0 || wishes_.load() != wishes) monitored_ = true;
  }
}

void Poller::stop() {
  std::unique_lock lock(mutex_);
  stopped_ = true;
  const std::uint64_t one = 1;
  static_cast<void>(!::write(wakeUp_.number(), &one, sizeof one));
  changed_.notify_all();
  monitorWanted_.notify_all();
  if (!changed_.wait_for(lock, kGrace, [this] { return threads_ == 0 && monitors_ == 0; })) {
    log::error(kCategory, "exit", "calls from other processes still run at the end of the process; not waiting");
  }
}

}  // namespace mw::local
