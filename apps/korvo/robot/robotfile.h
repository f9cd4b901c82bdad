#pragma once

#include <hxcommon/settings.h>
#include <libmw/log.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace korvo {

class Problems;

/// A module of the file: [modules.NAME].
struct RobotModule {
  std::string name;
  std::string library;      ///< What is loaded: a path, or a name.
  bool ownProcess = false;  ///< It is hosted elsewhere: `korvo run` leaves it out.
  HX::SettingPlace place;
  HX::GivenSettings settings;
};

/// A signal that is raised as an event.
struct RobotMapping {
  std::string service;
  std::string signal;
  std::string event;
};

/// What a file says that a robot is run with.
///
///     name = "torso"                    options of korvo run, by their names
///     log-level = "warning"
///
///     [modules.arm]                     loads libarm.so; in the order of the file
///     library = "./build/libarm.so"     where it is not found by its name
///     period = "20ms"                   its settings
///
///     [maps]
///     "Door.opened" = "Door/Opened"     signals that are raised as events
///
///     [log-levels]
///     "hxmemory*" = "debug"             by category
///
///     [expect]
///     "Lidar/Scan" = "200ms"            for the module freshness, which is loaded then
struct RobotFile {
  std::string path;
  std::map<std::string, HX::GivenSetting, std::less<>> options;
  std::vector<RobotModule> modules;
  std::vector<RobotMapping> maps;
  HX::SettingPlace mapsPlace;
  std::vector<std::pair<std::string, mw::LogLevel>> logLevels;

  /// @return Null when the file has no such module.
  const RobotModule* find(const std::string& module) const;
  /// A path as the file means it: from its own folder, unless it is absolute.
  std::string resolved(const std::string& path) const;
};

/// Reads and checks all but the options, whose names and values are the commands' business, and the settings of
/// modules, which are the modules'.
///
/// @param problems  Is told what is wrong; what is returned then lacks it.
/// @throws HX::SettingsError for an error of syntax.
/// @throws std::runtime_error when the file cannot be read.
RobotFile readRobotFile(const std::string& path, Problems& problems);

/// The tables that a file may have: "modules" and the like.
const std::vector<std::string>& robotTables();

}  // namespace korvo
