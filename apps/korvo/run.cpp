#include "run.h"

#include "console.h"
#include "event.h"
#include "lineeditor.h"
#include "linesource.h"
#include "liveview.h"
#include "output.h"
#include "stopsignals.h"
#include "target.h"
#include "watches.h"

#include <hxcommon/hxbroker.h>
#include <libmw/path.h>

#include <functional>
#include <iostream>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>

namespace korvo {
namespace {

using namespace std::chrono_literals;

const char* const kCategory = "korvo";

/// @return False when libraries were asked for and none could be loaded.
bool loadModules(HX::HXBroker& broker, const RunOptions& options, Output& output) {
  std::vector<std::string> libraries = options.modules;
  if (options.memory) libraries.insert(libraries.begin(), "hxmemory");
  std::size_t loaded = 0;
  for (const auto& library : libraries) {
    try {
      broker.loadModule(library);
      ++loaded;
    } catch (const std::exception& error) {
      output.error(error.what());
    }
  }
  return loaded > 0 || libraries.empty();
}

void runConsole(Context context, int stop) {
  Console console(context);
  if (isatty(STDIN_FILENO) && isatty(STDOUT_FILENO)) {
    context.output.line("Commands are listed by help. Ctrl-D leaves.");
    LineEditor editor(context.output, stop, historyPath(),
                      [&](std::string_view line) { return console.complete(line); });
    console.run(editor);
  } else {
    FileLines lines(STDIN_FILENO, stop);
    console.run(lines);
  }
}

/// What faces the person, on a thread of its own: a call that it is in must not keep signals from being heard.
class FrontEnd {
 public:
  FrontEnd(Output& output, std::function<void(int stop)> body)
      : thread_([this, &output, body = std::move(body)] {
          try {
            body(stop_.file());
          } catch (const std::exception& error) {
            output.error(error.what());
          }
          ended_.set();
        }) {}
  FrontEnd(const FrontEnd&) = delete;
  FrontEnd& operator=(const FrontEnd&) = delete;
  ~FrontEnd() {
    stop();
    thread_.join();
  }

  /// Readable once it has come to its end.
  int endedFile() const { return ended_.file(); }
  /// Asks it to end, and gives it a moment. One that is in a call ends when the module that it called leaves.
  void stop() {
    stop_.set();
    ended_.wait(200ms);
  }

 private:
  Event stop_;
  Event ended_;
  std::thread thread_;
};

std::function<void(int)> frontEndBody(const RunOptions& options, const Context& context) {
  if (options.console) return [context](int stop) { runConsole(context, stop); };
  if (options.live) {
    return [context, name = options.name](int stop) { runLiveView(context.target, context.output, name, stop); };
  }
  return [](int stop) { waitReadable({stop}); };
}

void host(HX::HXBroker& broker, const RunOptions& options, const Context& context, StopSignals& signals) {
  FrontEnd frontEnd(context.output, frontEndBody(options, context));
  waitReadable({signals.file(), frontEnd.endedFile()});
  signals.take();
  const ImpatientExit impatient(signals);
  frontEnd.stop();
  context.watches.close();
  broker.shutdown();
}

}  // namespace

int run(const RunOptions& options) {
  StopSignals signals;
  mw::log::setLevel(options.logLevel);
  for (auto folder = options.dataDirs.rbegin(); folder != options.dataDirs.rend(); ++folder) {
    mw::path::prependDataDir(*folder);
  }
  Output output(std::cout, std::cerr);
  const auto broker = HX::HXBroker::create(options.name);
  if (!loadModules(*broker, options, output)) {
    broker->shutdown();
    return 1;
  }
  // Beside a console or a live view it would stand in the way.
  if (!options.console && !options.live) {
    mw::log::info(kCategory, "run",
                  fmt::format("broker {} is running: {}", options.name, fmt::join(broker->modules(), ", ")));
  }
  BrokerTarget target(broker);
  Watches watches(output);
  host(*broker, options, {target, output, watches}, signals);
  return 0;
}

}  // namespace korvo
