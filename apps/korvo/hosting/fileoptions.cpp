#include "fileoptions.h"

#include "base/format.h"
#include "base/suggestion.h"
#include "robot/problems.h"
#include "robot/tomlfile.h"

#include <hxcommon/hxbroker.h>
#include <hxcommon/units.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <memory>
#include <span>
#include <sstream>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace korvo {
namespace {

using HX::HXValue;

// What a command line is for, or tables are.
const std::vector<std::string> kNotInFiles{"help", "module", "set"};

const char* const kMapsNeedMemory = "maps: it is the memory that raises signals as events, and no-memory leaves it out";

bool isFlag(const CLI::Option& option) { return option.get_items_expected_max() == 0; }
bool mayBeRepeated(const CLI::Option& option) { return option.get_items_expected_max() > 1; }

/// What is wrong with an option as it would stand on a command line; empty for nothing.
std::string problemOf(const std::string& word) {
  // A verb of its own, so that nothing is set by trying.
  const auto options = optionsOf(freshVerb("run"));
  try {
    std::vector<std::string> words{word};
    options->parse(words);
    return {};
  } catch (const CLI::ParseError& error) {
    std::string text = error.what();
    return text.starts_with("--") ? text.substr(2) : text;
  }
}

class OptionReader {
 public:
  OptionReader(const RobotFile& file, const CLI::App& options) : file_(file), options_(options) {}

  std::vector<std::string> read(const std::string& name, const HXValue& value) const {
    const CLI::Option* const option = options_.get_option_no_throw("--" + name);
    if (!option || std::ranges::count(kNotInFiles, name) > 0) failName(name);
    if (isFlag(*option)) {
      if (!value.isBool())
        throw std::runtime_error(fmt::format("{}: {} is no flag: write true or false", name, value.toString()));
      return value.asBool() ? std::vector<std::string>{"--" + name} : std::vector<std::string>{};
    }
    if (!value.isList()) return {word(*option, name, value)};
    if (!mayBeRepeated(*option)) throw std::runtime_error(name + " takes one value, and no list");
    std::vector<std::string> words;
    for (const HXValue& element : value.asList()) words.push_back(word(*option, name, element));
    return words;
  }

 private:
  [[noreturn]] void failName(const std::string& name) const {
    if (name == "module") throw std::runtime_error("modules are tables: write [modules.NAME]");
    std::vector<std::string> names = robotTables();
    for (const std::string& one : optionNames(options_)) {
      if (std::ranges::count(kNotInFiles, one.substr(2)) == 0) names.push_back(one.substr(2));
    }
    const std::string suggestion = didYouMean(name, names);
    throw std::runtime_error(
        fmt::format("no option {}{}", name, suggestion.empty() ? "; korvo run --help lists them" : suggestion));
  }

  std::string word(const CLI::Option& option, const std::string& name, const HXValue& value) const {
    std::string word = fmt::format("--{}={}", name, text(option, name, value));
    if (const std::string problem = problemOf(word); !problem.empty()) throw std::runtime_error(problem);
    return word;
  }

  /// The value as a word of the command line, by the unit that the option says it takes.
  std::string text(const CLI::Option& option, const std::string& name, const HXValue& value) const {
    // What is checked about it stands behind a colon.
    const std::string type = option.get_type_name();
    const std::string unit = type.substr(0, type.find(':'));
    try {
      if (value.isString()) {
        if (unit == "SECONDS") return fmt::format("{}", static_cast<double>(HX::toDuration(value).count()) / 1e9);
        if (unit == "BYTES") return fmt::format("{}", HX::toBytes(value));
        if (unit == "DIR" || unit == "FILE") return file_.resolved(value.asString());
        return value.asString();
      }
      const bool isNumber = value.isInt() || value.isInt64() || value.isDouble();
      // Who takes any text takes no number: it would be a slip.
      const bool takesText = problemOf(fmt::format("--{}=a", name)).empty();
      if (isNumber && !takesText) return value.toString();
      throw std::runtime_error(
          fmt::format("{} is no {}", value.toString(), takesText ? "text: write it in quotes" : "number"));
    } catch (const std::exception& error) {
      throw std::runtime_error(fmt::format("{}: {}", name, error.what()));
    }
  }

  const RobotFile& file_;
  const CLI::App& options_;
};

/// Whether an option of the command line keeps `option` from having effect.
bool isOverridden(const CLI::Option& option, const CLI::App& options, const GivenWords& given) {
  return std::ranges::any_of(given.values, [&](const auto& one) {
    const CLI::Option* const other = options.get_option_no_throw(one.first);
    if (!other) return false;
    const auto excludes = [](const CLI::Option& a, const CLI::Option& b) {
      return std::ranges::count(a.get_excludes(), &b, [](const auto* excluded) { return excluded; }) > 0;
    };
    return (other == &option && !mayBeRepeated(option)) || excludes(option, *other) || excludes(*other, option);
  });
}

/// A setting within those of a library, or of a module of it: "period", "Left.period".
void put(HX::GivenSettings& settings, std::span<const std::string> path, const HXValue& value) {
  HX::GivenSetting& given = settings.entries[path.front()];
  HX::GivenSettings inner;
  if (path.size() == 1) {
    given = {value, {}, {}, nullptr};
    if (value.isMap()) inner = HX::GivenSettings::of(value);
  } else {
    if (given.table) inner = *given.table;
    put(inner, path.subspan(1), value);
    given.value = HXValue::map();
    for (const auto& [name, one] : inner.entries) given.value.mapSet(name, one.value);
  }
  if (given.value.isMap()) given.table = std::make_shared<const HX::GivenSettings>(std::move(inner));
}

std::vector<std::string> splitAtDots(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream rest(text + ".");
  for (std::string part; std::getline(rest, part, '.');) parts.push_back(part);
  return parts;
}

/// The files beside `path` that are files to run by their names.
std::vector<std::string> robotFilesBeside(const std::filesystem::path& path) {
  std::vector<std::string> files;
  std::error_code ignored;
  const auto folder = path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
  for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
    if (entry.path().extension() == ".toml") files.push_back((path.parent_path() / entry.path().filename()).string());
  }
  return files;
}

std::string meantInsteadOf(const std::string& word, const CLI::App& options) {
  const std::string option = "--" + word;
  if (options.get_option_no_throw(option)) return fmt::format("; did you mean {}?", option);
  if (findVerb(word)) return fmt::format("; did you mean korvo {}?", word);
  const std::string file = didYouMean(word, robotFilesBeside(word));
  return file.empty() ? didYouMean(option, optionNames(options)) : file;
}

OptionWords optionWords(const RobotFile& file, Problems& problems) {
  const auto options = optionsOf(freshVerb("run"));
  const OptionReader reader(file, *options);
  OptionWords words;
  for (const auto& [name, given] : file.options) {
    try {
      words.emplace("--" + name, reader.read(name, given.value));
    } catch (const std::exception& error) {
      const bool isKnown = options->get_option_no_throw("--" + name) != nullptr;
      problems.add(isKnown ? given.valuePlace : given.namePlace, error.what());
    }
  }
  return words;
}

}  // namespace

Robot readRobot(const std::string& path) {
  Problems problems;
  Robot robot = readRobot(path, problems);
  problems.throwIfAny();
  return robot;
}

Robot readRobot(const std::string& path, Problems& problems) {
  RobotFile file = readRobotFile(path, problems);
  OptionWords words = optionWords(file, problems);
  const auto noMemory = words.find("--no-memory");
  const bool hasMemory = noMemory == words.end() || noMemory->second.empty();
  if (!hasMemory && !file.maps.empty()) problems.add(file.mapsPlace, kMapsNeedMemory);
  return {std::move(file), std::move(words)};
}

void requireMemoryForMaps(const RobotFile& file) {
  if (!file.maps.empty()) throw HX::SettingsError({file.mapsPlace.prefix() + kMapsNeedMemory});
}

void requireRobotFile(const std::string& word, const CLI::App& options) {
  if (std::filesystem::path(word).extension() == ".so") {
    throw InputError(fmt::format("{} is a module library; write --module {}", excerpt(word), excerpt(word)));
  }
  std::error_code ignored;
  if (std::filesystem::exists(word, ignored)) return;
  throw InputError(fmt::format("no file {}{}", excerpt(word), meantInsteadOf(word, options)));
}

void addOptionWords(const OptionWords& words, const CLI::App& options, GivenWords& given) {
  const GivenWords line = given;
  for (const auto& [name, values] : words) {
    const CLI::Option* const option = options.get_option_no_throw(name);
    if (!option || isOverridden(*option, options, line)) continue;
    given.options.insert(given.options.end(), values.begin(), values.end());
    given.values.try_emplace(name);
  }
}

RobotFile readSettingsFile(const CLI::App& options, GivenWords& given) {
  const auto path = given.values.find("--settings");
  if (path == given.values.end()) return {};
  auto [file, words] = readRobot(path->second);
  if (const auto name = words.extract("--name")) words["--broker"] = {"--broker" + name.mapped().front().substr(6)};
  addOptionWords(words, options, given);
  return std::move(file);
}

void takeModules(const RobotFile& file, bool all, HostingOptions& options) {
  std::vector<std::string> libraries;
  const auto add = [&](const std::string& library) {
    if (std::ranges::count(libraries, library) == 0) libraries.push_back(library);
  };
  for (const RobotModule& module : file.modules) {
    options.settings.insert_or_assign(HX::HXBroker::libraryName(module.library), module.settings);
    if (all && !module.ownProcess) add(module.library);
  }
  for (const std::string& wanted : options.modules) {
    const RobotModule* const module = file.find(wanted);
    add(module ? module->library : wanted);
  }
  options.modules = std::move(libraries);
}

void takeSets(const RobotFile& file, const std::vector<std::string>& loaded, HostingOptions& options) {
  std::vector<std::string> libraries;
  std::ranges::transform(loaded, std::back_inserter(libraries), HX::HXBroker::libraryName);
  for (const std::string& set : options.sets) {
    const std::size_t equals = set.find('=');
    const auto path = splitAtDots(set.substr(0, equals));
    if (equals == std::string::npos || path.size() < 2 || std::ranges::count(path, "") > 0) {
      throw InputError(fmt::format("--set {}: write MODULE.SETTING=VALUE", set));
    }
    const RobotModule* const module = file.find(path.front());
    const std::string library = HX::HXBroker::libraryName(module ? module->library : path.front());
    if (std::ranges::count(libraries, library) == 0) {
      throw InputError(
          fmt::format("--set {}: no module {} is loaded{}", set, path.front(), didYouMean(path.front(), libraries)));
    }
    put(options.settings[library], std::span(path).subspan(1), readTomlValue(set.substr(equals + 1)));
  }
}

}  // namespace korvo
