#pragma once

#include <hxbase/stmvalue.h>
#include <hxvalue/hxvalue.h>

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace HX::model {

/// What the memory holds, and the steps that change it: each is one that no other thread sees the middle of.
///
/// A plain value: a copy is a memory of its own. Items keep their places in `items` for good, so that a place names an
/// item also when its key means another one by now.
struct State {
  using Kind = STMValue::dataType;
  using History = std::deque<std::pair<int, HXValue>>;  ///< With the time in seconds.
  enum class Change { None, Added, Retyped };

  struct Subscription {
    HXValue message;
    std::string method;
    std::uint64_t id = 0;        ///< Tells it from the one that replaces it.
    std::optional<int> service;  ///< Which offer of the service it calls, once it was looked up.
  };

  struct Item {
    std::string name;
    HXValue value;
    Kind kind;
    int time = 0;
    std::optional<History> history{};
    std::map<std::string, Subscription> subscriptions{};
    std::string description{};
    bool addressed = false;  ///< Its address was handed out.
    bool filed = false;      ///< Among the events, by a write.
    int holders = 0;         ///< Raises that run on it.
    std::set<std::size_t> clients{};
  };

  struct Extractor {
    std::string module;
    bool filed = false;
  };

  Item& at(int item) { return items[static_cast<std::size_t>(item)]; }
  const Item& at(int item) const { return items[static_cast<std::size_t>(item)]; }

  /// The place of an item. @throws HXError in the name of `method` when there is none.
  int require(const std::string& name, const char* method, int line = 1) const;
  std::optional<int> find(const std::string& name) const;
  /// The item of that name, made when there is none, without a word to anybody.
  int obtain(const std::string& name, Kind kind, const HXValue& value);
  /// Writes. @throws HXError when the item's address is known and the types differ.
  std::pair<int, Change> insert(const std::string& name, const HXValue& value, Kind kind);
  void remember(int item, const HXValue& value);
  void erase(const std::string& name);
  void subscribe(int item, const std::string& module, const HXValue& message, const std::string& method);
  void unsubscribe(int item, const std::string& module);

  HXValue history(int item) const;
  std::vector<std::string> subscribers(int item) const;
  std::vector<std::string> names(const std::string& filter) const;
  std::vector<std::string> namesOf(Kind kind) const;
  std::vector<std::string> events() const;

  std::map<std::string, int> table;
  std::deque<Item> items;
  std::map<std::string, Extractor> extractors;
  int now = 0;  ///< Seconds.
  std::uint64_t lastSubscription = 0;
};

/// A published method that only asks for something of an item.
struct Question {
  const char* method;
  const char* failsAs;  ///< In whose name it fails when there is no such item, and on which line of the source.
  int line;
  HXValue (*answer)(const State& state, int item);
};
extern const std::vector<Question> kQuestions;

/// A published method that lists names.
struct Listing {
  const char* method;
  std::vector<std::string> (*names)(const State& state);
};
extern const std::vector<Listing> kListings;

/// Ends with the error of the memory. Lines that callers do not rely on are 1 here.
[[noreturn]] void fail(const char* method, const std::string& message, int line = 1);

/// Whether a subscriber is a behaviour box, or a key one of its kind.
bool isBox(const std::string& name);

}  // namespace HX::model
