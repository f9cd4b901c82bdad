#include "signalwatch.h"

#include "model/tree.h"

#include <libmw/anyfunction.h>
#include <libmw/log.h>

#include <chrono>
#include <exception>
#include <stdexcept>
#include <utility>

namespace HX::web {
namespace {

HXValue shown(const mw::AnyReference& argument) {
  const mw::AnyReference content = argument.content();
  HXValue value;
  if (!content || content.toValue(value)) return value;
  return "a " + content.type()->name;
}

void disconnect(const mw::AnyObject& object, mw::SignalLink link) {
  try {
    if (object) object->disconnect(link).wait();
  } catch (const std::exception& error) {
    mw::log::debug("web", "disconnect", error.what());  // Its service has gone.
  }
}

}  // namespace

void SignalWatch::begin(const mw::AnyObject& object, const std::string& signal) {
  const int id = object->metaObject().signalId(signal);
  if (id < 0) throw std::runtime_error("there is no such signal: " + signal);
  const auto hear = [weak = weak_from_this()](mw::GenericFunctionParameters parameters) {
    HXValue::List arguments;
    for (const mw::AnyReference& argument : parameters) arguments.push_back(shown(argument));
    const auto watch = weak.lock();
    if (watch) watch->note({HXValue::list(std::move(arguments)), millisecondsOf(std::chrono::system_clock::now())});
  };
  mw::SignalSubscriber subscriber(mw::AnyFunction::fromParametersFunction(hear), mw::MetaCallType::Queued);
  const mw::SignalLink link = object->connect(static_cast<unsigned>(id), subscriber.track(lifetime_.token())).value();
  {
    const MutexLock lock(mutex_);
    if (!isOver_) {
      object_ = object;
      link_ = link;
      return;
    }
  }
  disconnect(object, link);
}

void SignalWatch::note(Emission emission) {
  const MutexLock lock(mutex_);
  if (isOver_) return;
  ++count_;
  if (emissions_.size() == kMost) emissions_.pop_front();
  emissions_.push_back(std::move(emission));
}

std::vector<SignalWatch::Emission> SignalWatch::take(std::uint64_t& count) {
  const MutexLock lock(mutex_);
  count = std::exchange(count_, 0);
  std::vector<Emission> taken(std::make_move_iterator(emissions_.begin()), std::make_move_iterator(emissions_.end()));
  emissions_.clear();
  return taken;
}

void SignalWatch::end(mw::EventLoop& loop) {
  mw::AnyObject object;
  mw::SignalLink link = 0;
  {
    const MutexLock lock(mutex_);
    isOver_ = true;
    emissions_.clear();
    std::swap(object, object_);
    link = link_;
  }
  loop.post([self = shared_from_this(), object = std::move(object), link] {
    disconnect(object, link);
    self->lifetime_.destroy();
  });
}

}  // namespace HX::web
