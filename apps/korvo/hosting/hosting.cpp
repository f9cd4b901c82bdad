#include "hosting.h"

#include "base/output.h"
#include "stopsignals.h"

#include <hxcommon/crashreport.h>
#include <hxcommon/hxbroker.h>
#include <libmw/path.h>

#include <utility>

namespace korvo {

void prepareHosting(const HostingOptions& options) {
  HX::reportCrashes();
  mw::log::setLevel(options.logLevel);
  for (const auto& [category, level] : options.logLevels) mw::log::setLevel(level, category);
  for (auto folder = options.dataDirs.rbegin(); folder != options.dataDirs.rend(); ++folder) {
    mw::path::prependDataDir(*folder);
  }
}

namespace {

/// What is wrong with the settings of a library that is not to be loaded any more.
void examine(HX::HXBroker& broker, const std::string& library, std::vector<std::string>& problems) {
  try {
    broker.examineModule(library);
  } catch (const HX::SettingsError& error) {
    problems.insert(problems.end(), error.problems().begin(), error.problems().end());
  } catch (const std::exception&) {
    // Not about its settings.
  }
}

}  // namespace

bool loadModules(HX::HXBroker& broker, const std::vector<std::string>& libraries, bool strict, Output& output,
                 const Ending& ending) {
  std::size_t loaded = 0;
  std::vector<std::string> problems;
  for (const auto& library : libraries) {
    if (ending.isAsked()) return true;
    if (!problems.empty()) {
      examine(broker, library, problems);
      continue;
    }
    try {
      broker.loadModule(library);
      ++loaded;
    } catch (const HX::SettingsError& error) {
      problems = error.problems();
    } catch (const std::exception& error) {
      output.error(error.what());
      if (strict) return false;
    }
  }
  if (!problems.empty()) throw HX::SettingsError(std::move(problems));
  return loaded > 0 || libraries.empty();
}

}  // namespace korvo
