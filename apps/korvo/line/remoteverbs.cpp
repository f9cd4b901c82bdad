#include "base/event.h"
#include "base/format.h"
#include "base/output.h"
#include "brokername.h"
#include "commandline.h"
#include "commands/arguments.h"
#include "commands/commands.h"
#include "commands/watches.h"
#include "console/linesource.h"
#include "hosting/stopsignals.h"
#include "live/view.h"
#include "remotetarget.h"
#include "verbs.h"

#include <libmw/local.h>
#include <libmw/log.h>
#include <libmw/signal.h>
#include <libmw/trackable.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace korvo {
namespace {

/// Which broker to ask, and how long to wait for it.
struct RemoteOptions {
  std::string broker;
  double seconds = 5;

  std::chrono::milliseconds patience() const {
    return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
  }
};

std::string checkSeconds(const std::string& text) {
  constexpr double kMost = 1e6;
  double seconds = 0;
  if (CLI::detail::lexical_cast(text, seconds) && seconds >= 0 && seconds <= kMost) return {};
  return fmt::format("{} is no time from 0 to {} seconds", excerpt(text), kMost);
}

void addRemote(CLI::App& app, RemoteOptions& options) {
  app.add_option("--broker", options.broker, kBrokerHelp)
      ->type_name("NAME")
      // A variable of a script that is not set must not reach another robot.
      ->check(CLI::Validator(checkBrokerName, ""));
  app.add_option("--timeout", options.seconds, "Give up a call that has no answer by then; 0 waits without end")
      ->type_name("SECONDS")
      ->check(CLI::Validator(checkSeconds, ""))
      ->capture_default_str();
}

/// What the middleware logs in a process that asks one question is in the error of that question too.
void silenceLog() { mw::log::setLevel(mw::LogLevel::Silent); }

/// As `Command::run`, with errors that name the broker where it was lost.
void execute(const Command& command, Context& context, Arguments& arguments, const RemoteTarget& target) {
  try {
    command.run(context, arguments);
  } catch (const InputError&) {
    throw;
  } catch (const mw::NoBrokerError&) {
    throw;
  } catch (const std::exception& error) {
    throw std::runtime_error(target.explain(error));
  }
}

/// Tells a person that the broker has gone, and that it is back.
class LossNotes {
 public:
  LossNotes(RemoteTarget& target, Output& output) {
    const auto lost = [&target, &output](const std::string& reason) {
      output.note(fmt::format("broker {}: {}; watching goes on when the broker is back", target.broker(), reason));
    };
    const auto back = [&target, &output] { output.note(fmt::format("broker {} is back", target.broker())); };
    target.session().connectionLost.connect(mw::SignalSubscriber(lost).track(lifetime_.token()));
    target.session().connectionRestored.connect(mw::SignalSubscriber(back).track(lifetime_.token()));
  }
  LossNotes(const LossNotes&) = delete;
  LossNotes& operator=(const LossNotes&) = delete;
  ~LossNotes() { lifetime_.destroy(); }

 private:
  mw::Lifetime lifetime_;
};

/// Standard output where its reader can go away; -1 elsewhere, for a terminal can be read from through it.
int pipeOfOutput() {
  struct stat status {};
  return fstat(STDOUT_FILENO, &status) == 0 && S_ISFIFO(status.st_mode) ? STDOUT_FILENO : -1;
}

/// Returns when a signal arrives, nobody reads any more, or the watches have come to their end.
void awaitEnd(const StopSignals& signals, const Watches& watches) {
  using std::chrono::milliseconds;
  constexpr std::chrono::nanoseconds kLongest = std::chrono::hours(24 * 24);  // That poll can wait for.
  const auto limit = watches.duration();
  const milliseconds timeout = limit ? std::chrono::ceil<milliseconds>(std::min(*limit, kLongest)) : milliseconds(-1);
  const int ready = waitReadable({signals.file(), pipeOfOutput(), watches.endedFile()}, timeout);
  if (ready == 1) std::cout.setstate(std::ios::badbit);
}

int runCommand(const Command& command, const RemoteOptions& options, Arguments& arguments) {
  // Before there are threads, and only where the signals are waited for: elsewhere they simply end the process.
  std::optional<StopSignals> signals;
  if (command.use == Use::Lasting) signals.emplace();
  silenceLog();
  Output output(std::cout, std::cerr);
  if (isatty(STDERR_FILENO)) output.showStatus();
  FileLines input(STDIN_FILENO, -1);
  RemoteTarget target(options.broker, options.patience());
  Watches watches(output);
  Context context{target, output, watches, &input};
  if (!signals) {
    execute(command, context, arguments, target);
    return kDone;
  }
  const LossNotes notes(target, output);
  execute(command, context, arguments, target);
  awaitEnd(*signals, watches);
  return kDone;
}

std::string_view groupOf(const Command& command) {
  const auto isIn = [&](std::span<const Command> group) {
    return std::ranges::count(group, command.name, &Command::name) > 0;
  };
  if (isIn(valueCommands())) return "Values of a running broker";
  if (isIn(eventCommands())) return "Events of a running broker";
  if (isIn(watchCommands()) || isIn(freshnessCommands()) || isIn(inspectCommands()) || isIn(recordingCommands()))
    return "What goes on in a running broker";
  if (isIn(transferCommands())) return "Whole sets of keys";
  return "Services of a running broker";
}

Verb verbOf(const Command& command) {
  const auto options = std::make_shared<RemoteOptions>();
  const auto addOptions = [options, &command](CLI::App& app) {
    for (const Option& option : command.options) {
      const std::string name(option.name);
      auto* const added = option.value.empty() ? app.add_flag(name) : app.add_option(name);
      added->description(std::string(option.summary))->type_name(std::string(option.value));
    }
    addRemote(app, *options);
  };
  const auto run = [options, &command](Arguments& arguments) { return runCommand(command, *options, arguments); };
  return {command.name,      command.arguments, command.summary,
          command.details,   command.example,   groupOf(command),
          kStatusesOfAsking, addOptions,        run};
}

int runTop(const RemoteOptions& options, Arguments& arguments) {
  const std::string filter = arguments.atEnd() ? "" : arguments.word("FILTER");
  arguments.end();
  const StopSignals signals;
  silenceLog();
  Output output(std::cout, std::cerr);
  RemoteTarget target(options.broker, options.patience());
  runLiveView(target, output, target.broker(), filter, signals.file());
  return kDone;
}

Verb topVerb() {
  const auto options = std::make_shared<RemoteOptions>();
  const auto addOptions = [options](CLI::App& app) { addRemote(app, *options); };
  const auto run = [options](Arguments& arguments) { return runTop(*options, arguments); };
  return {"top",
          "[FILTER]",
          "Shows the keys that contain FILTER, or all, as they change.",
          "A table of each key's value, the age of it, how often it changes and how many modules subscribe. On a "
          "terminal:\n"
          "  /                 type a filter; Enter keeps it, Escape drops it\n"
          "  k v a r s         sort by key, value, age, rate, subscribers; again to turn it round\n"
          "  arrows, Page, Home, End  scroll\n"
          "  q                 leave\n"
          "Elsewhere all of it is printed once a second.\n"
          "\n"
          "What changes is shown at once. The rate is counted, over one second where there is much to count and up to\n"
          "ten where there is little. A red age with ! is that of a key that is overdue; see korvo expect.",
          "top\n"
          "top Host/",
          "Values of a running broker",
          kStatusesOfAsking,
          addOptions,
          run};
}

}  // namespace

std::vector<Verb> remoteVerbs() {
  std::vector<Verb> all;
  for (const Command& command : commands()) {
    if (command.use != Use::Console) all.push_back(verbOf(command));
  }
  const auto firstOther = std::ranges::find_if(all, [&](const Verb& verb) { return verb.group != all.front().group; });
  all.insert(firstOther, topVerb());
  return all;
}

}  // namespace korvo
