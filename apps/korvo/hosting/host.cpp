#include "host.h"

#include "base/event.h"
#include "base/output.h"
#include "commands/arguments.h"
#include "line/brokername.h"
#include "line/commandline.h"
#include "stopsignals.h"

#include <hxcommon/hxbroker.h>
#include <libmw/local.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <string>
#include <system_error>
#include <unistd.h>
#include <vector>

#include <fmt/format.h>

namespace korvo {
namespace {

bool isPython(const std::string& module) { return module.ends_with(".py"); }

/// Makes this process one of Python, which hosts the modules of the files.
int hostPython(const HostOptions& options) {
  if (!std::ranges::all_of(options.modules, isPython)) {
    throw InputError("modules of Python and libraries are hosted by a process each");
  }
  std::vector<std::string> words{"python3", "-m", "korvo", "host"};
  if (!options.broker.empty()) words.insert(words.end(), {"--broker", options.broker});
  words.emplace_back("--");
  words.insert(words.end(), options.modules.begin(), options.modules.end());
  std::vector<char*> arguments;
  for (auto& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  ::execvp(arguments.front(), arguments.data());
  throw std::system_error(errno, std::generic_category(), "python3 cannot be started");
}

}  // namespace

int host(const HostOptions& options) {
  if (std::ranges::any_of(options.modules, isPython)) return hostPython(options);
  StopSignals signals;
  prepareHosting(options);
  Ending ending(signals, options.endLimit);
  Output output(std::cout, std::cerr);
  const auto broker = HX::HXBroker::create(fmt::format("host-{}", getpid()));
  mw::Session& session = *broker->session();
  const mw::LocalClient client(session, chooseBroker(options.broker));
  mw::Lifetime lifetime;
  const auto noteLoss = [&](const std::string& reason) {
    output.note(fmt::format("broker {}: {}; waiting for it to come back", client.broker(), reason));
  };
  const auto noteReturn = [&] { output.note(fmt::format("broker {} is back", client.broker())); };
  session.connectionLost.connect(mw::SignalSubscriber(noteLoss).track(lifetime.token()));
  session.connectionRestored.connect(mw::SignalSubscriber(noteReturn).track(lifetime.token()));
  for (const auto& [library, settings] : options.settings) broker->provideSettings(library, settings);
  const bool loaded = loadModules(*broker, options.modules, options.strict, output, ending);
  if (loaded) {
    output.note(fmt::format("hosting for broker {}: {}", client.broker(), fmt::join(broker->modules(), ", ")));
    waitReadable({ending.askedFile()});
  }
  ending.begin();
  broker->shutdown();
  lifetime.destroy();
  return loaded ? kDone : kFailed;
}

}  // namespace korvo
