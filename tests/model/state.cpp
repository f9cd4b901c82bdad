#include "state.h"

#include <hxerror/hxerror.h>

namespace HX::model {
namespace {

constexpr std::size_t kHistoryDepth = 50;

HXValue toList(const std::vector<std::string>& names) { return HXValue(HXValue::List(names.begin(), names.end())); }

}  // namespace

const std::vector<Question> kQuestions{
    {"getData", "getData", 535, [](const State& state, int item) { return state.at(item).value; }},
    {"getTimestamp", "getData", 1,
     [](const State& state, int item) {
       return HXValue::list({state.at(item).value, state.at(item).time, 0});
     }},
    {"getEventHistory", "getEventHistory", 1, [](const State& state, int item) { return state.history(item); }},
    {"getType", "getStrDataType", 1,
     [](const State& state, int item) { return HXValue(STMValue::kindText(state.at(item).kind)); }},
    {"getSubscribers", "getDataSubscriber", 1,
     [](const State& state, int item) { return toList(state.subscribers(item)); }}};

const std::vector<Listing> kListings{
    {"getDataListName", [](const State& state) { return state.names(""); }},
    {"getEventList", [](const State& state) { return state.events(); }},
    {"getMicroEventList", [](const State& state) { return state.namesOf(STMValue::MicroEvent); }}};

void fail(const char* method, const std::string& message, int line) {
  throw HXError("HXMemory", method, message, "../hxbase/src/hxmemory", line);
}

bool isBox(const std::string& name) { return name.substr(0, 9) == "_Behavior"; }

std::optional<int> State::find(const std::string& name) const {
  const auto found = table.find(name);
  return found == table.end() ? std::nullopt : std::optional(found->second);
}

int State::require(const std::string& name, const char* method, int line) const {
  const auto item = find(name);
  if (!item) fail(method, "Data not found " + name, line);
  return *item;
}

int State::obtain(const std::string& name, Kind kind, const HXValue& value) {
  if (const auto item = find(name)) return *item;
  const int made = static_cast<int>(items.size());
  items.push_back({name, value, kind});
  table[name] = made;
  return made;
}

std::pair<int, State::Change> State::insert(const std::string& name, const HXValue& value, Kind kind) {
  const bool added = !find(name);
  const int place = obtain(name, kind, value);
  Item& item = at(place);
  const Kind before = item.kind;
  if (item.addressed && value.getType() != item.value.getType() &&
      (item.value.isValid() || (!value.isInt() && !value.isFloat()))) {
    throw HXError("HXMemory", "setValue",
                  std::string("Can't change the type of the value from ") +
                      HXValue::TypeToString(item.value.getType()) + " to " + HXValue::TypeToString(value.getType()) +
                      " because getDataPtr has been called on it.");
  }
  item.value = value;
  item.kind = kind;
  item.time = now;
  if (kind == STMValue::Event && (before != kind || !item.filed)) {
    item.filed = true;
    extractors.try_emplace(name, Extractor{"Unknown"}).first->second.filed = true;
  }
  if (added) return {place, Change::Added};
  return {place, before == kind ? Change::None : Change::Retyped};
}

void State::remember(int item, const HXValue& value) {
  auto& history = at(item).history;
  if (!history) history.emplace();
  if (!value.isValid()) return;
  history->emplace_back(now, value);
  if (history->size() > kHistoryDepth) history->pop_front();
}

void State::erase(const std::string& name) {
  const int item = require(name, "removeData", 1175);
  if (at(item).addressed) {
    fail("removeData", "Data " + name + " can't be erased because it has been accessed using getDataPtr", 1179);
  }
  table.erase(name);
}

void State::subscribe(int item, const std::string& module, const HXValue& message, const std::string& method) {
  at(item).subscriptions[module] = {message, method, ++lastSubscription, std::nullopt};
}

void State::unsubscribe(int item, const std::string& module) {
  Item& from = at(item);
  if (from.subscriptions.erase(module) == 0) {
    fail("UnsubscribeToMicroEvent", module + " is not subscribed to " + from.name);
  }
}

HXValue State::history(int item) const {
  const auto& history = at(item).history;
  if (!history) return {};
  HXValue entries = HXValue::list();
  for (const auto& [time, value] : *history) entries.arrayPush(HXValue::list({value, time, 0}));
  return entries;
}

std::vector<std::string> State::subscribers(int item) const {
  std::vector<std::string> names;
  for (const auto& [module, subscription] : at(item).subscriptions) names.push_back(module);
  return names;
}

std::vector<std::string> State::names(const std::string& filter) const {
  std::vector<std::string> names;
  for (const auto& [name, item] : table) {
    if (name.find(filter) != std::string::npos) names.push_back(name);
  }
  return names;
}

std::vector<std::string> State::namesOf(Kind kind) const {
  auto names = this->names("");
  std::erase_if(names, [&](const auto& name) { return at(*find(name)).kind != kind; });
  return names;
}

std::vector<std::string> State::events() const {
  std::vector<std::string> names;
  for (const auto& [event, extractor] : extractors) {
    if (extractor.filed) names.push_back(event);
  }
  return names;
}

}  // namespace HX::model
