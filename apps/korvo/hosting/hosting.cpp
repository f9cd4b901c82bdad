#include "hosting.h"

#include "base/output.h"
#include "stopsignals.h"

#include <hxcommon/crashreport.h>
#include <hxcommon/hxbroker.h>
#include <libmw/path.h>

namespace korvo {

void prepareHosting(const HostingOptions& options) {
  HX::reportCrashes();
  mw::log::setLevel(options.logLevel);
  for (const auto& [category, level] : options.logLevels) mw::log::setLevel(level, category);
  for (auto folder = options.dataDirs.rbegin(); folder != options.dataDirs.rend(); ++folder) {
    mw::path::prependDataDir(*folder);
  }
}

bool loadModules(HX::HXBroker& broker, const std::vector<std::string>& libraries, bool strict, Output& output,
                 const Ending& ending) {
  std::size_t loaded = 0;
  for (const auto& library : libraries) {
    if (ending.isAsked()) return true;
    try {
      broker.loadModule(library);
      ++loaded;
    } catch (const HX::SettingsError&) {
      throw;
    } catch (const std::exception& error) {
      output.error(error.what());
      if (strict) return false;
    }
  }
  return loaded > 0 || libraries.empty();
}

}  // namespace korvo
