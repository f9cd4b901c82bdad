#include "verbs.h"

#include "format.h"

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

/// Whether the word after `word` belongs to it.
bool takesValue(const CLI::App& options, const std::string& word) {
  const CLI::Option* const option = options.get_option_no_throw(word);
  return option && option->get_items_expected_max() > 0;
}

}  // namespace

const std::vector<Verb>& verbs() {
  static const std::vector<Verb> all = [] {
    std::vector<Verb> joined = hostingVerbs();
    for (Verb& verb : remoteVerbs()) joined.push_back(std::move(verb));
    return joined;
  }();
  return all;
}

const Verb* findVerb(std::string_view name) {
  const Verb* const found = findIn(verbs(), name);
  return found ? found : findIn(servants(), name);
}

std::string noSuchVerb(std::string_view name) {
  return fmt::format("no command {}; korvo --help lists them", excerpt(name));
}

std::unique_ptr<CLI::App> optionsOf(const Verb& verb) {
  auto app = std::make_unique<CLI::App>();
  app->set_help_flag("-h,--help", "Print this help and exit");
  if (verb.addOptions) verb.addOptions(*app);
  return app;
}

GivenWords tellApart(const CLI::App& options, std::span<const std::string> words) {
  GivenWords given;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (word == "--") {
      given.arguments.insert(given.arguments.end(), words.begin() + static_cast<std::ptrdiff_t>(i) + 1, words.end());
      break;
    }
    if (word != "-h" && !word.starts_with("--")) {
      given.arguments.push_back(word);
      continue;
    }
    given.options.push_back(word);
    if (i + 1 < words.size() && takesValue(options, word)) given.options.push_back(words[++i]);
  }
  return given;
}

}  // namespace korvo
