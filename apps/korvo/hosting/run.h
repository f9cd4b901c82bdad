#pragma once

#include "hosting.h"
#include "robot/robotfile.h"

#include <string>
#include <vector>

namespace korvo {

/// What `korvo run` was asked for.
struct RunOptions : HostingOptions {
  std::string name = "korvo";
  bool memory = true;               ///< Load the memory before the modules.
  bool journal = true;              ///< With the memory, load the modules that stand on its journal.
  bool keep = false;                ///< The memory records its changes always, not only while somebody follows.
  std::vector<std::string> kept;    ///< Patterns of keys that survive.
  std::string fleet;                ///< The hub's servers, with commas between them; empty: none.
  std::string robot;                ///< What this one is called there; empty: as the module says.
  std::vector<std::string> follow;  ///< Robots there that are followed; empty: as the module says.
  std::string blackBox;             ///< How long before and after an event is kept: "30s:10s"; empty for not at all.
  std::vector<std::string> when;    ///< The events.
  std::vector<RobotMapping> maps;   ///< Stated before the modules are loaded.
  bool console = false;             ///< Execute commands from standard input until it ends.
  bool live = false;                ///< Show the memory until a person leaves. At most one of the two.
};

/// What is loaded: with the memory what belongs to it, and the modules.
std::vector<std::string> librariesOf(const RunOptions& options);

/// Hosts a broker, which other processes of this user reach under its name, until SIGINT or SIGTERM, until somebody
/// asks its service to stop, or until its console or its live view ends; then the modules leave, the last one first.
/// See `Ending` for what that may take.
///
/// A library that cannot be loaded is reported on standard error; the others are loaded all the same, unless the
/// options are strict. Without the memory that it was asked for the broker ends. Its name is taken before the libraries
/// are loaded, and others are let in afterwards.
///
/// Called by the first thread, before there are others.
///
/// @return The exit status: 0, or 1 when libraries were asked for and none, or not the memory, or strictly not all,
///         could be loaded.
/// @throws HX::SettingsError when the settings of a module are wrong.
/// @throws std::runtime_error when a broker of that name is running, or its socket cannot be made.
int run(const RunOptions& options);

}  // namespace korvo
