#include "arguments.h"
#include "brokername.h"
#include "checkmap.h"
#include "commands.h"
#include "format.h"
#include "help.h"
#include "host.h"
#include "output.h"
#include "run.h"
#include "verbs.h"

#include <algorithm>
#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace korvo {
namespace {

constexpr std::string_view kGroup = "In this terminal";

/// From silent to debug.
std::vector<std::string> levelNames() {
  std::vector<std::string> names;
  for (int level = 0; level <= static_cast<int>(mw::LogLevel::Debug); ++level) {
    names.emplace_back(mw::toString(static_cast<mw::LogLevel>(level)));
  }
  return names;
}

std::string checkLevel(const std::string& name) {
  if (std::ranges::count(levelNames(), name)) return {};
  return fmt::format("no level {}; there is {}", excerpt(name), fmt::join(levelNames(), ", "));
}

std::string checkJournal(const std::string& word) {
  return word == "keep" ? std::string() : fmt::format("what is {}? There is keep", excerpt(word));
}

mw::LogLevel levelOf(const std::string& name) {
  const auto names = levelNames();
  return static_cast<mw::LogLevel>(std::ranges::find(names, name) - names.begin());
}

/// Each option that may be repeated takes one value at a time, so that it cannot swallow what follows.
CLI::Option* addRepeated(CLI::App& app, const char* name, std::vector<std::string>& values, const char* help,
                         const char* placeholder) {
  return app.add_option(name, values, help)->allow_extra_args(false)->type_name(placeholder);
}

CLI::Option* addModules(CLI::App& app, HostingOptions& options) {
  return addRepeated(app, "--module", options.modules, "Load a module library; may be repeated", "LIBRARY");
}

void addHosting(CLI::App& app, const std::shared_ptr<HostingOptions>& options) {
  addRepeated(app, "--data-dir", options->dataDirs, "Look for data files here first; may be repeated, first one first",
              "DIR")
      ->check(CLI::Validator(CLI::ExistingDirectory).description(""));
  app.add_flag("--strict", options->strict, "Fail when a module cannot be loaded, instead of running without it");
  app.add_option_function<std::string>(
         "--log-level", [options](const std::string& name) { options->logLevel = levelOf(name); },
         "Show records up to this level on standard error: " + fmt::format("{}", fmt::join(levelNames(), ", ")))
      ->check(CLI::Validator(checkLevel, ""))
      ->type_name("LEVEL")
      ->default_str("info");
  app.add_option_function<double>(
         "--end-within",
         [options](double seconds) {
           options->endLimit = std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
         },
         "End at the latest so long after being told to, whatever modules do; 0 waits for them without end")
      ->check(CLI::Range(0.0, 1e6))
      ->type_name("SECONDS")
      ->default_str(fmt::format("{}", HostingOptions::kEndLimit.count()));
}

Verb runVerb() {
  const auto options = std::make_shared<RunOptions>();
  const auto addOptions = [options](CLI::App& app) {
    app.add_option("--name", options->name, "Name of the broker")
        ->check(CLI::Validator(checkBrokerName, ""))
        ->type_name("NAME")
        ->capture_default_str();
    addModules(app, *options);
    auto* noMemory = app.add_flag_callback(
        "--no-memory", [options] { options->memory = false; }, "Do not load the memory");
    auto* noJournal = app.add_flag_callback(
        "--no-journal", [options] { options->journal = false; },
        "Do not offer the memory's changes to other processes, and expect no keys");
    app.add_option_function<std::string>(
           "--journal", [options](const std::string& /*keep*/) { options->keep = true; },
           "Record changes always, so that who comes back can go on after any time: keep")
        ->check(CLI::Validator(checkJournal, ""))
        ->type_name("keep")
        ->excludes(noMemory)
        ->excludes(noJournal);
    auto* console = app.add_flag("--console", options->console, "Execute commands from standard input until it ends");
    app.add_flag("--live", options->live, "Show the memory as it changes; needs it, and not with --console")
        ->excludes(console)
        ->excludes(noMemory);
    addHosting(app, options);
  };
  const auto start = [options](Arguments& arguments) {
    arguments.end();
    return run(*options);
  };
  return {
      "run",
      "",
      "Hosts a broker: loads its memory and modules, and runs until told to stop.",
      "A module library is a path with a slash in it, or a name: lib<name>.so is looked for in the folders of\n"
      "KORVO_MODULE_PATH and in the installed ones. One that cannot be loaded is reported, and the others are loaded;\n"
      "with --strict nothing runs then, and the exit status is 1. Without its memory the broker ends.\n"
      "\n"
      "Beside the memory it loads the module journal, through which other processes follow the changes of the\n"
      "memory (korvo methods HXJournal), and the module freshness, which tells of keys that are not written in time\n"
      "(korvo expect); --no-journal goes without both.\n"
      "\n"
      "Other processes of this user reach the broker under its name once its modules are loaded; there is one of a\n"
      "name at a time. Its service \"Broker\" loads modules, lists them and ends the broker: korvo methods Broker.\n"
      "\n"
      "The broker ends with SIGINT (Ctrl-C) or SIGTERM, when its service is asked to stop, with the end of the input\n"
      "of its console, or when its live view is left; the modules leave in the reverse order. A second SIGINT ends\n"
      "it at once, with exit status 130. When the end takes longer than --end-within says, the broker says for which\n"
      "module it has waited, and ends with exit status 1.",
      "run --name torso --module arm --module ./build/libhead.so\n"
      "run --console < commands.txt\n"
      "run --module ./libarm.so --live\n"
      "run --no-memory --module ./libmine.so --log-level debug",
      kGroup,
      "0    ended in order\n"
      "1    no module could be loaded, or not the memory, or with --strict not all; a broker of that name is running; "
      "or\n"
      "     the end took too long\n"
      "2    wrong usage\n"
      "130  ended at once by a second SIGINT\n",
      addOptions,
      start};
}

Verb hostVerb() {
  const auto options = std::make_shared<HostOptions>();
  const auto addOptions = [options](CLI::App& app) {
    addModules(app, *options)->required();
    app.add_option("--broker", options->broker, kBrokerHelp)
        ->check(CLI::Validator(checkBrokerName, ""))
        ->type_name("NAME");
    addHosting(app, options);
  };
  const auto start = [options](Arguments& arguments) {
    arguments.end();
    return host(*options);
  };
  return {
      "host",
      "",
      "Hosts modules in a process of their own, for a running broker.",
      "The modules find the memory and everybody else by name, as in the broker's own process, and are found. What\n"
      "goes wrong in them cannot take the broker along.\n"
      "\n"
      "Runs until SIGINT (Ctrl-C) or SIGTERM. When the broker is lost, the modules stay and find its services again\n"
      "once it is back; both are told on standard error.",
      "host --module ./build/libarm.so\n"
      "host --broker torso --module arm --module hand",
      kGroup,
      "0    ended in order\n"
      "1    no module could be loaded, or with --strict not all\n"
      "2    wrong usage\n"
      "3    there is no broker to join\n"
      "130  ended at once by a second SIGINT\n",
      addOptions,
      start};
}

Verb checkMapVerb() {
  const auto check = [](Arguments& arguments) {
    const std::string file = arguments.word("FILE");
    arguments.end();
    return checkMap(file, std::cout, std::cerr);
  };
  return {"check-map",
          "FILE",
          "Says of each line of a signal-to-event map what the memory makes of it.",
          "A line of the map is SERVICE.SIGNAL : EVENT, with # before a comment; blanks do not count.\n"
          "Prints for each line one of\n"
          "  N: accepted SERVICE SIGNAL EVENT\n"
          "  N: rejected: REASON\n"
          "  N: nothing                              for a blank or a comment\n"
          "The memory reads lines of more than 511 characters in pieces, which are N.1, N.2, …",
          "check-map ~/.local/share/korvo/hxmemory_map_signal_event.txt",
          kGroup,
          "0  every line is accepted\n1  a line was rejected\n2  wrong usage, or the file cannot be read\n",
          {},
          check};
}

Verb helpVerb() {
  const auto help = [](Arguments& arguments) {
    const std::string name = arguments.atEnd() ? "" : arguments.word("COMMAND");
    arguments.end();
    const Verb* const verb = findVerb(name);
    if (!name.empty() && !verb) throw InputError(noSuchVerb(name));
    std::cout << (verb ? helpOn(*verb) : helpOnAll());
    return 0;
  };
  return {"help",
          "[COMMAND]",
          "Lists the commands, or tells more of one.",
          "",
          "help get",
          kGroup,
          "0  done\n2  wrong usage\n",
          {},
          help};
}

Verb brokersVerb() {
  const auto addOptions = [](CLI::App& app) { app.add_flag("--json")->description(std::string(kJson.summary)); };
  const auto list = [](Arguments& arguments) {
    arguments.end();
    Output output(std::cout, std::cerr);
    listBrokers(output, arguments.has("--json"));
    return 0;
  };
  return {"brokers",
          "",
          "Lists the brokers of this user that are running: name, process, since when, version.",
          "A broker that does not answer is listed too: none of them is asked.\n"
          "With --json as {\"broker\":NAME,\"process\":N,\"since\":TIME,\"version\":TEXT}.",
          "brokers",
          kGroup,
          kStatusesOfAll,
          addOptions,
          list};
}

}  // namespace

std::vector<Verb> hostingVerbs() { return {runVerb(), hostVerb(), brokersVerb(), checkMapVerb(), helpVerb()}; }

}  // namespace korvo
