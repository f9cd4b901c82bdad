#include "call.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>

#include <fmt/format.h>

namespace HX::model {
namespace {

struct Pool {
  std::size_t Call::*place;
  std::vector<HXValue> values;
};

/// What the letters stand for.
const std::map<char, Pool>& pools() {
  using V = HXValue;
  static const std::map<char, Pool> all{
      // Ordinary names, names that are told of to nobody and nearly so, and those of the memory itself.
      {'k',
       {&Call::key,
        {"E", "F", "", "_BehaviorE", "_Behavio", "HXMemory/KeyAdded", "HXMemory/KeyRemoved", "HXMemory/KeyTypeChanged",
         "KorvoReady"}}},
      // Three listeners, two extractors of which the second is never told, the frame manager; two never offered.
      {'s', {&Call::service, {"b", "B", "a", "X", "Y", "HXFrameManager", "_BehaviorBox", "_Behavio"}}},
      {'x', {&Call::value, {"X", "Y", "", "Unknown", "nobody", "x"}}},
      {'c', {&Call::number, {"heard", "heardToo", "heard", "absent"}}},
      {'n', {&Call::number, {0, 1, 2, 3}}},
      {'e', {&Call::value, {"", "", "", "", "", "", "", "runtime error", "HXError", "logic error"}}},
      {'v',
       {&Call::value,
        {1,
         {},
         2.5F,
         "text",
         2,
         true,
         std::int64_t{1},
         1.5,
         V::list({V::list({"E", 7}), {}}),
         V::map({{"E", 1}, {"F", 2}})}}},
      {'p',
       {&Call::value,
        {V::list({V::list({"E", 1}), V::list({"F", "two", "ignored"}), V::list({"E", 2.5F})}),
         V::list({V::list({"F", {}}), V::list({5, "\n"}), V::list({"E", 1})}),
         V::list({V::list({"E", 1}), V::list({"lonely"})}), V::list({V::list({"E", true}), "text"}), "no list",
         V::list({V::map({{"a", 1}, {"b", 2}})})}}},
      {'l',
       {&Call::value,
        {V::list({"E", V::list({"F", "ignored"}), "x", "E"}),
         {},
         V::list({{}, 5, "_BehaviorE"}),
         V::list({"E", V::list()})}}},
      {'K',
       {&Call::value,
        {V::list({"E"}), V::list(), V::list({"F", "E"}), V::list({"_BehaviorE"}), V::list({"KorvoReady", "x"})}}}};
  return all;
}

}  // namespace

const HXValue& Call::argument(char letter) const {
  const auto& [place, values] = pools().at(letter);
  return values[this->*place % values.size()];
}

std::string toText(const Call& call) {
  std::vector<std::string> arguments;
  for (const char* letter = call.what().arguments; *letter; ++letter) {
    arguments.push_back(call.argument(*letter).toString());
  }
  return fmt::format("{}({})", call.name(), fmt::join(arguments, ", "));
}

void showValue(const Calls& calls, std::ostream& out) {
  for (const Call& call : calls) out << "  " << toText(call) << '\n';
}

std::string notification(const std::string& method, const std::string& key, const HXValue& value,
                         const HXValue& message) {
  return fmt::format("{}({}, {}, {})", method, HXValue(key).toString(), value.toString(HXValue::Verbosity::Typed),
                     message.toString());
}

std::size_t methodNamed(std::string_view name) {
  const auto is = [name](const Method& method) { return method.name == name; };
  return static_cast<std::size_t>(std::find_if(std::begin(kMethods), std::end(kMethods), is) - std::begin(kMethods));
}

Calls allQuestions() {
  Calls calls;
  for (const char* name : {"getDataListName", "getEventList", "getMicroEventList"})
    calls.push_back({methodNamed(name)});
  calls.push_back({.method = methodNamed("getDescriptionList"), .value = 1});
  for (std::size_t i = 0; i < pools().at('x').values.size(); ++i) {
    calls.push_back({.method = methodNamed("getExtractorEvent"), .value = i});
  }
  for (std::size_t key = 0; key < kKeys; ++key) {
    for (const char* name : {"getTimestamp", "getEventHistory", "getType", "getSubscribers"}) {
      calls.push_back({.method = methodNamed(name), .key = key});
    }
  }
  return calls;
}

bool isListener(const std::string& service) {
  const auto& services = pools().at('s').values;
  return std::find(services.begin(), services.begin() + kListeners, service) != services.begin() + kListeners;
}

}  // namespace HX::model
