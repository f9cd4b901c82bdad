#include "sessionnotices.h"

#include <libmw/anyvalue.h>

#include <cstddef>
#include <utility>

namespace mw {

namespace {

/// What a library that takes long to load may catch up with.
constexpr std::size_t kMostRemembered = 65536;

}  // namespace

void Session::Notices::add(Notice notice) {
  const HX::MutexLock lock(mutex_);
  waiting_.push_back(std::move(notice));
  startLocked();
}

void Session::Notices::hold() {
  const HX::MutexLock lock(mutex_);
  ++holds_;
}

void Session::Notices::release() {
  const HX::MutexLock lock(mutex_);
  --holds_;
  startLocked();
}

std::uint64_t Session::Notices::remember() {
  const HX::MutexLock lock(mutex_);
  ++remembering_;
  return delivered_;
}

void Session::Notices::forget() {
  std::deque<Delivered> gone;
  const HX::MutexLock lock(mutex_);
  if (--remembering_ == 0) gone.swap(past_);
}

// The posting itself happens under the lock; the loop never runs what is posted in the caller.
void Session::Notices::startLocked() {
  if (delivering_ || holds_ > 0 || waiting_.empty()) return;
  delivering_ = loop_.post([self = shared_from_this()] { self->deliver(); });
}

void Session::Notices::deliver() {
  while (true) {
    HX::MutexLock lock(mutex_);
    if (holds_ > 0 || waiting_.empty()) {
      delivering_ = false;
      return;
    }
    Notice notice = std::move(waiting_.front());
    waiting_.pop_front();
    lock.unlock();
    const auto token = lifetime_.token();
    const auto pass = token.enter();
    if (!pass) continue;
    if (notice.latecomer != kInvalidSignalLink) {
      tellPast(notice);
      forget();
    } else {
      const SignalLink before = tell(notice);
      if (before == kInvalidSignalLink) continue;
      lock.lock();
      const std::uint64_t number = delivered_++;
      if (remembering_ == 0) continue;
      if (past_.size() == kMostRemembered) past_.pop_front();
      past_.push_back({std::move(notice), number, before});
    }
  }
}

SignalLink Session::Notices::tell(const Notice& notice) const {
  switch (notice.kind) {
    case Kind::Registered:
    case Kind::Unregistered:
      return signalOf(notice).tell(notice.id, notice.text);
    case Kind::Lost:
      session_.connectionLost(notice.text);
      break;
    case Kind::Restored:
      session_.connectionRestored();
      break;
  }
  return kInvalidSignalLink;
}

void Session::Notices::tellPast(const Notice& wanted) {
  std::deque<Delivered> past;
  {
    const HX::MutexLock lock(mutex_);
    past = past_;
  }
  for (const Delivered& one : past) {
    if (one.number < wanted.since || one.before > wanted.latecomer || one.notice.kind != wanted.kind) continue;
    signalOf(wanted).tellOne(wanted.latecomer, one.notice.id, one.notice.text);
  }
}

NoticeSignal& Session::Notices::signalOf(const Notice& notice) const {
  return notice.kind == Kind::Registered ? session_.serviceRegistered : session_.serviceUnregistered;
}

SignalLink NoticeSignal::connect(SignalSubscriber subscriber) {
  const SignalLink link = SignalBase::connect(std::move(subscriber));
  if (onConnect_) onConnect_(link);
  return link;
}

SignalLink NoticeSignal::tell(ServiceId id, const std::string& name) {
  const SignalLink before = nextLink();
  detail::withParameters([&](GenericFunctionParameters all) { triggerBetween(kInvalidSignalLink, before, all); }, id,
                         name);
  return before;
}

void NoticeSignal::tellOne(SignalLink link, ServiceId id, const std::string& name) {
  detail::withParameters([&](GenericFunctionParameters all) { triggerBetween(link - 1, link + 1, all); }, id, name);
}

}  // namespace mw
