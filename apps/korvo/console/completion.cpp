#include "completion.h"

#include "base/format.h"
#include "line/remotetarget.h"
#include "line/verbs.h"

#include <hxcommon/hxproxy.h>
#include <libmw/local.h>
#include <libmw/log.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <sstream>
#include <string_view>

#include <CLI/CLI.hpp>

namespace korvo {
namespace {

using namespace std::chrono_literals;
using Words = std::vector<std::string>;

/// How long a person is kept waiting after a tab.
constexpr auto kPatience = 500ms;

/// "JSON..." without what says that there may be several, "[TEXT]" without what says that there may be none.
std::string placeholder(std::string word) {
  std::erase_if(word, [](char c) { return c == '[' || c == ']' || c == '.'; });
  return word;
}

/// What stands at `index` among the arguments of a synopsis.
std::string placeholderAt(std::string_view synopsis, std::size_t index) {
  std::istringstream stream{std::string(synopsis)};
  std::string word;
  for (std::size_t i = 0; stream >> word; ++i) {
    if (i == index || word.ends_with("...")) return placeholder(word);
  }
  return {};
}

Words namesOf(const mw::MetaObject& object, bool signals) {
  Words names;
  if (signals) {
    for (const auto& signal : object.signals()) names.push_back(signal.name);
  } else {
    for (const auto& method : object.methods()) names.push_back(method.name);
  }
  return names;
}

/// What the broker knows under a placeholder.
/// @param begun  What the word begins with; the memory need not tell what does not even contain it.
Words askBroker(const std::string& broker, const std::string& wanted, const Words& arguments,
                const std::string& begun) {
  RemoteTarget target(broker, kPatience);
  if (wanted == "KEY" || wanted == "FILTER") return target.keys(begun);
  if (wanted == "EVENT") return target.memory().getEventList();
  if (wanted == "SERVICE" || wanted == "EXTRACTOR") return target.services();
  if (wanted == "METHOD" || wanted == "SIGNAL") {
    return namesOf(target.require(arguments.at(0))->asObject()->metaObject(), wanted == "SIGNAL");
  }
  return {};
}

Words verbNames() {
  Words names;
  for (const Verb& verb : verbs()) names.emplace_back(verb.name);
  return names;
}

/// Those of the program behind `korvo fleet`.
Words fleetCommands() {
  return {"call", "demo", "doctor", "get",   "history", "hub", "init",
          "key",  "list", "ls",     "raise", "set",     "top", "watch"};
}

/// The value that was given to --broker; empty when none was.
std::string brokerIn(const GivenOptions& options) {
  const auto found = options.find("--broker");
  return found == options.end() ? std::string() : found->second;
}

/// What may stand after an option that takes a value.
Words valuesOf(const std::string& option) {
  if (option == "--broker") return mw::runningBrokers();
  if (option == "--type") return {"int", "int64", "float", "double"};
  if (option == "--log-level") return {"silent", "fatal", "error", "warning", "info", "verbose", "debug"};
  return {};
}

Words candidates(std::span<const std::string> words) {
  if (words.size() < 2) return verbNames();
  const Verb* const verb = findVerb(words.front());
  if (!verb) return {};
  const auto options = optionsOf(*verb);
  const auto before = words.subspan(1, words.size() - 2);
  const bool isValue = [&] {
    const auto* last = before.empty() ? nullptr : options->get_option_no_throw(before.back());
    return !before.empty() && before.back().starts_with("--") && last && last->get_items_expected_max() > 0;
  }();
  if (isValue) return valuesOf(before.back());
  if (words.back().starts_with("-")) return optionNames(*options);
  const GivenWords given = tellApart(*options, before);
  const std::string wanted = placeholderAt(verb->arguments, given.arguments.size());
  if (wanted == "COMMAND") return verbNames();
  if (wanted == "SUBCOMMAND") return fleetCommands();
  return askBroker(brokerIn(given.values), wanted, given.arguments, words.back());
}

}  // namespace

std::vector<std::string> completions(std::span<const std::string> words) {
  if (words.empty()) return verbNames();
  mw::log::setLevel(mw::LogLevel::Silent);
  Words found;
  try {
    found = candidates(words);
  } catch (const std::exception&) {  // Nothing to offer.
    return {};
  }
  const std::string& begun = words.back();
  std::erase_if(found,
                [&](const std::string& word) { return !word.starts_with(begun) || escapeControls(word) != word; });
  std::ranges::sort(found);
  const auto repeated = std::unique(found.begin(), found.end());
  found.erase(repeated, found.end());
  return found;
}

}  // namespace korvo
