#include "real_memory.h"

#include "call.h"
#include "listener.h"

#include <libmw/dynamicobject.h>
#include <libmw/eventloop.h>
#include <libmw/log.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include <fmt/format.h>

namespace HX::model {
namespace {

std::atomic<int> secondsNow = 0;

mw::SystemTimePoint now() noexcept { return mw::SystemTimePoint(std::chrono::seconds(secondsNow)); }

std::string typed(const HXValue& value) { return value.toString(HXValue::Verbosity::Typed); }

}  // namespace

/// Stands in for standard output, on which the memory complains about lists.
class RealMemory::Output : public std::stringbuf {
 public:
  explicit Output(const Called& called) : called_(called), before_(std::cout.rdbuf(this)) {}
  ~Output() override { std::cout.rdbuf(before_); }
  int sync() override {
    called_("standard output", str());
    str("");
    return 0;
  }

 private:
  const Called& called_;
  std::streambuf* const before_;
};

RealMemory::RealMemory(Called called)
    : called_(std::move(called)),
      output_(std::make_unique<Output>(called_)),
      clockBefore_(mw::exchangeSystemClock(&now)),
      wasOnStderr_(mw::log::setStderrSink(false)),
      broker_(HXBroker::create("model")) {
  setTime(0);
  ::setenv("XDG_DATA_HOME", "/dev/null", 1);  // No map file of this machine.
  ::setenv("XDG_DATA_DIRS", "/dev/null", 1);
  broker_->session()->setResolver([this](const std::string& name) -> mw::Future<mw::AnyObject> {
    if (!isListener(name)) return {};
    return lookUps_[name].emplace_back().future();
  });
  memory_ = HXModule::createModule<HXMemory>(broker_, "HXMemory");
  methods_ = broker_->getProxy("HXMemory")->asObject();
}

RealMemory::~RealMemory() {
  memory_.reset();
  broker_->shutdown();
  mw::log::setStderrSink(wasOnStderr_);
  mw::exchangeSystemClock(clockBefore_);
}

void RealMemory::setTime(int seconds) { secondsNow = seconds; }

std::size_t RealMemory::follow(const std::string& key) {
  const auto wrapper = memory_->subscriber(key);
  auto place = std::find(followed_.begin(), followed_.end(), wrapper);
  if (place == followed_.end()) place = followed_.insert(place, wrapper);
  const std::size_t signal = static_cast<std::size_t>(place - followed_.begin());
  const auto told = [this, name = fmt::format("client {}", clients_.size())](const HXValue& value) {
    called_(name, typed(value));
  };
  clients_.emplace_back(signal, wrapper->signal.connect(mw::SignalSubscriber(told)));
  return signal;
}

void RealMemory::unfollow(std::size_t client) {
  if (client < clients_.size()) followed_[clients_[client].first]->signal.disconnect(clients_[client].second);
}

void RealMemory::trigger(std::size_t place, const std::vector<HXValue>& arguments) {
  if (place >= followed_.size()) return;
  std::vector<mw::AnyReference> references;
  for (const auto& argument : arguments) references.push_back(mw::AnyReference::of(argument));
  followed_[place]->signal.trigger(references);
}

mw::AnyObject RealMemory::makeService(const std::string& name) {
  mw::ObjectBuilder builder;
  builder.setThreadingModel(mw::ObjectThreadingModel::MultiThread);
  const auto add = [&](const char* method, auto callable) {
    builder.advertiseMethod(mw::MetaMethodBuilder(method, {}, {}), mw::AnyFunction::from(std::move(callable)));
  };
  using Text = const std::string&;
  const auto told = [this, name](Text text) { called_(name, text); };
  if (isListener(name)) {
    const auto listener = kit::Listener::make(false);
    listener->react = [told](const auto& heard) {
      told(notification(heard.method, heard.key, heard.value, heard.message));
    };
    return mw::AnyObject(listener);
  }
  if (name == "HXFrameManager") {
    add("_subscribeBoxToEvent", [told](Text event, Text box, const HXValue& message, Text method, bool micro) {
      told(fmt::format("+ {} {} {} {} {}", event, box, message.toString(), method, micro));
    });
    add("_unsubscribeBoxToEvent",
        [told](Text event, Text box, bool micro) { told(fmt::format("- {} {} {}", event, box, micro)); });
  } else {
    if (name == "X") add("getCurrentPrecision", [] {});
    for (const char* method : {"subscribe", "unsubscribe"}) {
      add(method, [told, method](Text id) { told(fmt::format("{}({})", method, id)); });
    }
  }
  const auto object = std::make_shared<mw::DynamicObject>(builder.build(), nullptr);
  return mw::AnyObject(object);
}

void RealMemory::offer(const std::string& service) {
  if (!offered_.contains(service)) {
    offered_[service] = broker_->session()->registerService(service, makeService(service));
  }
}

void RealMemory::withdraw(const std::string& service) {
  if (!offered_.contains(service)) return;
  broker_->session()->unregisterService(offered_.extract(service).mapped());
  // The broker forgets its proxy to an extractor or the frame manager on the loop.
  if (!isListener(service)) mw::defaultLoop().drain();
}

void RealMemory::endLookUp(const std::string& service, Ending ending) {
  auto& waiting = lookUps_[service];
  if (waiting.empty()) return;
  auto promise = waiting.front();
  waiting.pop_front();
  if (ending == Ending::Found) promise.trySetValue(makeService(service));
  if (ending == Ending::Nothing) promise.trySetValue({});
  if (ending == Ending::Failed) promise.trySetException(std::make_exception_ptr(std::runtime_error("nobody there")));
  if (ending == Ending::Canceled) promise.trySetCanceled();
}

}  // namespace HX::model
