#include "interleaving.h"

#include "player.h"

#include <hxbase/hxmemory.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>

#include <fmt/format.h>

namespace HX::model {
namespace {

struct Position;
struct Thread;

std::string typed(const HXValue& value) { return value.toString(HXValue::Verbosity::Typed); }

/// One step of a call. What it does fails with the error of the call, or gives false when it contradicts what was seen.
struct Step {
  std::string name;  ///< Different steps have different ones.
  std::function<bool(Position&, Thread&)> act;
  int subscriptionsOf = -1;  ///< The item that must not be in dispatch by another thread.
};

/// How far a thread has come in its calls.
struct Thread {
  int number;
  const std::vector<Made>* calls;
  std::size_t call = 0;
  std::size_t seen = 0;
  std::vector<Step> todo{};  ///< The next one last; none between calls.
  std::string end{};

  bool isDone() const { return call == calls->size(); }
  const Made& made() const { return (*calls)[call]; }
};

struct Position {
  State state;
  std::vector<Thread> threads;
  std::map<std::string, int> told{};  ///< How often each service was.
  std::map<int, int> dispatching{};   ///< The thread that notifies an item.
};

Step notify(int item, const HXValue& value, const std::string& last) {
  return {fmt::format("notify {} after '{}' of {}", item, last, typed(value)),
          [=](Position& p, Thread& me) {
            p.dispatching[item] = me.number;
            auto& subscriptions = p.state.at(item).subscriptions;
            const auto next = subscriptions.upper_bound(last);
            if (next == subscriptions.end()) {
              p.dispatching.erase(item);
              return true;
            }
            const auto [module, subscription] = *next;
            me.todo.push_back(notify(item, value, module));
            if (!subscription.method.starts_with("heard")) {
              subscriptions.erase(next);
              return true;
            }
            const auto text = notification(subscription.method, p.state.at(item).name, value, subscription.message);
            const auto& seen = me.made().seen;
            return me.seen < seen.size() && seen[me.seen++] == numbered(module, ++p.told[module], text);
          },
          item};
}

Step write(const std::string& key, const HXValue& value, State::Kind kind, bool raises) {
  return {fmt::format("write {} {}", key, typed(value)), [=](Position& p, Thread& me) {
            const auto [item, change] = p.state.insert(key, value, kind);
            if (raises) me.todo.push_back(notify(item, value, ""));
            if (raises && kind == STMValue::Event) {
              me.todo.push_back({fmt::format("remember {}", item), [value, place = item](Position& at, Thread&) {
                                   at.state.remember(place, value);
                                   return true;
                                 }});
            }
            if (change == State::Change::None || isBox(key)) return true;
            const auto& event = change == State::Change::Added ? Memory::keyAddedKey : Memory::keyTypeChanged;
            me.todo.push_back(write(event, key, STMValue::Event, true));
            return true;
          }};
}

/// Does something to the state, and ends the call with what it gives.
template <class Use>
Step asStep(const std::string& name, int subscriptionsOf, Use use) {
  const auto act = [use](Position& p, Thread& me) {
    if constexpr (std::is_void_v<decltype(use(p.state))>) {
      use(p.state);
    } else {
      me.end = shown(me.made().call, mw::AnyValue(use(p.state)));
    }
    return true;
  };
  return {name, act, subscriptionsOf};
}

/// Looks the item of a key up, in the name of a method, or makes it, and uses it in a step of its own.
template <class Use>
Step withItem(const std::string& key, const char* method, bool locked, Use action) {
  return {"look up", [=](Position& p, Thread& me) {
            const int item = method ? p.state.require(key, method) : p.state.obtain(key, STMValue::Event, {});
            me.todo.push_back(asStep(fmt::format("use {}", item), locked ? item : -1,
                                     [=](State& state) { return action(state, item); }));
            return true;
          }};
}

/// The steps of a call, the first one last.
std::vector<Step> stepsOf(const Call& call) {
  const std::string& key = call.text('k');
  const std::string& module = call.text('s');
  const HXValue& data = call.argument('v');
  const std::string_view name = call.name();
  if (name == "insertData") return {write(key, data, STMValue::Data, false)};
  if (name == "declareEvent") return {write(key, {}, STMValue::Event, false)};
  if (name == "raiseEvent") return {write(key, data, STMValue::Event, true)};
  if (name == "raiseMicroEvent") return {write(key, data, STMValue::MicroEvent, true)};
  if (name == "subscribeToEvent") {
    return {asStep("ask for the extractor", -1, [=](State& state) { state.extractors.try_emplace(key); }),
            withItem(key, nullptr, true, [=, method = call.text('c')](State& state, int item) {
              state.subscribe(item, module, "", method);
            })};
  }
  if (name == "unsubscribeToEvent") {
    return {withItem(key, "getData", true, [=](State& state, int item) { state.unsubscribe(item, module); })};
  }
  for (const Question& asked : kQuestions) {
    const bool ofSubscriptions = name == "getSubscribers";
    if (name == asked.method) return {withItem(key, asked.failsAs, ofSubscriptions, asked.answer)};
  }
  for (const Listing& listing : kListings) {
    if (name == listing.method) return {asStep(listing.method, -1, listing.names)};
  }
  const Step erase{"erase", [=](Position& p, Thread& me) {
                     p.state.erase(key);
                     if (!isBox(key)) me.todo.push_back(write(Memory::keyRemovedKey, key, STMValue::Event, true));
                     return true;
                   }};
  if (name == "removeData") return {erase};
  return {asStep("erase the entry", -1, [=](State& state) { state.extractors.erase(key); }), erase};
}

/// All that decides how things go on from here.
std::string textOf(const Position& position) {
  std::string text;
  const auto add = [&text](const auto&... parts) { ((text += fmt::format("{},", parts)), ...); };
  for (const auto& thread : position.threads) {
    add('|', thread.call, thread.seen, thread.end);
    for (const auto& step : thread.todo) add(step.name);
  }
  for (const auto& [name, item] : position.state.table) add(name, item);
  for (const auto& item : position.state.items) {
    add('|', typed(item.value), static_cast<int>(item.kind), item.filed, item.history.has_value());
    for (const auto& [time, value] : item.history.value_or(State::History())) add(typed(value));
    for (const auto& [module, subscription] : item.subscriptions) add(module, subscription.method);
  }
  for (const auto& [event, extractor] : position.state.extractors) add(event, extractor.module, extractor.filed);
  for (const auto& [item, thread] : position.dispatching) add('|', item, thread);
  return text;
}

/// A call begins when every call that ended before it has come to its end here as well.
bool mayGoOn(const Position& position, const Thread& thread) {
  if (thread.isDone()) return false;
  if (thread.todo.empty()) {
    return std::all_of(position.threads.begin(), position.threads.end(),
                       [&](const Thread& other) { return other.isDone() || other.made().ended > thread.made().began; });
  }
  const auto owner = position.dispatching.find(thread.todo.back().subscriptionsOf);
  return owner == position.dispatching.end() || owner->second == thread.number;
}

/// Makes the next step of a thread. @return False when it contradicts what was seen.
bool advance(Position& position, Thread& thread) {
  if (thread.todo.empty()) thread = {thread.number, thread.calls, thread.call, 0, stepsOf(thread.made().call), "done"};
  const Step step = std::move(thread.todo.back());
  thread.todo.pop_back();
  bool fits = true;
  const std::string error = endOf([&] {
    fits = step.act(position, thread);
    return std::string();
  });
  if (!error.empty()) {
    thread.todo.clear();
    thread.end = error;
  }
  if (!fits || !thread.todo.empty()) return fits;
  const auto& seen = thread.made().seen;
  if (thread.seen + 1 != seen.size() || seen.back() != thread.end) return false;
  ++thread.call;
  return true;
}

/// Few histories have more; those that have would take minutes.
constexpr std::size_t kMostPositions = 20'000;

/// @return True also when the search was given up.
bool isExplainedFrom(const Position& position, std::set<std::string>& visited) {
  if (visited.size() > kMostPositions) return true;
  if (!visited.insert(textOf(position)).second) return false;
  bool done = true;
  for (std::size_t i = 0; i < position.threads.size(); ++i) {
    done = done && position.threads[i].isDone();
    if (!mayGoOn(position, position.threads[i])) continue;
    Position next = position;
    if (advance(next, next.threads[i]) && isExplainedFrom(next, visited)) return true;
  }
  return done;
}

}  // namespace

std::string numbered(const std::string& service, int number, const std::string& notification) {
  return fmt::format("{} is told as its number {}: {}", service, number, notification);
}

Verdict judge(const State& start, const History& history) {
  Position position{start, {}};
  for (const auto& calls : history) position.threads.push_back({static_cast<int>(position.threads.size()), &calls});
  std::set<std::string> visited;
  const bool explained = isExplainedFrom(position, visited);
  if (visited.size() > kMostPositions) return Verdict::Undecided;
  return explained ? Verdict::Explained : Verdict::Contradicted;
}

std::string toText(const History& history) {
  std::string text;
  for (std::size_t thread = 0; thread < history.size(); ++thread) {
    text += fmt::format("thread {}:\n", thread);
    for (const Made& made : history[thread]) {
      text += fmt::format("  {:>4} to {:>4} {}\n", made.began, made.ended, toText(made.call));
      for (const auto& seen : made.seen) text += "                 " + seen + "\n";
    }
  }
  return text;
}

}  // namespace HX::model
