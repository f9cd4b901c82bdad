#pragma once

#include "hosting.h"

#include <string>

namespace korvo {

/// What `korvo run` was asked for.
struct RunOptions : HostingOptions {
  std::string name = "korvo";
  bool memory = true;    ///< Load the memory before the modules.
  bool console = false;  ///< Execute commands from standard input until it ends.
  bool live = false;     ///< Show the memory until a person leaves. At most one of the two.
};

/// Hosts a broker, which other processes of this user reach under its name, until SIGINT or SIGTERM, until somebody
/// asks its service to stop, or until its console or its live view ends; then the modules leave, the last one first. A
/// second SIGINT meanwhile ends the process at once, with status 130.
///
/// A library that cannot be loaded is reported on standard error; the others are loaded all the same, unless the
/// options are strict.
///
/// Called by the first thread, before there are others.
///
/// @return The exit status: 0, or 1 when libraries were asked for and none could be loaded, or strictly, not all.
/// @throws std::runtime_error when a broker of that name is running, or its socket cannot be made.
int run(const RunOptions& options);

}  // namespace korvo
