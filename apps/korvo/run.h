#pragma once

#include <libmw/log.h>

#include <string>
#include <vector>

namespace korvo {

/// What `korvo run` was asked for.
struct RunOptions {
  std::string name = "korvo";
  bool memory = true;                 ///< Load the memory before the modules.
  std::vector<std::string> modules;   ///< Libraries, in the order in which they are loaded.
  std::vector<std::string> dataDirs;  ///< Searched for data files before the usual folders, the first one first.
  mw::LogLevel logLevel = mw::LogLevel::Info;
  bool console = false;  ///< Execute commands from standard input until it ends.
  bool live = false;     ///< Show the memory until a person leaves. At most one of the two.
};

/// Hosts a broker until SIGINT or SIGTERM, or until its console or its live view ends; then the modules leave, the last
/// one first. A second SIGINT meanwhile ends the process at once, with status 130.
///
/// A library that cannot be loaded is reported on standard error; the others are loaded all the same.
///
/// Called by the first thread, before there are others.
///
/// @return The exit status: 0, or 1 when libraries were asked for and none could be loaded.
int run(const RunOptions& options);

}  // namespace korvo
