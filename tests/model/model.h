#pragma once

#include "state.h"
#include "subject.h"

#include <libmw/dynamicobject.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace HX::model {

/// The memory as its callers know it, on one thread: the published methods, made of the steps of `State`.
///
/// Services of its broker are names here.
class Model : public Subject {
 public:
  explicit Model(Called called);

  mw::GenericObject& methods() override { return *methods_; }
  void setTime(int seconds) override { state_.now = seconds; }
  std::size_t follow(const std::string& key) override;
  void unfollow(std::size_t client) override;
  void trigger(std::size_t place, const std::vector<HXValue>& arguments) override;
  void offer(const std::string& service) override { offered_.try_emplace(service, ++lastOffer_); }
  void withdraw(const std::string& service) override { offered_.erase(service); }
  void endLookUp(const std::string& service, Ending ending) override;

  const State& state() const { return state_; }

 private:
  using Text = const std::string&;
  using Strings = std::vector<std::string>;

  template <class Callable>
  void publish(mw::ObjectBuilder& builder, const std::string& name, Callable callable);
  void publishData(mw::ObjectBuilder& builder);
  void publishEvents(mw::ObjectBuilder& builder);

  void insertListData(const HXValue& list);
  void removeData(Text key);
  HXValue getListData(const HXValue& keys);
  HXValue getDescriptionList(const Strings& keys);
  void declareEvent(Text key) { write(key, HXValue(), STMValue::Event); }
  void raise(Text key, const HXValue& value, State::Kind kind);
  void removeEvent(Text key);
  void subscribe(Text key, Text module, Text message, Text method, State::Kind kind);
  void unsubscribe(Text key, Text module, State::Kind kind);

  /// While the result lives, look-ups of the item that end still reach it, whether it is in the table or not.
  std::shared_ptr<void> hold(int item);
  void write(Text key, const HXValue& value, State::Kind kind, const std::function<void(int item)>& then = {});
  void announce(Text event, Text key);
  void notify(int item, Text key, const HXValue& value);
  void lookUp(int item, Text module, const HXValue& value);
  void resolve(int item, Text module, int service, const HXValue& value);
  void call(Text module, const State::Subscription& subscription, Text key, const HXValue& value);
  void tellFrameManager(Text text, State::Kind kind);
  void tellExtractor(Text key, Text method, Text subscriber);
  template <class T>
  T* address(Text key, const char* method, const HXValue& value, T* (HXValue::*get)());

  std::shared_ptr<mw::DynamicObject> methods_;
  State state_;
  Called called_;
  std::map<std::string, int> offered_;
  int lastOffer_ = 0;
  struct LookUp {
    int item;
    HXValue value;
  };
  std::map<std::string, std::deque<LookUp>> waiting_;
  std::vector<int> followed_;  ///< The items whose signals are held.
  std::size_t clients_ = 0;
};

}  // namespace HX::model
