#include "call.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>

#include <fmt/format.h>

namespace HX::model {
namespace {

// Ordinary names, names that are told of to nobody and nearly so, and those of the memory itself.
const std::array<std::string, kKeys> kKeyNames{"E",
                                               "F",
                                               "",
                                               "_BehaviorE",
                                               "_Behavio",
                                               "HXMemory/KeyAdded",
                                               "HXMemory/KeyRemoved",
                                               "HXMemory/KeyTypeChanged",
                                               "KorvoReady"};
// Three listeners, two extractors of which the second is never told, the frame manager; two that are never offered.
const std::array<std::string, kServices> kServiceNames{"b",       "B", "a", "X", "Y", "HXFrameManager", "_BehaviorBox",
                                                       "_Behavio"};
const std::array<std::string, 6> kExtractors{"X", "Y", "", "Unknown", "nobody", "x"};
const std::array<std::string, kNumbers> kCallbacks{"heard", "heardToo", "heard", "absent"};

const std::array<HXValue, kValues> kData{HXValue(1),
                                         HXValue(),
                                         HXValue(2.5F),
                                         HXValue("text"),
                                         HXValue(2),
                                         HXValue(true),
                                         HXValue(std::int64_t{1}),
                                         HXValue(1.5),
                                         HXValue::list({HXValue::list({"E", 7}), HXValue()}),
                                         HXValue::map({{"E", 1}, {"F", 2}})};

const std::array<HXValue, 6> kPairs{
    HXValue::list({HXValue::list({"E", 1}), HXValue::list({"F", "two", "ignored"}), HXValue::list({"E", 2.5F})}),
    HXValue::list({HXValue::list({"F", HXValue()}), HXValue::list({5, "\n"}), HXValue::list({"E", 1})}),
    HXValue::list({HXValue::list({"E", 1}), HXValue::list({"lonely"})}),
    HXValue::list({HXValue::list({"E", true}), HXValue("text")}),
    HXValue("no list"),
    HXValue::list({HXValue::map({{"a", 1}, {"b", 2}})})};

const std::array<HXValue, 4> kKeyLists{HXValue::list({"E", HXValue::list({"F", "ignored"}), "x", "E"}), HXValue(),
                                       HXValue::list({HXValue(), 5, "_BehaviorE"}),
                                       HXValue::list({"E", HXValue::list()})};

}  // namespace

const std::string& Call::keyName() const { return kKeyNames[key % kKeyNames.size()]; }
const std::string& Call::serviceName() const { return kServiceNames[service % kServiceNames.size()]; }
const std::string& Call::extractor() const { return kExtractors[(value + number) % kExtractors.size()]; }
const std::string& Call::callback() const { return kCallbacks[number % kCallbacks.size()]; }
const HXValue& Call::data() const { return kData[value % kData.size()]; }
const char* Call::ending() const {
  static constexpr std::array kEndings{"logic error", "HXError", "runtime error"};
  return value + kEndings.size() < kValues ? "" : kEndings[kValues - value - 1];
}

std::vector<std::string> Call::keyNames() const {
  switch (number) {
    case 0:
      return {keyName()};
    case 1:
      return {};
    default:
      return {keyName(), kKeyNames[value % kKeyNames.size()]};
  }
}

mw::AnyValue Call::argument(char letter) const {
  switch (letter) {
    case 'k':
      return mw::AnyValue(keyName());
    case 'm':
    case 's':
      return mw::AnyValue(serviceName());
    case 'x':
      return mw::AnyValue(extractor());
    case 'c':
      return mw::AnyValue(callback());
    case 'e':
      return mw::AnyValue(std::string(ending()));
    case 'v':
      return mw::AnyValue(data());
    case 'p':
      return mw::AnyValue(kPairs[value % kPairs.size()]);
    case 'l':
      return mw::AnyValue(kKeyLists[value % kKeyLists.size()]);
    case 'K':
      return mw::AnyValue(keyNames());
    default:
      return mw::AnyValue(static_cast<int>(number));
  }
}

std::string toText(const Call& call) {
  std::vector<std::string> arguments;
  for (const char* letter = call.what().arguments; *letter; ++letter) {
    arguments.push_back(call.argument(*letter).reference().to<HXValue>().toString());
  }
  return fmt::format("{}({})", call.what().name, fmt::join(arguments, ", "));
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
  calls.push_back({.method = methodNamed("getDescriptionList"), .number = 1});
  for (std::size_t i = 0; i < kExtractors.size(); ++i) {
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
  return std::find(kServiceNames.begin(), kServiceNames.begin() + kListeners, service) !=
         kServiceNames.begin() + kListeners;
}

}  // namespace HX::model
