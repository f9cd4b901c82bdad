#include "verbs.h"

#include "base/format.h"
#include "base/suggestion.h"

#include <algorithm>
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace korvo {
namespace {

const std::vector<Verb>& servants() {
  static const std::vector<Verb> all = servantVerbs();
  return all;
}

const Verb* findIn(const std::vector<Verb>& all, std::string_view name) {
  const auto found = std::ranges::find(all, name, &Verb::name);
  return found == all.end() ? nullptr : &*found;
}

std::vector<std::string> namesOf(const std::vector<Verb>& all) {
  std::vector<std::string> names;
  names.reserve(all.size());
  for (const Verb& verb : all) names.emplace_back(verb.name);
  return names;
}

}  // namespace

const std::vector<Verb>& verbs() {
  static const std::vector<Verb> all = [] {
    std::vector<Verb> joined = hostingVerbs();
    for (Verb& verb : remoteVerbs()) joined.push_back(std::move(verb));
    addRecordings(joined);
    return joined;
  }();
  return all;
}

const Verb* findVerb(std::string_view name) {
  const Verb* const found = findIn(verbs(), name);
  return found ? found : findIn(servants(), name);
}

Verb freshVerb(std::string_view name) { return *findIn(hostingVerbs(), name); }

std::string noSuchVerb(std::string_view name) {
  if (name.starts_with('-')) return fmt::format("{} stands before a command; options follow it", excerpt(name));
  const std::string suggestion = didYouMean(name, namesOf(verbs()));
  return fmt::format("no command {}{}", excerpt(name), suggestion.empty() ? "; korvo --help lists them" : suggestion);
}

std::unique_ptr<CLI::App> optionsOf(const Verb& verb) {
  auto app = std::make_unique<CLI::App>();
  app->set_help_flag("-h,--help", "Print this help and exit");
  if (verb.addOptions) verb.addOptions(*app);
  return app;
}

std::vector<std::string> optionNames(const CLI::App& options) {
  std::vector<std::string> names;
  for (const CLI::Option* option : options.get_options()) {
    for (const auto& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

GivenWords tellApart(const CLI::App& options, std::span<const std::string> words) {
  GivenWords given;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (word == "--") {
      given.arguments.insert(given.arguments.end(), words.begin() + static_cast<std::ptrdiff_t>(i) + 1, words.end());
      break;
    }
    // One letter, where it is known: a negative number is an argument.
    const bool isShort = word.size() == 2 && word[0] == '-' && options.get_option_no_throw(word) != nullptr;
    if (!isShort && !word.starts_with("--")) {
      given.arguments.push_back(word);
      continue;
    }
    const std::string name = word.substr(0, word.find('='));
    const CLI::Option* const option = options.get_option_no_throw(name);
    if (!option) throw InputError(fmt::format("no option {}{}", excerpt(name), didYouMean(name, optionNames(options))));
    given.options.push_back(word);
    std::string& value = given.values[name];
    if (name != word) {
      value = word.substr(name.size() + 1);
    } else if (i + 1 < words.size() && option->get_items_expected_max() > 0) {
      given.options.push_back(value = words[++i]);
    }
  }
  return given;
}

}  // namespace korvo
