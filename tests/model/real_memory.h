#pragma once

#include "subject.h"

#include <hxbase/hxmemory.h>
#include <hxcommon/hxbroker.h>

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace HX::model {

/// A memory in a broker of its own, used by the names that it publishes. One at a time, on one thread.
class RealMemory : public Subject {
 public:
  explicit RealMemory(Called called);
  ~RealMemory() override;

  mw::GenericObject& methods() override { return methods_.get(); }
  void setTime(int seconds) override;
  std::size_t follow(const std::string& key) override;
  void unfollow(std::size_t client) override;
  void trigger(std::size_t place, const std::vector<HXValue>& arguments) override;
  void offer(const std::string& service) override;
  void withdraw(const std::string& service) override;
  void endLookUp(const std::string& service, Ending ending) override;

 private:
  mw::AnyObject makeService(const std::string& name);

  class Output;

  const Called called_;
  const std::unique_ptr<Output> output_;
  const mw::SystemClockSource clockBefore_;
  const bool wasOnStderr_;
  const std::shared_ptr<HXBroker> broker_;
  std::map<std::string, std::deque<mw::Promise<mw::AnyObject>>> lookUps_;  ///< Those that wait, oldest first.
  std::map<std::string, mw::ServiceId> offered_;
  std::shared_ptr<HXMemory> memory_;
  mw::AnyObject methods_;
  std::vector<std::shared_ptr<HXMemorySubscriber>> followed_;
  std::vector<std::pair<std::size_t, mw::SignalLink>> clients_;
};

}  // namespace HX::model
