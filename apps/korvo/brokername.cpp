#include "brokername.h"

#include "arguments.h"
#include "format.h"

#include <libmw/local.h>

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
  if (!wanted.empty()) return wanted;
  if (running.empty()) throw mw::NoBrokerError("no broker is running");
  if (running.size() == 1) return running.front();
  throw InputError(fmt::format("several brokers are running: {}; choose one with --broker", fmt::join(running, ", ")));
}

}  // namespace korvo
