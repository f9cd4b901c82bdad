#include "checkrobot.h"

#include "base/output.h"
#include "fileoptions.h"
#include "line/commandline.h"
#include "robot/problems.h"

#include <hxcommon/hxbroker.h>
#include <libmw/log.h>
#include <libmw/path.h>

#include <algorithm>
#include <iterator>
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace korvo {
namespace {

/// What is found out about a file.
class Check {
 public:
  explicit Check(const std::string& path) : robot_(readRobot(path, problems_)) {}

  /// Constructs the modules. @throws HX::SettingsError with all that is wrong.
  void examine() {
    for (const auto& word : wordsOf("--data-dir")) mw::path::prependDataDir(word.substr(word.find('=') + 1));
    const auto broker = HX::HXBroker::create("check");
    // Modules may look for the memory in their constructors.
    if (wordsOf("--no-memory").empty()) broker->loadModule("hxmemory");
    for (const RobotModule& module : robot_.file.modules) examine(*broker, module);
    broker->shutdown();
    auto all = problems_.lines();
    std::ranges::copy(problemsOfModules_, std::back_inserter(all));
    if (!all.empty()) throw HX::SettingsError(std::move(all));
  }

  void print(Output& output) const {
    std::string line = "korvo run";
    for (const auto& [name, words] : robot_.words) {
      for (const std::string& word : words) line += " " + word;
    }
    output.line(line);
    for (const Examined& one : examined_) print(one, output);
    for (const auto& [service, signal, event] : robot_.file.maps) {
      output.line(fmt::format("{}.{} is raised as {}", service, signal, event));
    }
    for (const auto& [category, level] : robot_.file.logLevels) {
      output.line(fmt::format("log level of {}: {}", category, mw::toString(level)));
    }
  }

 private:
  struct Examined {
    const RobotModule* module;
    std::vector<HX::ModuleDescription> made;
  };

  std::vector<std::string> wordsOf(const std::string& option) const {
    const auto found = robot_.words.find(option);
    return found == robot_.words.end() ? std::vector<std::string>() : found->second;
  }

  void examine(HX::HXBroker& broker, const RobotModule& module) {
    try {
      broker.provideSettings(HX::HXBroker::libraryName(module.library), module.settings);
      examined_.push_back({&module, broker.examineModule(module.library)});
    } catch (const HX::SettingsError& error) {
      std::ranges::copy(error.problems(), std::back_inserter(problemsOfModules_));
    } catch (const std::exception& error) {
      problemsOfModules_.push_back(module.place.prefix() + error.what());
    }
  }

  static void print(const Examined& one, Output& output) {
    const RobotModule& module = *one.module;
    output.line(fmt::format("{} {}{}", module.ownProcess ? "korvo host --module" : "module", module.library,
                            module.library == module.name ? "" : fmt::format(" as {}", module.name)));
    for (const HX::ModuleDescription& made : one.made) {
      const auto own = module.settings.entries.find(made.name);
      const bool hasOwn = own != module.settings.entries.end() && own->second.table;
      const HX::GivenSettings& given = hasOwn ? *own->second.table : module.settings;
      for (const auto& [name, value] : made.values.asMap()) {
        const auto found = given.entries.find(name);
        const bool isGiven = found != given.entries.end();
        output.line(
            fmt::format("  {}.{} = {}{}", made.name, name, value.toString(),
                        isGiven ? fmt::format("  # line {}", found->second.valuePlace.line) : "  # by default"));
      }
    }
  }

  Problems problems_;
  const Robot robot_;
  std::vector<Examined> examined_;
  std::vector<std::string> problemsOfModules_;
};

}  // namespace

int checkRobot(const std::string& path, Output& output) {
  // What a module logs while it is asked is not about the file.
  mw::log::setLevel(mw::LogLevel::Silent);
  try {
    Check check(path);
    check.examine();
    check.print(output);
    return kDone;
  } catch (const HX::SettingsError& error) {
    for (const std::string& problem : error.problems()) output.error(problem);
    return kFailed;
  }
}

}  // namespace korvo
