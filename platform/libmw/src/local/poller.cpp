#include "poller.h"

#include "../runtime/afterserving.h"
#include "../runtime/processend.h"
#include "../runtime/signalstack.h"
#include "../runtime/threadlocal.h"

#include <hxerror/mutex.h>
#include <libmw/eventloop.h>
#include <libmw/log.h>

#include <cerrno>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>

namespace mw::local {
namespace {

const char* const kCategory = "mw.link";
/// So many wait when there is nothing to do: one is woken, the other is there for what comes next.
constexpr std::size_t kFewestWaiting = 2;
/// Files of the poller itself; sockets are numbered behind them.
enum OwnFile : std::uint64_t { kWakeUp, kEnd, kLastOwn = kEnd };

File made(int number) {
  if (number < 0) throw std::system_error(errno, std::generic_category(), "watching connections");
  return File(number);
}

/// @param what  EPOLL_CTL_ADD or EPOLL_CTL_MOD.
int control(const File& epoll, int what, int file, std::uint64_t number, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = number;
  return ::epoll_ctl(epoll.number(), what, file, &event);
}

/// Makes it readable: all that wait are told of `end_`, one of `wakeUp_`.
void ring(const File& file) {
  const std::uint64_t one = 1;
  static_cast<void>(!::write(file.number(), &one, sizeof one));
}

HX_THREAD_LOCAL const Poller* pollerOfThread = nullptr;

void run(remote::Work& work) {
  const mw::detail::AfterServing afterwards;
  try {
    const remote::Work present = std::exchange(work, {});  // What it holds goes before what is done afterwards.
    present();
  } catch (const std::exception& error) {
    log::error(kCategory, "call", fmt::format("a call failed: {}", error.what()));
  } catch (...) {
    log::error(kCategory, "call", "a call failed");
  }
}

}  // namespace

Poller& Poller::instance() {
  defaultLoop();  // It is stopped after the poller, whose works post to it.
  // At the end of the process nobody must be inside libraries that go. The poller itself stays: destructors of other
  // statics may still use it.
  static auto* const the = new Poller;
  static const struct AtExit {
    ~AtExit() {
      if (!the->stop(detail::graceAtExit())) {
        log::error(kCategory, "exit", "calls from other processes still run at the end of the process; not waiting");
      }
    }
  } atExit;
  return *the;
}

Poller::Poller(std::chrono::milliseconds idleTime)
    : idleTime_(idleTime),
      epoll_(made(::epoll_create1(EPOLL_CLOEXEC))),
      wakeUp_(made(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))),
      end_(made(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))),
      lastNumber_(kLastOwn) {
  // None of them is ever read: an edge comes with each writing, and what is not one is for all threads.
  control(epoll_, EPOLL_CTL_ADD, wakeUp_.number(), kWakeUp, EPOLLIN | EPOLLET);
  control(epoll_, EPOLL_CTL_ADD, end_.number(), kEnd, EPOLLIN);
}

std::uint64_t Poller::add(int socket, const std::weak_ptr<Pollable>& owner) {
  std::uint64_t number = 0;
  {
    const HX::MutexLock lock(socketsMutex_);  // Whoever is told of the socket finds it.
    number = ++lastNumber_;
    if (control(epoll_, EPOLL_CTL_ADD, socket, number, EPOLLET) != 0) {
      throw std::system_error(errno, std::generic_category(), "watching a connection");
    }
    sockets_.emplace(number, owner);
  }
  if (threadCount() == 0) startThread();
  return number;
}

void Poller::watch(std::uint64_t number, int socket, std::uint32_t events) {
  control(epoll_, EPOLL_CTL_MOD, socket, number, events);
}

void Poller::remove(std::uint64_t number, int socket) {
  ::epoll_ctl(epoll_.number(), EPOLL_CTL_DEL, socket, nullptr);
  const HX::MutexLock lock(socketsMutex_);
  sockets_.erase(number);
}

std::shared_ptr<Pollable> Poller::find(std::uint64_t number) const {
  const HX::MutexLock lock(socketsMutex_);
  const auto found = sockets_.find(number);
  return found == sockets_.end() ? nullptr : found->second.lock();
}

std::size_t Poller::threadCount() const {
  const HX::MutexLock lock(mutex_);
  return threads_;
}

// --- Threads --------------------------------------------------------------------------------------------------------

bool Poller::startThread() {
  {
    const HX::MutexLock lock(mutex_);
    if (stopped_) return false;
    ++threads_;
    ++waiting_;
    try {
      std::thread([this] { runThread(); }).detach();
      isShort_ = false;
      return true;
    } catch (const std::exception&) {
      --threads_;
      --waiting_;
      if (std::exchange(isShort_, true)) return false;
    }
  }
  // By the event loop: whoever adds the first socket holds a lock, under which no sink of the log is called.
  defaultLoop().post([count = threadCount()] {
    log::error(kCategory, "call",
               fmt::format("calls from other processes wait: the system gives no more than {} threads", count));
  });
  return false;
}

/// The calling thread has been told of something.
/// @return Whether it may do what takes long or waits: another one is there to read.
bool Poller::leaveWaiting() { return waiting_.fetch_sub(1) > 1 || startThread() || threadCount() == 1; }

bool Poller::mayRetire() {
  auto waiting = waiting_.load();
  do {
    if (waiting <= kFewestWaiting) return false;
  } while (!waiting_.compare_exchange_weak(waiting, waiting - 1));
  return true;
}

/// Waits for one event, reads what came, and does it. One at a time: the others are told to others, which is what makes
/// connections equal.
/// @param works  Empty, and so afterwards: its memory is used again.
/// @return False when the thread is to end.
bool Poller::waitOnce(std::vector<remote::Work>& works) {
  epoll_event event{};
  const int count = ::epoll_wait(epoll_.number(), &event, 1, static_cast<int>(idleTime_.count()));
  if (count < 0) return true;
  if (count == 0) return !mayRetire();
  if (event.data.u64 == kEnd) {
    waiting_.fetch_sub(1);
    return false;
  }
  // Seen to before the reading, which may take a while for one that sends much.
  const bool mayRun = leaveWaiting();
  if (const auto ready = find(event.data.u64)) ready->onReady(event.events, works);
  if (mayRun) {
    runAll(works);
  } else {
    post(works);  // They are done when a thread comes back from what it does.
  }
  waiting_.fetch_add(1);
  return true;
}

/// The first of them here, where it was read; the others wherever a thread is free.
void Poller::runAll(std::vector<remote::Work>& works) {
  if (!works.empty()) {
    remote::Work first = std::move(works.front());
    works.erase(works.begin());
    post(works);
    run(first);
  }
  while (remote::Work posted = takePosted()) run(posted);
}

void Poller::runThread() {
  ::pthread_setname_np(::pthread_self(), "link");
  pollerOfThread = this;
  const mw::detail::SignalStack forOverflow;
  std::vector<remote::Work> works;
  while (waitOnce(works)) continue;
  const HX::MutexLock lock(mutex_);
  --threads_;
  changed_.notify_all();
}

void Poller::post(std::vector<remote::Work>& works) {
  if (works.empty()) return;
  {
    const HX::MutexLock lock(mutex_);
    for (auto& work : works) posted_.push_back(std::move(work));
    postedCount_ = posted_.size();
  }
  works.clear();
  ring(wakeUp_);
}

/// Has another thread woken where there is more.
remote::Work Poller::takePosted() {
  if (postedCount_ == 0) return {};
  remote::Work taken;
  {
    const HX::MutexLock lock(mutex_);
    if (posted_.empty()) return {};
    taken = std::move(posted_.front());
    posted_.pop_front();
    postedCount_ = posted_.size();
    if (posted_.empty()) return taken;
  }
  ring(wakeUp_);
  return taken;
}

bool Poller::stop(std::chrono::milliseconds patience) {
  if (detail::isForkedChild()) return true;
  {
    const HX::MutexLock lock(mutex_);
    stopped_ = true;
  }
  ring(end_);
  HX::MutexLock lock(mutex_);
  // What a thread of its own runs may end the process: it cannot wait for itself.
  const std::size_t own = pollerOfThread == this ? 1 : 0;
  return changed_.wait_for(lock.native(), patience, [this, own]() HX_REQUIRES(mutex_) { return threads_ <= own; });
}

}  // namespace mw::local
