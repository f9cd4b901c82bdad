#include "run.h"

#include "base/event.h"
#include "base/output.h"
#include "base/target.h"
#include "brokerservice.h"
#include "commands/watches.h"
#include "console/console.h"
#include "console/lineeditor.h"
#include "console/linesource.h"
#include "line/commandline.h"
#include "live/view.h"
#include "stopsignals.h"

#include <hxcommon/feed.h>
#include <hxcommon/hxbroker.h>
#include <hxproxies/hxmemoryproxy.h>
#include <libmw/local.h>
#include <libmw/os.h>
#include <libmw/path.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <functional>
#include <iostream>
#include <iterator>
#include <optional>
#include <thread>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace korvo {
namespace {

using namespace std::chrono_literals;

const char* const kCategory = "korvo";

void runConsole(Context context, int stop) {
  Console console(context);
  if (isatty(STDIN_FILENO) && isatty(STDOUT_FILENO)) {
    // For the characters that a person types; numbers keep their dots.
    std::setlocale(LC_CTYPE, "");
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

/// The memory warns that it cannot open its map, which most robots do not have.
void explainMissingMap() {
  const char* const map = "hxmemory_map_signal_event.txt";
  if (!mw::path::findData("korvo", map, false).empty()) return;
  mw::log::info(kCategory, "run",
                fmt::format("without {} no signals are raised as events, and nothing else is missing; "
                            "korvo check-map --help tells what it may hold",
                            map));
}

std::function<void(int)> frontEndBody(const RunOptions& options, const Context& context) {
  if (options.console) {
    return [context = Context(context)](int stop) mutable {
      context.stop = stop;
      runConsole(context, stop);
    };
  }
  if (options.live) {
    return [context, name = options.name](int stop) { runLiveView(context.target, context.output, name, "", stop); };
  }
  return [](int stop) { waitReadable({stop}); };
}

/// The broker as others see it: its name, which is its own from the beginning, and the way in, with a service of its
/// own.
class PublicBroker {
 public:
  /// @throws std::runtime_error when the name is taken.
  explicit PublicBroker(std::shared_ptr<HX::HXBroker> broker)
      : broker_(std::move(broker)),
        server_(std::in_place, *broker_->session(), broker_->getName(), mw::LinkOptions{}, mw::Listening::Later) {}
  PublicBroker(const PublicBroker&) = delete;
  PublicBroker& operator=(const PublicBroker&) = delete;
  ~PublicBroker() { withdraw(); }

  /// Offers the broker's service and lets others in. Last of all: who comes in finds the modules, and nobody takes
  /// their names before them.
  void open() {
    const auto service = std::make_shared<BrokerService>(broker_, [this] { stopAsked_.set(); });
    service_ = broker_->session()->registerService(BrokerService::kName, mw::AnyObject(service));
    server_->listen();
  }
  /// Readable once somebody has asked the service to stop.
  int stopFile() const { return stopAsked_.file(); }

  /// Ends the service, and then the connections. What modules ask of other processes fails from now on, so that a
  /// frozen one cannot keep them from leaving.
  void withdraw() {
    if (service_) broker_->session()->unregisterService(*std::exchange(service_, std::nullopt));
    if (server_ && stopAsked_.wait(0ms)) letAnswersGo();
    server_.reset();
  }

 private:
  /// Gives whoever asked for the end a moment to hear that it comes, and to leave.
  void letAnswersGo() const {
    const auto end = std::chrono::steady_clock::now() + 200ms;
    while (server_->connectionCount() > 0 && std::chrono::steady_clock::now() < end) waitReadable({}, 5ms);
  }

  const std::shared_ptr<HX::HXBroker> broker_;
  Event stopAsked_;
  std::optional<mw::LocalServer> server_;
  std::optional<mw::ServiceId> service_;
};

void host(HX::HXBroker& broker, PublicBroker& access, const RunOptions& options, const Context& context,
          Ending& ending) {
  FrontEnd frontEnd(context.output, frontEndBody(options, context));
  waitReadable({ending.askedFile(), frontEnd.endedFile(), access.stopFile()});
  ending.begin();
  frontEnd.stop();
  access.withdraw();
  context.watches.close();
  broker.shutdown();
}

void keepJournal(const HX::HXBroker& broker) {
  if (const auto journal = HX::ownJournal(broker)) journal->keep(true);
}

void stateMaps(HX::HXBroker& broker, const std::vector<RobotMapping>& maps) {
  if (maps.empty()) return;
  const auto memory = broker.getSpecialisedProxy<HX::HXMemoryProxy>("HXMemory");
  for (const auto& [service, signal, event] : maps) memory->addMapping(service, signal, event);
}

const char* const kKeeper = "keeper";
const char* const kRecorder = "recorder";

bool keeps(const RunOptions& options) {
  return !options.kept.empty() || std::ranges::count(options.modules, kKeeper) > 0;
}

/// What is loaded with the memory, before the modules, which find the kept keys when they are constructed.
std::vector<std::string> librariesOfMemory(const RunOptions& options) {
  std::vector<std::string> libraries{"hxmemory"};
  if (keeps(options)) libraries.emplace_back(kKeeper);
  if (options.journal) libraries.insert(libraries.end(), {"journal", "freshness"});
  libraries.emplace_back("views");
  if (!options.blackBox.empty()) libraries.emplace_back(kRecorder);
  return libraries;
}

std::vector<std::string> librariesBesideMemory(const RunOptions& options) {
  std::vector<std::string> libraries = options.modules;
  // Those of the memory may be in the file for their settings.
  if (options.memory) {
    const auto loaded = librariesOfMemory(options);
    std::erase_if(libraries, [&](const std::string& one) { return std::ranges::count(loaded, one) > 0; });
  }
  return libraries;
}

/// Where keys are kept unless a folder is named: what is of one broker and not to be edited.
std::string stateFolder(const std::string& broker) {
  const std::string state = mw::os::getenv("XDG_STATE_HOME");
  return fmt::format("{}/korvo/kept/{}", state.empty() ? mw::os::getenv("HOME") + "/.local/state" : state, broker);
}

/// What was given to the keeper, with what the options say.
HX::GivenSettings keeperSettings(const RunOptions& options) {
  const auto found = options.settings.find(kKeeper);
  HX::GivenSettings given = found == options.settings.end() ? HX::GivenSettings() : found->second;
  if (!options.kept.empty()) given.entries["keep"].value = HX::HXValue(options.kept);
  HX::GivenSetting folder;
  folder.value = options.dataDirs.empty() ? stateFolder(options.name) : options.dataDirs.front();
  given.entries.try_emplace("folder", std::move(folder));
  return given;
}

/// What was given to the recorder, with what the options say.
HX::GivenSettings recorderSettings(const RunOptions& options) {
  const auto found = options.settings.find(kRecorder);
  HX::GivenSettings given = found == options.settings.end() ? HX::GivenSettings() : found->second;
  given.entries["black-box"].value = options.blackBox;
  if (!options.when.empty()) given.entries["when"].value = HX::HXValue(options.when);
  return given;
}

/// Loads the memory and what belongs to it. @return False when there is no memory.
bool loadMemory(HX::HXBroker& broker, const RunOptions& options, Output& output, const Ending& ending) {
  const bool loaded = loadModules(broker, librariesOfMemory(options), options.strict, output, ending);
  if (ending.isAsked()) return true;
  if (loaded && std::ranges::count(broker.modules(), "HXMemory") > 0) {
    if (options.keep) keepJournal(broker);
    stateMaps(broker, options.maps);
    return true;
  }
  output.error("the broker has no memory of its own; --no-memory goes without");
  return false;
}

/// Loads what was asked for. @return False when the broker is of no use.
bool load(HX::HXBroker& broker, const RunOptions& options, Output& output, const Ending& ending) {
  for (const auto& [library, settings] : options.settings) broker.provideSettings(library, settings);
  if (keeps(options)) broker.provideSettings(kKeeper, keeperSettings(options));
  if (!options.blackBox.empty()) broker.provideSettings(kRecorder, recorderSettings(options));
  if (options.memory && !loadMemory(broker, options, output, ending)) return false;
  const auto libraries = librariesBesideMemory(options);
  const bool loaded = loadModules(broker, libraries, options.strict, output, ending);
  return loaded || (options.memory && !options.strict);
}

/// The same; modules that were loaded before a setting was found wrong leave in order.
bool loadOrLeave(HX::HXBroker& broker, const RunOptions& options, Output& output, Ending& ending) {
  try {
    return load(broker, options, output, ending);
  } catch (const HX::SettingsError&) {
    ending.begin();
    broker.shutdown();
    throw;
  }
}

}  // namespace

std::vector<std::string> librariesOf(const RunOptions& options) {
  std::vector<std::string> libraries = options.memory ? librariesOfMemory(options) : std::vector<std::string>();
  std::ranges::copy(librariesBesideMemory(options), std::back_inserter(libraries));
  return libraries;
}

int run(const RunOptions& options) {
  StopSignals signals;
  prepareHosting(options);
  Ending ending(signals, options.endLimit);
  Output output(std::cout, std::cerr);
  const auto broker = HX::HXBroker::create(options.name);
  PublicBroker access(broker);
  const bool isOfUse = loadOrLeave(*broker, options, output, ending);
  if (!isOfUse || ending.isAsked()) {
    ending.begin();
    broker->shutdown();
    return isOfUse ? kDone : kFailed;
  }
  if (options.memory && options.maps.empty() && !options.console && !options.live) explainMissingMap();
  access.open();
  // Beside a console or a live view it would stand in the way.
  if (!options.console && !options.live) {
    mw::log::info(kCategory, "run",
                  fmt::format("broker {} is running: {}", options.name, fmt::join(broker->modules(), ", ")));
  }
  BrokerTarget target(broker);
  Watches watches(output);
  host(*broker, access, options, {target, output, watches}, ending);
  return kDone;
}

}  // namespace korvo
