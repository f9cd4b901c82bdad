#include "model.h"

#include "call.h"

#include <hxbase/hxmemory.h>

#include <algorithm>
#include <stdexcept>

#include <fmt/format.h>

namespace HX::model {
namespace {

/// In place of an offer's number: the look-up gave the object itself, which cannot be withdrawn.
constexpr int kForGood = -1;

}  // namespace

Model::Model(Called called) : called_(std::move(called)) {
  mw::ObjectBuilder builder;
  builder.setThreadingModel(mw::ObjectThreadingModel::MultiThread);
  publishData(builder);
  publishEvents(builder);
  methods_ = std::make_shared<mw::DynamicObject>(builder.build(), nullptr);
  for (const auto& event : {Memory::keyAddedKey, Memory::keyRemovedKey, Memory::keyTypeChanged}) declareEvent(event);
  raise("KorvoReady", 0, STMValue::MicroEvent);
}

template <class Callable>
void Model::publish(mw::ObjectBuilder& builder, const std::string& name, Callable callable) {
  builder.advertiseMethod(mw::MetaMethodBuilder(name, {}, {}), mw::AnyFunction::from(std::move(callable)));
}

template <class T>
T* Model::address(Text key, const char* method, const HXValue& value, T* (HXValue::*get)()) {
  try {
    auto& item = state_.at(state_.obtain(key, STMValue::Data, value));
    item.addressed = true;
    return (item.value.*get)();
  } catch (const std::exception& error) {
    fail(method, "error getting pointer to \"" + key + "\": " + error.what());
  }
}

void Model::publishData(mw::ObjectBuilder& to) {
  for (const Question& asked : kQuestions) {
    publish(to, asked.method,
            [this, asked](Text key) { return asked.answer(state_, state_.require(key, asked.failsAs, asked.line)); });
  }
  for (const Listing& listing : kListings)
    publish(to, listing.method, [this, listing] { return listing.names(state_); });
  publish(to, "insertData", [this](Text key, const HXValue& value) { write(key, value, STMValue::Data); });
  publish(to, "_insertObject", [this](Text key, const HXValue& value, int) { write(key, value, STMValue::Data); });
  publish(to, "insertListData", [this](const HXValue& list) { insertListData(list); });
  publish(to, "removeData", [this](Text key) { removeData(key); });
  publish(to, "getData", [this](Text key, int) { return state_.at(state_.require(key, "getData", 535)).value; });
  publish(to, "getDataList", [this](Text filter) { return state_.names(filter); });
  publish(to, "getListData", [this](const HXValue& keys) { return getListData(keys); });
  publish(to, "setDescription", [this](Text key, Text text) {
    const auto item = state_.find(key);
    if (!item) fail("setDescription", key + " not found");
    state_.at(*item).description = text;
  });
  publish(to, "getDescriptionList", [this](const Strings& keys) { return getDescriptionList(keys); });
  publish(to, "getIntPtr", [this](Text key) { return address(key, "getIntPtr", 0, &HXValue::getIntPtr); });
  publish(to, "getFloatPtr", [this](Text key) { return address(key, "getFloatPtr", 0.0F, &HXValue::getFloatPtr); });
  publish(to, "getDataPtr", [this](Text key) { return address(key, "getPtrData", {}, &HXValue::getPtrValue); });
}

void Model::publishEvents(mw::ObjectBuilder& to) {
  publish(to, "declareEvent", [this](Text key) { declareEvent(key); });
  publish(to, "declareEvent", [this](Text key, Text extractor) {
    state_.extractors[key] = {extractor, true};
    declareEvent(key);
  });
  publish(to, "raiseEvent", [this](Text key, const HXValue& value) { raise(key, value, STMValue::Event); });
  publish(to, "raiseMicroEvent", [this](Text key, const HXValue& value) { raise(key, value, STMValue::MicroEvent); });
  publish(to, "removeEvent", [this](Text key) { removeEvent(key); });
  publish(to, "removeMicroEvent", [this](Text key) { removeEvent(key); });
  publish(to, "getExtractorEvent", [this](Text extractor) {
    auto events = state_.events();
    std::erase_if(events, [&](Text event) { return state_.extractors.at(event).module != extractor; });
    return events;
  });
  publish(to, "subscribeToEvent",
          [this](Text key, Text module, Text method) { subscribe(key, module, "", method, STMValue::Event); });
  for (const auto& [kind, word] :
       {std::pair(STMValue::Event, "Event"), std::pair(STMValue::MicroEvent, "MicroEvent")}) {
    publish(to, fmt::format("subscribeTo{}", word),
            [this, kind = kind](Text key, Text module, Text message, Text method) {
              subscribe(key, module, message, method, kind);
            });
    publish(to, fmt::format("unsubscribeTo{}", word),
            [this, kind = kind](Text key, Text module) { unsubscribe(key, module, kind); });
  }
}

// --- Data ------------------------------------------------------------------------------------------------------------

void Model::write(Text key, const HXValue& value, State::Kind kind, const std::function<void(int item)>& then) {
  const auto [item, change] = state_.insert(key, value, kind);
  const auto held = hold(item);
  if (change == State::Change::Added) announce(Memory::keyAddedKey, key);
  if (change == State::Change::Retyped) announce(Memory::keyTypeChanged, key);
  if (then) then(item);
}

std::shared_ptr<void> Model::hold(int item) {
  ++state_.at(item).holders;
  return {nullptr, [this, item](void*) { --state_.at(item).holders; }};
}

void Model::announce(Text event, Text key) {
  if (!isBox(key)) raise(event, key, STMValue::Event);
}

void Model::insertListData(const HXValue& list) {
  for (std::size_t i = 0; i < list.getSize(); ++i) {
    const auto malformed = [&](const char* message, int line) {
      called_("standard output", "malformed data : " + list[i].toString() + "\n");
      fail("InsertListData", message, line);
    };
    if (!list[i].isList() || list[i].getSize() < 2) {
      malformed("unable to insert to Memory data with a size < 2. Must be : ['name', value]", 902);
    }
    if (!list[i][0].isString()) malformed("malformed preferences. No HXMemory data name.", 907);
    write(list[i][0].asString(), list[i][1], STMValue::Data);
  }
}

void Model::removeData(Text key) {
  state_.erase(key);
  announce(Memory::keyRemovedKey, key);
}

HXValue Model::getListData(const HXValue& keys) {
  HXValue values = HXValue::list();
  for (std::size_t i = 0; i < keys.getSize(); ++i) {
    const HXValue key = keys[i].isList() ? keys[i][0] : keys[i];
    const auto item = state_.find(key.isString() ? key.asString() : key.toString());
    values.arrayPush(item ? state_.at(*item).value : HXValue());
  }
  return values;
}

HXValue Model::getDescriptionList(const Strings& keys) {
  HXValue list;
  list.arraySetSize(keys.size());
  for (const auto& key : keys.empty() ? state_.names("") : keys) {
    const auto place = state_.find(key);
    if (!place) fail("getDescriptionList", key + " not found");
    const auto& item = state_.at(*place);
    list.arrayPush(HXValue::list({key, item.kind == STMValue::Data ? "data" : "event", item.description}));
  }
  return list;
}

// --- Events ----------------------------------------------------------------------------------------------------------

void Model::raise(Text key, const HXValue& value, State::Kind kind) {
  write(key, value, kind, [&](int item) {
    if (kind == STMValue::Event) state_.remember(item, value);
    notify(item, key, value);
  });
}

void Model::removeEvent(Text key) {
  removeData(key);
  state_.extractors.erase(key);
}

// --- Notification ----------------------------------------------------------------------------------------------------

void Model::notify(int item, Text key, const HXValue& value) {
  auto& clients = state_.at(item).clients;
  auto& subscriptions = state_.at(item).subscriptions;
  for (const std::size_t client : clients) {
    called_(fmt::format("client {}", client), value.toString(HXValue::Verbosity::Typed));
  }
  for (auto next = subscriptions.begin(); next != subscriptions.end();) {
    const std::string module = next->first;
    const State::Subscription subscription = next->second;
    if (!subscription.service) {
      lookUp(item, module, value);
    } else {
      try {
        call(module, subscription, key, value);
      } catch (const std::runtime_error&) {
        // One that was made anew during the call stays.
        const auto failed = subscriptions.find(module);
        if (failed != subscriptions.end() && failed->second.id == subscription.id) subscriptions.erase(failed);
      }
    }
    next = subscriptions.upper_bound(module);
  }
}

void Model::call(Text module, const State::Subscription& subscription, Text key, const HXValue& value) {
  const auto offer = offered_.find(module);
  const bool isThere =
      subscription.service == kForGood || (offer != offered_.end() && offer->second == subscription.service);
  if (!isThere || !isListener(module) || !subscription.method.starts_with("heard")) throw std::runtime_error("gone");
  called_(module, notification(subscription.method, key, value, subscription.message));
}

void Model::lookUp(int item, Text module, const HXValue& value) {
  const auto offer = offered_.find(module);
  if (offer != offered_.end()) {
    resolve(item, module, offer->second, value);
  } else if (isListener(module)) {
    waiting_[module].push_back({item, value});
  } else {
    state_.at(item).subscriptions.erase(module);
  }
}

void Model::resolve(int item, Text module, int service, const HXValue& value) {
  auto& subscriptions = state_.at(item).subscriptions;
  const auto found = subscriptions.find(module);
  if (found == subscriptions.end()) return;
  found->second.service = service;
  const State::Subscription subscription = found->second;
  try {
    call(module, subscription, state_.at(item).name, value);
  } catch (const std::exception&) {
    subscriptions.erase(module);
  }
}

void Model::endLookUp(Text service, Ending ending) {
  auto& waiting = waiting_[service];
  if (waiting.empty()) return;
  const LookUp ended = waiting.front();
  waiting.pop_front();
  const auto& item = state_.at(ended.item);
  const bool isAlive = item.holders > 0 || state_.find(item.name) == ended.item;
  if (!isAlive || ending == Ending::Canceled) return;
  const auto held = hold(ended.item);
  if (ending == Ending::Found) {
    resolve(ended.item, service, kForGood, ended.value);
  } else {
    state_.at(ended.item).subscriptions.erase(service);
  }
}

// --- Subscriptions ---------------------------------------------------------------------------------------------------

void Model::tellFrameManager(Text text, State::Kind kind) {
  if (!offered_.contains("HXFrameManager")) throw std::runtime_error("Cannot get frame manager proxy");
  called_("HXFrameManager", text + (kind == STMValue::MicroEvent ? " true" : " false"));
}

void Model::tellExtractor(Text key, Text method, Text subscriber) {
  const std::string extractor = state_.extractors.at(key).module;
  if (extractor.empty() || extractor == "Unknown") return;
  const bool isThere = offered_.contains(extractor);
  if (!isThere && method == "subscribe") throw std::runtime_error("This object is null");
  // "Y" cannot say how precisely it works.
  if (isThere && extractor != "Y") called_(extractor, method + "(" + subscriber + key + ")");
}

void Model::subscribe(Text key, Text module, Text message, Text method, State::Kind kind) {
  if (isBox(module)) {
    return tellFrameManager(fmt::format("+ {} {} {} {}", key, module, HXValue(message).toString(), method), kind);
  }
  state_.subscribe(state_.obtain(key, kind, {}), module, message, method);
  if (kind == STMValue::MicroEvent) return;
  state_.extractors.try_emplace(key);
  tellExtractor(key, "subscribe", module);
}

void Model::unsubscribe(Text key, Text module, State::Kind kind) {
  if (isBox(module)) return tellFrameManager(fmt::format("- {} {}", key, module), kind);
  state_.unsubscribe(state_.require(key, "getData"), module);
  if (kind == STMValue::Event && state_.extractors.contains(key)) tellExtractor(key, "unsubscribe", module);
}

// --- Signals and services --------------------------------------------------------------------------------------------

std::size_t Model::follow(const std::string& key) {
  if (!state_.find(key)) declareEvent(key);
  const auto item = state_.find(key);
  if (!item) throw std::runtime_error("event not found");
  state_.at(*item).clients.insert(clients_++);
  auto place = std::find(followed_.begin(), followed_.end(), *item);
  if (place == followed_.end()) place = followed_.insert(place, *item);
  return static_cast<std::size_t>(place - followed_.begin());
}

void Model::unfollow(std::size_t client) {
  for (const int item : followed_) state_.at(item).clients.erase(client);
}

void Model::trigger(std::size_t place, const std::vector<HXValue>& arguments) {
  if (place >= followed_.size()) return;
  if (arguments.size() > 1) throw std::runtime_error("Invalid number of arguments");
  raise(state_.at(followed_[place]).name, arguments.empty() ? HXValue() : arguments.front(), STMValue::Event);
}

}  // namespace HX::model
