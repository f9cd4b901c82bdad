#include "base/format.h"
#include "base/output.h"
#include "checkmap.h"
#include "checkrobot.h"
#include "commands/arguments.h"
#include "commands/commands.h"
#include "fileoptions.h"
#include "host.h"
#include "line/brokername.h"
#include "line/help.h"
#include "line/repeatedoption.h"
#include "line/verbs.h"
#include "robot/loglevels.h"
#include "run.h"
#include "settingsverb.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <span>
#include <stdexcept>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <fmt/format.h>

namespace korvo {
namespace {

constexpr std::string_view kGroup = "In this terminal";

std::string checkLevel(const std::string& name) {
  if (std::ranges::count(levelNames(), name)) return {};
  return fmt::format("no level {}; there is {}", excerpt(name), fmt::join(levelNames(), ", "));
}

std::string checkJournal(const std::string& word) {
  return word == "keep" ? std::string() : fmt::format("what is {}? There is keep", excerpt(word));
}

CLI::Option* addModules(CLI::App& app, HostingOptions& options) {
  return addRepeated(app, "--module", options.modules, "Load a module library; may be repeated", "LIBRARY");
}

void addHosting(CLI::App& app, const std::shared_ptr<HostingOptions>& options) {
  addRepeated(app, "--data-dir", options->dataDirs, "Look for data files here first; may be repeated, first one first",
              "DIR")
      ->check(CLI::Validator(CLI::ExistingDirectory).description(""));
  addRepeated(app, "--set", options->sets,
              "Set a setting of a module that is loaded, over the file's: camera.period=20ms; may be repeated",
              "MODULE.SETTING=VALUE");
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

void addRunOptions(CLI::App& app, const std::shared_ptr<RunOptions>& options) {
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
  addRepeated(
      app, "--keep", options->kept,
      "Keep what is stored under these names across restarts, in the first --data-dir: a key, a prefix that ends "
      "with /, or a glob; may be repeated",
      "PATTERN")
      ->excludes(noMemory);
  auto* fleet = app.add_option("--fleet", options->fleet,
                               "Be one of the fleet at this hub: tls://HOST:PORT, several with commas between them")
                    ->type_name("URL")
                    ->excludes(noMemory)
                    ->excludes(noJournal);
  app.add_option("--robot", options->robot, "What this robot is called in the fleet; else the machine's name")
      ->type_name("NAME")
      ->needs(fleet);
  addRepeated(app, "--follow", options->follow,
              "Another robot of the fleet, whose values, events and services are here too, under its name; may be "
              "repeated",
              "ROBOT")
      ->needs(fleet);
  auto* blackBox =
      app.add_option("--black-box", options->blackBox,
                     "Keep the last moments, and write those before and after an event to a file in recordings/")
          ->type_name("BEFORE:AFTER")
          ->excludes(noMemory);
  addRepeated(app, "--when", options->when, "The event: a key, a prefix that ends with /, or a glob; may be repeated",
              "EVENT")
      ->needs(blackBox);
  addHosting(app, options);
}

/// The module that makes this robot one of a fleet, set to what the command line says.
void takeFleet(RunOptions& options) {
  const std::string module = "fleet";
  if (options.fleet.empty()) return;
  HX::GivenSettings& given = options.settings[module];
  given.entries["url"] = {options.fleet, {}, {}, nullptr};
  if (!options.robot.empty()) given.entries["robot"] = {options.robot, {}, {}, nullptr};
  if (!options.follow.empty()) {
    given.entries["follow"] = {HX::HXValue::list({options.follow.begin(), options.follow.end()}), {}, {}, nullptr};
  }
  if (std::ranges::count(options.modules, module) == 0) options.modules.push_back(module);
}

constexpr const char* kRunDetails =
    "FILE says what to run, in TOML: these options by their names, each module with its settings as a table\n"
    "[modules.NAME], signals that are raised as events in [maps], levels by category in [log-levels]. An option of\n"
    "the command line wins over the file's; modules and folders are added. korvo check FILE says what is wrong\n"
    "with one, and what it would run. A module that is given a setting that it does not have, or a wrong one, ends\n"
    "the start, with exit status 2.\n"
    "\n"
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
    "module it has waited, and ends with exit status 1.";

Verb runVerb() {
  const auto options = std::make_shared<RunOptions>();
  const auto file = std::make_shared<RobotFile>();
  const auto readFile = [file](const CLI::App& known, GivenWords& given) {
    if (given.arguments.empty()) return;
    requireRobotFile(given.arguments.front(), known);
    Robot robot = readRobot(given.arguments.front());
    addOptionWords(robot.words, known, given);
    *file = std::move(robot.file);
  };
  const auto start = [options, file](Arguments& arguments) {
    if (!arguments.atEnd()) arguments.word("FILE");
    arguments.end();
    options->logLevels = file->logLevels;
    options->maps = file->maps;
    if (!options->memory) requireMemoryForMaps(*file);
    takeModules(*file, true, *options);
    takeFleet(*options);
    takeSets(*file, librariesOf(*options), *options);
    return run(*options);
  };
  return {
      "run",
      "[FILE]",
      "Hosts a broker: loads its memory and modules, and runs until told to stop.",
      kRunDetails,
      "run --name torso --module arm --module ./build/libhead.so\n"
      "run robot.toml --log-level debug\n"
      "run --console < commands.txt\n"
      "run --module ./libarm.so --live\n"
      "run --no-memory --module ./libmine.so --log-level debug",
      kGroup,
      "0    ended in order\n"
      "1    no module could be loaded, or not the memory, or with --strict not all; a broker of that name is running; "
      "or\n"
      "     the end took too long\n"
      "2    wrong usage, or wrong settings\n"
      "130  ended at once by a second SIGINT\n",
      [options](CLI::App& app) { addRunOptions(app, options); },
      start,
      readFile};
}

Verb hostVerb() {
  const auto options = std::make_shared<HostOptions>();
  const auto addOptions = [options](CLI::App& app) {
    addModules(app, *options)->required();
    app.add_option("--broker", options->broker, kBrokerHelp)
        ->check(CLI::Validator(checkBrokerName, ""))
        ->type_name("NAME");
    app.add_option("--settings",
                   "Take the modules' settings from a file of korvo run, and its options that are also these")
        ->type_name("FILE");
    addHosting(app, options);
  };
  const auto file = std::make_shared<RobotFile>();
  const auto readFile = [file](const CLI::App& known, GivenWords& given) { *file = readSettingsFile(known, given); };
  const auto start = [options, file](Arguments& arguments) {
    arguments.end();
    options->logLevels = file->logLevels;
    takeModules(*file, false, *options);
    takeSets(*file, options->modules, *options);
    return host(*options);
  };
  return {
      "host",
      "",
      "Hosts modules in a process of their own, for a running broker.",
      "The modules find the memory and everybody else by name, as in the broker's own process, and are found. What\n"
      "goes wrong in them cannot take the broker along. With --settings they get the same settings as there.\n"
      "\n"
      "A file of Python, arm.py, is hosted by python3, with its package korvo: one of each class of modules that it\n"
      "has. Of the options that takes --broker.\n"
      "\n"
      "Runs until SIGINT (Ctrl-C) or SIGTERM. When the broker is lost, the modules stay and find its services again\n"
      "once it is back; both are told on standard error.",
      "host --module ./build/libarm.so\n"
      "host --broker torso --module arm --module hand\n"
      "host --settings robot.toml --module camera\n"
      "host --module ./arm.py",
      kGroup,
      "0    ended in order\n"
      "1    no module could be loaded, or with --strict not all\n"
      "2    wrong usage, or wrong settings\n"
      "3    there is no broker to join\n"
      "130  ended at once by a second SIGINT\n",
      addOptions,
      start,
      readFile};
}

Verb checkVerb() {
  const auto check = [](Arguments& arguments) {
    const std::string file = arguments.word("FILE");
    arguments.end();
    Output output(std::cout, std::cerr);
    return checkRobot(file, output);
  };
  return {
      "check",
      "FILE",
      "Says what is wrong with a file of korvo run, and what it would run.",
      "Every fault is one line with file, line and column. The modules are constructed to ask for their settings, and\n"
      "dropped before they do anything.\n"
      "\n"
      "A file in order is printed as the command line that does the same, and the modules with all their settings.",
      "check robot.toml",
      kGroup,
      "0  in order\n1  something is wrong with it, or it cannot be read\n2  wrong usage\n",
      {},
      check};
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

/// The program that has it takes the words as they are.
int runFleet(std::span<const std::string> words) {
  std::string self(PATH_MAX, '\0');
  const auto length = ::readlink("/proc/self/exe", self.data(), self.size());
  self.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  const std::string program = self.substr(0, self.rfind('/') + 1) + "korvo-fleet";
  std::vector<char*> all{const_cast<char*>(program.c_str())};  // As execv has it.
  for (const std::string& word : words) all.push_back(const_cast<char*>(word.c_str()));
  all.push_back(nullptr);
  ::execv(program.c_str(), all.data());
  throw std::runtime_error(fmt::format("there is no {}: the package korvo-fleet brings it", program));
}

Verb fleetVerb() {
  return {
      "fleet",
      "SUBCOMMAND",
      "Sees and drives the robots of a fleet, and makes hubs for it.",
      "A robot is one of a fleet by korvo run --fleet URL --robot NAME. The commands are those of a program of its\n"
      "own, which korvo fleet --help lists: demo and hub for a hub on this machine, init, key and doctor for one\n"
      "elsewhere; ls, get, list, watch, set, raise, call, history and top for the robots.",
      "fleet demo\n"
      "fleet ls\n"
      "fleet get robot1/Battery/Level\n"
      "fleet watch 'robot*/Battery/**'\n"
      "fleet set --when-online robot2/Speed 0.5",
      kGroup,
      "0  done\n1  what was asked for failed\n2  wrong usage\n3  the robot or the hub cannot be reached\n",
      {},
      {},
      {},
      runFleet};
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

std::vector<Verb> hostingVerbs() {
  return {runVerb(),      hostVerb(),    webVerb(),      fleetVerb(), checkVerb(),
          settingsVerb(), brokersVerb(), checkMapVerb(), helpVerb()};
}

}  // namespace korvo
