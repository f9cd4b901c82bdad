#pragma once

#include <libmw/log.h>

#include <memory>
#include <string>
#include <vector>

namespace HX {
class HXBroker;
}

namespace korvo {

class Output;

/// What every command that hosts modules is asked for.
struct HostingOptions {
  std::vector<std::string> modules;   ///< Libraries, in the order in which they are loaded.
  std::vector<std::string> dataDirs;  ///< Searched for data files before the usual folders, the first one first.
  bool strict = false;                ///< A library that cannot be loaded is a failure of all.
  mw::LogLevel logLevel = mw::LogLevel::Info;
};

/// Sets the process up as the options say.
void prepareHosting(const HostingOptions& options);

/// Loads the libraries in their order. One that cannot be loaded is reported as an error; the others are loaded all the
/// same, unless it is strict.
/// @return False when there are libraries and none could be loaded, or strictly, when one could not.
bool loadModules(HX::HXBroker& broker, const std::vector<std::string>& libraries, bool strict, Output& output);

}  // namespace korvo
