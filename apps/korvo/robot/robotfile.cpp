#include "robotfile.h"

#include "loglevels.h"
#include "problems.h"
#include "tomlfile.h"

#include <hxcommon/hxbroker.h>
#include <hxcommon/suggestion.h>
#include <hxcommon/units.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <signalmapline.h>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace korvo {
namespace {

using HX::GivenSetting;
using HX::GivenSettings;
using HX::HXValue;
using HX::Setting;

// What [expect] is handed on to.
const char* const kFreshness = "freshness";
const char* const kExpect = "expect";

class RobotReader {
 public:
  RobotReader(const std::string& path, Problems& problems) : problems_(problems) { file_.path = path; }

  RobotFile read(const GivenSettings& all) {
    for (const auto& [name, given] : all.entries) {
      const auto table = tables().find(name);
      if (table == tables().end()) {
        addOption(name, given);
      } else if (!given.table) {
        addProblem(given.namePlace, fmt::format("{} is a table: write [{}]", name, name));
      } else {
        std::invoke(table->second, this, *given.table);
      }
    }
    // The order of the file is the order of loading.
    std::ranges::sort(file_.modules, {}, &RobotModule::place);
    requireDifferentLibraries();
    return std::move(file_);
  }

  using Read = void (RobotReader::*)(const GivenSettings&);
  static const std::map<std::string, Read, std::less<>>& tables() {
    static const std::map<std::string, Read, std::less<>> all{{"expect", &RobotReader::readExpectations},
                                                              {"log-levels", &RobotReader::readLogLevels},
                                                              {"maps", &RobotReader::readMaps},
                                                              {"modules", &RobotReader::readModules}};
    return all;
  }

 private:
  void addProblem(const HX::SettingPlace& place, const std::string& text) { problems_.add(place, text); }

  void addOption(const std::string& name, const GivenSetting& given) {
    if (given.table) {
      const std::string suggestion = HX::didYouMean(name, robotTables());
      return addProblem(
          given.namePlace,
          fmt::format("no table {}{}", name,
                      suggestion.empty() ? fmt::format("; there is {}", fmt::join(robotTables(), ", ")) : suggestion));
    }
    file_.options.emplace(name, given);
  }

  void readModules(const GivenSettings& modules) {
    for (const auto& [name, given] : modules.entries) {
      if (given.table) {
        addModule(name, given.namePlace, *given.table);
      } else {
        addProblem(given.namePlace, fmt::format("modules.{0} is a table: write [modules.{0}]", name));
      }
    }
  }

  void addModule(const std::string& name, const HX::SettingPlace& place, const GivenSettings& settings) {
    RobotModule module{name, name, false, place, settings};
    const auto take = [&](const Setting& setting) {
      const auto given = module.settings.entries.find(setting.name());
      if (given == module.settings.entries.end()) return setting.otherwise();
      const HXValue value = read(setting, fmt::format("modules.{}.{}", name, setting.name()), given->second);
      module.settings.entries.erase(given);
      return value;
    };
    module.ownProcess = take(Setting::flag("own-process", false, "Hosted by korvo host.")).asBool();
    const std::string library = take(Setting::text("library", "", "What is loaded.")).asString();
    if (!library.empty()) module.library = library.find('/') == std::string::npos ? library : file_.resolved(library);
    file_.modules.push_back(std::move(module));
  }

  /// The default in place of what is wrong.
  HXValue read(const Setting& setting, const std::string& name, const GivenSetting& given) {
    try {
      return setting.read(given.value);
    } catch (const std::exception& error) {
      addProblem(given.valuePlace, fmt::format("{}: {}", name, error.what()));
      return setting.otherwise();
    }
  }

  void readMaps(const GivenSettings& maps) {
    file_.mapsPlace = maps.place;
    const Setting event = Setting::text("event", "", "The name of the event.");
    for (const auto& [signal, given] : maps.entries) {
      const std::string name = read(event, "maps." + signal, given).asString();
      const auto line = HX::parseSignalMapLine(fmt::format("{}:{}", signal, name));
      if (line.verdict == HX::SignalMapLine::Verdict::Accepted) {
        file_.maps.push_back({line.service, line.signal, line.event});
      } else if (given.value.isString()) {
        addProblem(given.namePlace, fmt::format(R"({} = {} is no mapping: write "SERVICE.SIGNAL" = "EVENT")",
                                                HXValue(signal).toString(), given.value.toString()));
      }
    }
  }

  void readLogLevels(const GivenSettings& levels) {
    const Setting level = Setting::text("level", "info", "The level.").oneOf(levelNames());
    for (const auto& [category, given] : levels.entries) {
      file_.logLevels.emplace_back(category, levelOf(read(level, "log-levels." + category, given).asString()));
    }
  }

  void readExpectations(const GivenSettings& expectations) {
    const Setting limit = Setting::duration("limit", "1s", "How long the key may stay unwritten.");
    for (const auto& [key, given] : expectations.entries) read(limit, fmt::format("expect.{}", key), given);
    expectations_ = expectations;
  }

  void requireDifferentLibraries() {
    addExpectations();
    std::map<std::string, const RobotModule*> known;
    for (const RobotModule& module : file_.modules) {
      const auto& [other, isNew] = known.emplace(HX::HXBroker::libraryName(module.library), &module);
      if (isNew) continue;
      addProblem(module.place,
                 fmt::format("modules.{} loads the library of modules.{}", module.name, other->second->name));
    }
  }

  /// As if they were a setting of the module that they are for.
  void addExpectations() {
    if (expectations_.entries.empty()) return;
    auto module = std::ranges::find(file_.modules, kFreshness, &RobotModule::name);
    if (module == file_.modules.end()) {
      file_.modules.push_back({kFreshness, kFreshness, false, expectations_.place, {expectations_.place, {}}});
      module = std::prev(file_.modules.end());
    }
    HXValue values = HXValue::map();
    for (const auto& [key, given] : expectations_.entries) values.mapSet(key, given.value);
    module->settings.entries.insert_or_assign(kExpect,
                                              GivenSetting{std::move(values), expectations_.place, expectations_.place,
                                                           std::make_shared<const GivenSettings>(expectations_)});
  }

  RobotFile file_;
  GivenSettings expectations_;
  Problems& problems_;
};

}  // namespace

const RobotModule* RobotFile::find(const std::string& module) const {
  const auto found = std::ranges::find(modules, module, &RobotModule::name);
  return found == modules.end() ? nullptr : &*found;
}

std::string RobotFile::resolved(const std::string& relative) const {
  // Kept as short as it was written where that is enough.
  const auto folder = std::filesystem::path(path).parent_path();
  const auto whole = (folder / relative).lexically_normal().string();
  return whole.find('/') == std::string::npos ? "./" + whole : whole;
}

RobotFile readRobotFile(const std::string& path, Problems& problems) {
  return RobotReader(path, problems).read(readToml(path));
}

const std::vector<std::string>& robotTables() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> all;
    for (const auto& [name, read] : RobotReader::tables()) all.push_back(name);
    return all;
  }();
  return names;
}

}  // namespace korvo
