#include "brokername.h"

#include "base/format.h"
#include "base/output.h"
#include "base/suggestion.h"
#include "commands/arguments.h"

#include <libmw/local.h>
#include <libmw/os.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <fmt/format.h>

namespace korvo {
namespace {

std::vector<std::string> runningBrokers() {
  try {
    return mw::runningBrokers();
  } catch (const std::system_error& error) {
    if (error.code() != std::errc::no_such_file_or_directory) throw;
    throw mw::NoBrokerError(fmt::format("no broker is running: {}", error.what()));
  }
}

}  // namespace

std::string checkBrokerName(const std::string& name) { return mw::whyNoBrokerName(name); }

std::string chooseBroker(const std::string& wanted) {
  const auto running = runningBrokers();
  std::string chosen = wanted;
  if (chosen.empty()) {
    chosen = mw::os::getenv("KORVO_BROKER");
    const std::string wrong = chosen.empty() ? "" : checkBrokerName(chosen);
    if (!wrong.empty()) throw InputError("KORVO_BROKER: " + wrong);
  }
  if (!chosen.empty()) {
    if (std::ranges::count(running, chosen) > 0) return chosen;
    throw mw::NoBrokerError(fmt::format("no broker named {} is running{}", chosen, didYouMean(chosen, running)));
  }
  if (running.empty()) {
    if (const std::string wrong = checkBrokerName("korvo"); !wrong.empty()) throw std::runtime_error(wrong);
    throw mw::NoBrokerError(fmt::format("no broker is running in {}", mw::localSocketFolder()));
  }
  if (running.size() == 1) return running.front();
  throw InputError(fmt::format("several brokers are running: {}; choose one with --broker or KORVO_BROKER",
                               fmt::join(running, ", ")));
}

void listBrokers(Output& output, bool asObjects) {
  const auto running = mw::describeRunningBrokers();
  if (running.empty() && !asObjects) output.note("no broker is running");
  std::size_t width = 0;
  for (const auto& broker : running) width = std::max(width, broker.name.size());
  for (const auto& broker : running) {
    const std::string since = formatTime(broker.since);
    if (asObjects) {
      JsonObject line;
      line.add("broker", broker.name).add("process", broker.process).add("since", since);
      output.line(line.add("version", broker.version).text());
    } else {
      output.line(fmt::format("{:<{}}  process {}  since {}  version {}", broker.name, width, broker.process, since,
                              broker.version));
    }
  }
}

}  // namespace korvo
