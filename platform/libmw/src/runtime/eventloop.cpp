#include "afterserving.h"
#include "processend.h"
#include "runningcalls.h"
#include "threadkept.h"
#include "threadpool.h"

#include <libmw/eventloop.h>
#include <libmw/log.h>
#include <libmw/servedcall.h>

#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

namespace mw {

bool servesNothingBut(const GenericObject& object) noexcept {
  const auto* const serving = detail::AfterServing::present();
  if (!serving || !serving->isOpen() || !serving->isEmpty()) return false;
  const auto* const calls = detail::ofThisThread<detail::RunningCalls>();
  return calls && calls->isJustIn(&object);
}

void detail::AfterServing::passOnAll() noexcept {
  isPassedOn_ = true;
  for (auto& function : std::exchange(functions_, {})) {
    try {
      // In one place: what it captured goes when it has run.
      const auto shared = std::make_shared<std::function<void()>>(std::move(function));
      if (!defaultLoop().post([shared] { (*shared)(); })) (*shared)();  // It is counted as its loop's all the same.
    } catch (const std::bad_alloc&) {
      if (function) function();  // Late is better than never.
    }
  }
}

EventLoop::EventLoop() : EventLoop(Options{}) {}

EventLoop::EventLoop(Options options) : pool_(std::make_shared<detail::ThreadPool>(std::move(options))) {
  pool_->start();
}

EventLoop::~EventLoop() {
  pool_->stop();
  pool_->join(std::nullopt);
}

bool EventLoop::post(std::function<void()> function) { return pool_->post(std::move(function)); }

bool EventLoop::post(std::function<void()> function, std::chrono::nanoseconds delay) {
  return pool_->postAfter(std::move(function), delay);
}

bool EventLoop::postAfterServing(std::function<void()> function) {
  return pool_->postAfterServing(std::move(function));
}

bool EventLoop::isInThisLoop() const noexcept { return pool_->isInThisPool(); }

void EventLoop::drain() { pool_->drain(); }

void EventLoop::stop() { pool_->stop(); }

void EventLoop::join() {
  if (isInThisLoop()) throw std::logic_error("EventLoop::join: called on a thread of the loop");
  pool_->stop();
  pool_->join(std::nullopt);
}

std::size_t EventLoop::threadCount() const noexcept { return pool_->workerCount(); }

EventLoop& defaultLoop() {
  // The loop itself is never destroyed: destructors of other statics may still post, and are told that it stopped.
  static auto* loop = new EventLoop({.name = "default"});
  static const struct AtExit {
    ~AtExit() {
      loop->stop();
      if (!loop->pool_->join(detail::graceAtExit())) {
        log::error("mw.eventloop", "defaultLoop", "functions still run at the end of the process; not waiting");
      }
    }
  } atExit;
  return *loop;
}

}  // namespace mw
