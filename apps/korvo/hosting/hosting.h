#pragma once

#include <hxcommon/settings.h>
#include <libmw/log.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace HX {
class HXBroker;
}

namespace korvo {

class Ending;
class Output;

/// What every command that hosts modules is asked for.
struct HostingOptions {
  std::vector<std::string> modules;   ///< Libraries, in the order in which they are loaded.
  std::vector<std::string> dataDirs;  ///< Searched for data files before the usual folders, the first one first.
  bool strict = false;                ///< A library that cannot be loaded is a failure of all.
  mw::LogLevel logLevel = mw::LogLevel::Info;
  std::vector<std::pair<std::string, mw::LogLevel>> logLevels;  ///< By category, in the place of `logLevel`.
  std::map<std::string, HX::GivenSettings> settings;            ///< Of modules, by the names of their libraries.
  std::vector<std::string> sets;                                ///< "MODULE.SETTING=VALUE", as on the command line.
  std::chrono::milliseconds endLimit{kEndLimit};  ///< How long the end may take; zero: as long as it does.

  static constexpr std::chrono::seconds kEndLimit{10};
};

/// Sets the process up as the options say, and has crashes say in which module they were.
void prepareHosting(const HostingOptions& options);

/// Loads the libraries in their order. One that cannot be loaded is reported as an error; the others are loaded all the
/// same, unless it is strict. None is loaded any more once `ending` has been asked for.
/// @throws HX::SettingsError when the settings of one are wrong: nobody should run a robot on others than were meant.
/// It
///         tells of all of them; those behind the first one are constructed to be asked, and dropped.
/// @return False when there are libraries and none could be loaded, or strictly, when one could not.
bool loadModules(HX::HXBroker& broker, const std::vector<std::string>& libraries, bool strict, Output& output,
                 const Ending& ending);

}  // namespace korvo
