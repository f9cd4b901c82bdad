#include <hxjournal/request.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace HX::journal {
namespace {

// Each change is compared with all of them, on behalf of somebody else.
constexpr std::size_t kMostPatterns = 1024;
constexpr std::size_t kMostKeys = 16'384;

[[noreturn]] void fail(const std::string& text) { throw std::runtime_error("options to follow with: " + text); }

[[noreturn]] void failOption(std::string_view name, std::string_view wanted) {
  fail(std::string(name) + " is to be " + std::string(wanted));
}

// --- Writing --------------------------------------------------------------------------------------------------------

void putTexts(HXValue::Map& map, const char* name, const std::vector<std::string>& texts) {
  if (!texts.empty()) map.emplace(name, HXValue(texts));
}

void putBits(HXValue::Map& map, const char* name, std::uint32_t bits) {
  HXValue::List numbers;
  for (int i = 0; i < 32; ++i) {
    if ((bits >> i & 1U) != 0) numbers.emplace_back(i);
  }
  if (!numbers.empty()) map.emplace(name, HXValue::list(std::move(numbers)));
}

// --- Reading --------------------------------------------------------------------------------------------------------

template <class Use>
void readTexts(std::string_view name, const HXValue& value, std::size_t most, Use use) {
  const auto* list = value.listIf();
  if (!list) failOption(name, "a list of texts");
  if (list->size() > most) failOption(name, "a list of at most " + std::to_string(most) + " texts");
  for (const HXValue& text : *list) {
    if (!text.stringIf()) failOption(name, "a list of texts");
    use(*text.stringIf());
  }
}

template <class Use>
void readNumbers(std::string_view name, const HXValue& value, std::int64_t count, Use use) {
  const auto* list = value.listIf();
  const std::string wanted = "a list of integers from 0 to " + std::to_string(count - 1);
  if (!list) failOption(name, wanted);
  for (const HXValue& number : *list) {
    const bool isNumber = number.isInt() || number.isInt64();
    if (!isNumber || number.toInt64() < 0 || number.toInt64() >= count) failOption(name, wanted);
    use(static_cast<std::uint8_t>(number.toInt64()));
  }
}

bool readBool(std::string_view name, const HXValue& value) {
  if (!value.isBool()) failOption(name, "true or false");
  return value.asBool();
}

std::uint64_t readInteger(const HXValue& value, std::string_view name, std::string_view wanted) {
  if ((!value.isInt() && !value.isInt64()) || value.toInt64() < 0) failOption(name, wanted);
  return static_cast<std::uint64_t>(value.toInt64());
}

double readRate(std::string_view name, const HXValue& value) {
  constexpr std::string_view kWanted = "a number of changes a second, 0 for all";
  const bool isNumber = value.isInt() || value.isInt64() || value.isFloat() || value.isDouble();
  if (!isNumber) failOption(name, kWanted);
  const double rate = value.toDouble();
  if (!std::isfinite(rate) || rate < 0) failOption(name, kWanted);
  return rate;
}

Position readPlace(std::string_view name, const HXValue& value) {
  constexpr std::string_view kWanted = "a place: [epoch, revision]";
  const auto* list = value.listIf();
  if (!list || list->size() != 2) failOption(name, kWanted);
  return {readInteger((*list)[0], name, kWanted), readInteger((*list)[1], name, kWanted)};
}

struct Option {
  std::string_view name;
  void (*read)(std::string_view name, const HXValue& value, Request& request);
};

/// An option that is a list of texts, each of which `Add` adds to the filter.
template <auto Add, std::size_t Most = kMostPatterns>
void addTexts(std::string_view name, const HXValue& value, Request& request) {
  readTexts(name, value, Most, [&](const std::string& text) { (request.filter.*Add)(text); });
}

constexpr std::array kOptions = {
    Option{"keys", &addTexts<&Filter::addKey, kMostKeys>},
    Option{"prefixes", &addTexts<&Filter::addPrefix>},
    Option{"globs", &addTexts<&Filter::addGlob>},
    Option{"patterns", &addTexts<&Filter::add>},
    Option{"exclude", &addTexts<&Filter::exclude>},
    Option{"authors", &addTexts<&Filter::addAuthor>},
    Option{"whats",
           [](std::string_view name, const HXValue& value, Request& request) {
             readNumbers(name, value, kWhats,
                         [&](std::uint8_t what) { request.filter.addWhat(static_cast<What>(what)); });
           }},
    Option{"kinds",
           [](std::string_view name, const HXValue& value, Request& request) {
             readNumbers(name, value, 32, [&](std::uint8_t kind) { request.filter.addKind(kind); });
           }},
    Option{"snapshot", [](std::string_view name, const HXValue& value,
                          Request& request) { request.options.snapshot = readBool(name, value); }},
    Option{"rate", [](std::string_view name, const HXValue& value,
                      Request& request) { request.options.rate = readRate(name, value); }},
    Option{"behind",
           [](std::string_view name, const HXValue& value, Request& request) {
             request.options.behind = readInteger(value, name, "a number of changes, 0 for no bound");
           }},
    Option{"since", [](std::string_view name, const HXValue& value,
                       Request& request) { request.options.since = readPlace(name, value); }},
    Option{"relaxed",
           [](std::string_view name, const HXValue& value, Request& request) {
             request.options.promptness = readBool(name, value) ? Promptness::Relaxed : Promptness::Prompt;
           }},
};

[[noreturn]] void failUnknown(const std::string& name) {
  std::string known;
  for (const Option& one : kOptions) known += (known.empty() ? "" : ", ") + std::string(one.name);
  fail("there is no " + name.substr(0, 40) + "; there are " + known);
}

}  // namespace

HXValue toValue(const Filter& filter, const FollowOptions& options) {
  const Filter::Parts& parts = filter.parts();
  HXValue::Map map;
  putTexts(map, "keys", parts.keys);
  putTexts(map, "prefixes", parts.prefixes);
  putTexts(map, "globs", parts.globs);
  std::vector<std::string> excluded = parts.excludedPrefixes;
  excluded.insert(excluded.end(), parts.excludedGlobs.begin(), parts.excludedGlobs.end());
  putTexts(map, "exclude", excluded);
  putTexts(map, "authors", parts.authors);
  putBits(map, "whats", parts.whats);
  putBits(map, "kinds", parts.kinds);
  if (!options.snapshot) map.emplace("snapshot", false);
  if (options.rate != 0) map.emplace("rate", options.rate);
  if (options.behind != 0) map.emplace("behind", static_cast<std::int64_t>(options.behind));
  if (options.since) {
    map.emplace("since", HXValue::list({static_cast<std::int64_t>(options.since->epoch),
                                        static_cast<std::int64_t>(options.since->revision)}));
  }
  if (options.promptness == Promptness::Relaxed) map.emplace("relaxed", true);
  return HXValue::map(std::move(map));
}

Request requestOf(const HXValue& value) {
  const auto* map = value.mapIf();
  if (!map) fail("not a map");
  Request request;
  for (const auto& [name, content] : *map) {
    const auto* option = std::ranges::find(kOptions, std::string_view(name), &Option::name);
    if (option == kOptions.end()) failUnknown(name);
    option->read(name, content, request);
  }
  return request;
}

}  // namespace HX::journal
