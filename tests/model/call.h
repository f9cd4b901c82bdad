#pragma once

#include <hxvalue/hxvalue.h>

#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace HX::model {

/// In `arguments`, k is a key, s a service, x an extractor, c a callback, v a value, n a number, e an ending, p pairs,
/// l a list of keys as a value, K one of strings.
struct Method {
  const char* name;
  const char* arguments;
  std::size_t weight;  ///< How often it is made up, among all of them.
};

/// The published methods, and behind them what happens around the memory.
inline constexpr Method kMethods[] = {
    {"insertData", "kv", 6},
    {"insertListData", "p", 2},
    {"getData", "k", 2},
    {"getData", "kn", 1},
    {"removeData", "k", 4},
    {"getTimestamp", "k", 2},
    {"getEventHistory", "k", 2},
    {"getDataList", "k", 2},
    {"getDataListName", "", 1},
    {"getEventList", "", 2},
    {"getMicroEventList", "", 1},
    {"getListData", "l", 1},
    {"getType", "k", 2},
    {"setDescription", "ks", 1},
    {"getDescriptionList", "K", 1},
    {"getIntPtr", "k", 1},
    {"getFloatPtr", "k", 1},
    {"getDataPtr", "k", 1},
    {"_insertObject", "kvn", 1},
    {"declareEvent", "k", 3},
    {"declareEvent", "kx", 4},
    {"raiseEvent", "kv", 14},
    {"raiseMicroEvent", "kv", 8},
    {"removeEvent", "k", 5},
    {"removeMicroEvent", "k", 2},
    {"getExtractorEvent", "x", 2},
    {"subscribeToEvent", "ksc", 8},
    {"subscribeToEvent", "ksxc", 3},
    {"subscribeToMicroEvent", "ksxc", 5},
    {"unsubscribeToEvent", "ks", 6},
    {"unsubscribeToMicroEvent", "ks", 3},
    {"getSubscribers", "k", 3},
    {"burst", "k", 1},       // Raises an event more often than its history is long.
    {"poke", "kn", 1},       // Writes through an address that was handed out.
    {"follow", "k", 2},      // Connects a client to an event's signal.
    {"unfollow", "n", 1},    // Disconnects one.
    {"trigger", "nv", 2},    // Emits on a signal from outside.
    {"offer", "s", 3},       // A service appears,
    {"withdraw", "s", 3},    // and goes.
    {"endLookUp", "sn", 4},  // A look-up that was waiting ends in one of four ways.
    {"react", "sne", 14},    // The next n calls are not made now, but by a service when it is called; then it may fail.
};

/// The first one of that name.
std::size_t methodNamed(std::string_view name);

/// One call, its arguments being places in the pools below. Shrinks towards the first places.
struct Call {
  std::size_t method = 0;  ///< In `kMethods`.
  std::size_t key = 0;
  std::size_t service = 0;
  std::size_t value = 0;
  std::size_t number = 0;

  const Method& what() const { return kMethods[method]; }
  std::string_view name() const { return what().name; }
  /// The argument that a letter of `Method::arguments` stands for, for as long as the program runs.
  const HXValue& argument(char letter) const;
  const std::string& text(char letter) const { return argument(letter).asString(); }
};

using Calls = std::vector<Call>;

/// As somebody would write it: `raiseEvent("a", Int 1)`.
std::string toText(const Call& call);
/// One call a line. Also found by RapidCheck, which shows a counterexample with it.
void showValue(const Calls& calls, std::ostream& out);

/// How a service is told of a value: `heard("E", Int 1, "message")`.
std::string notification(const std::string& method, const std::string& key, const HXValue& value,
                         const HXValue& message);

/// Every question about every key, to be put at the end of a sequence.
Calls allQuestions();

/// Numbers of things in the pools.
inline constexpr std::size_t kKeys = 9;
inline constexpr std::size_t kServices = 8;
inline constexpr std::size_t kListeners = 3;  ///< The first of the services.
inline constexpr std::size_t kOffered = 6;    ///< Those that can be offered, the listeners included.
inline constexpr std::size_t kValues = 10;
inline constexpr std::size_t kNumbers = 4;

/// Whether a service that is not there may still be found later, instead of failing at once.
bool isListener(const std::string& service);

}  // namespace HX::model
