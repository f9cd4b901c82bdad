#include "host.h"

#include "brokername.h"
#include "commandline.h"
#include "event.h"
#include "output.h"
#include "stopsignals.h"

#include <hxcommon/hxbroker.h>
#include <libmw/local.h>

#include <iostream>
#include <unistd.h>

#include <fmt/format.h>

namespace korvo {

int host(const HostOptions& options) {
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
