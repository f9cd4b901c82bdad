#include <hxerror/mutex.h>
#include <libmw/deadline.h>
#include <libmw/forwardingobject.h>

#include <utility>
#include <vector>

#include <fmt/format.h>

namespace mw {

DeadlineError::~DeadlineError() = default;

namespace {

void forward(const Deadlines::Answer& from, Promise<AnyValue>& to) {
  if (from.isCanceled()) {
    to.trySetCanceled();
  } else if (auto exception = from.exception()) {
    to.trySetException(std::move(exception));
  } else {
    to.trySetValue(from.value());
  }
}

/// Hands everything on, calls with their deadlines.
class WatchedObject final : public ForwardingObject {
 public:
  WatchedObject(const AnyObject& object, std::string name, std::shared_ptr<Deadlines> deadlines)
      : object_(object), name_(std::move(name)), deadlines_(std::move(deadlines)) {
    GenericObject::setMetaObject(object->metaObject());
    standFor(*object.pointer());
  }

  Future<AnyValue> metaCall(unsigned method, GenericFunctionParameters parameters, MetaCallType callType) override {
    auto answer = object_->metaCall(method, parameters, callType);
    if (answer.isFinished()) return answer;
    const MetaMethod* const called = metaObject().method(method);
    return deadlines_->watch(answer, fmt::format("{}.{}", name_, called ? called->name : fmt::format("{}", method)));
  }
  AnyObject target() const override { return object_; }
  bool isRemote() const override { return object_->isRemote(); }

 private:
  const AnyObject object_;
  const std::string name_;
  const std::shared_ptr<Deadlines> deadlines_;
};

}  // namespace

Deadlines::Deadlines(EventLoop& loop, std::chrono::milliseconds limit, std::string whom)
    : loop_(loop), limit_(limit), whom_(std::move(whom)) {}

DeadlineError Deadlines::error(const std::string& what) const {
  const double seconds = std::chrono::duration<double>(limit_).count();
  return DeadlineError(fmt::format("{} did not answer {} within {} s", whom_, what, seconds));
}

Deadlines::Answer Deadlines::watch(const Answer& answer, std::string what) {
  Promise<AnyValue> promise([answer](Promise<AnyValue>&) {
    auto given = answer;
    given.cancel();
  });
  auto watched = promise.future();
  std::vector<Watched> over;  // Go after the lock: a result may be the last that holds an object.
  {
    const HX::MutexLock lock(mutex_);
    for (; !watched_.empty() && watched_.front().promise.future().isFinished(); watched_.pop_front()) {
      over.push_back(std::move(watched_.front()));
    }
    const auto end = Clock::now() + limit_;
    watched_.push_back({end, answer, promise, std::move(what)});
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
    const HX::MutexLock lock(mutex_);
    timerRuns_ = false;
    const auto now = Clock::now();
    while (!watched_.empty() && (watched_.front().end <= now || watched_.front().promise.future().isFinished())) {
      late.push_back(std::move(watched_.front()));
      watched_.pop_front();
    }
    if (!watched_.empty()) startTimerLocked(watched_.front().end);
  }
  for (Watched& one : late) {
    one.promise.trySetException(std::make_exception_ptr(error(one.what)));
    one.answer.cancel();
  }
}

AnyObject withDeadline(const AnyObject& object, std::string name, std::shared_ptr<Deadlines> deadlines) {
  return AnyObject(std::make_shared<WatchedObject>(object, std::move(name), std::move(deadlines)));
}

}  // namespace mw
