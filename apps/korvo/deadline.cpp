#include "deadline.h"

#include <libmw/forwardingobject.h>

#include <stdexcept>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace korvo {
namespace {

void forward(const Deadlines::Answer& from, mw::Promise<mw::AnyValue>& to) {
  if (from.isCanceled()) {
    to.trySetCanceled();
  } else if (auto exception = from.exception()) {
    to.trySetException(std::move(exception));
  } else {
    to.trySetValue(from.value());
  }
}

/// Hands everything on, calls with their deadlines.
class WatchedObject final : public mw::ForwardingObject {
 public:
  WatchedObject(const mw::AnyObject& object, std::string name, std::shared_ptr<Deadlines> deadlines)
      : object_(object), name_(std::move(name)), deadlines_(std::move(deadlines)) {
    GenericObject::setMetaObject(object->metaObject());
    standFor(*object.pointer());
  }

  mw::Future<mw::AnyValue> metaCall(unsigned method, mw::GenericFunctionParameters parameters,
                                    mw::MetaCallType callType) override {
    auto answer = object_->metaCall(method, parameters, callType);
    if (answer.isFinished()) return answer;
    const mw::MetaMethod* const called = metaObject().method(method);
    return deadlines_->watch(answer, fmt::format("{}.{}", name_, called ? called->name : fmt::format("{}", method)));
  }
  mw::AnyObject target() const override { return object_; }

 private:
  const mw::AnyObject object_;
  const std::string name_;
  const std::shared_ptr<Deadlines> deadlines_;
};

}  // namespace

Deadlines::Deadlines(mw::EventLoop& loop, std::chrono::milliseconds limit, std::string whom)
    : loop_(loop), limit_(limit), whom_(std::move(whom)) {}

std::runtime_error Deadlines::error(const std::string& what) const {
  const double seconds = std::chrono::duration<double>(limit_).count();
  return std::runtime_error(fmt::format("{} did not answer {} within {} s", whom_, what, seconds));
}

Deadlines::Answer Deadlines::watch(const Answer& answer, std::string what) {
  mw::Promise<mw::AnyValue> promise;
  auto watched = promise.future();
  {
    const std::lock_guard lock(mutex_);
    while (!watched_.empty() && watched_.front().promise.future().isFinished()) watched_.pop_front();
    const auto end = Clock::now() + limit_;
    watched_.push_back({end, promise, std::move(what)});
    startTimerLocked(end);
  }
  answer.then([promise](const Answer& finished) mutable { forward(finished, promise); });
  return watched;
}

// The loop never runs what is posted in the caller, so that the lock is free when the timer wants it.
void Deadlines::startTimerLocked(Clock::time_point end) {
  if (std::exchange(timerRuns_, true)) return;
  loop_.post(
      [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->expire();
      },
      end - Clock::now());
}

void Deadlines::expire() {
  std::vector<Watched> late;
  {
    const std::lock_guard lock(mutex_);
    timerRuns_ = false;
    const auto now = Clock::now();
    while (!watched_.empty() && (watched_.front().end <= now || watched_.front().promise.future().isFinished())) {
      late.push_back(std::move(watched_.front()));
      watched_.pop_front();
    }
    if (!watched_.empty()) startTimerLocked(watched_.front().end);
  }
  for (Watched& one : late) one.promise.trySetException(std::make_exception_ptr(error(one.what)));
}

mw::AnyObject withDeadline(const mw::AnyObject& object, std::string name, std::shared_ptr<Deadlines> deadlines) {
  return mw::AnyObject(std::make_shared<WatchedObject>(object, std::move(name), std::move(deadlines)));
}

}  // namespace korvo
