#include "commandline.h"

#include "checkmap.h"
#include "run.h"

#include <algorithm>
#include <cctype>
#include <clocale>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace korvo {
namespace {

constexpr int kWrongUsage = 2;

const char* const kExamples = R"(Examples:
  korvo run                                a broker with its memory, until Ctrl-C
  korvo run --console                      … that executes commands: try help
  korvo run --module ./libarm.so --live    … with a module, showing the memory as it changes
  korvo check-map map.txt                  what the memory makes of a signal-to-event map
  printf 'set Foo 1\nget Foo\n' | korvo run --console)";

const char* const kRunNotes =
    R"(A module library is a path with a slash in it, or a name: lib<name>.so is looked for in the folders of
KORVO_MODULE_PATH and in the installed ones. One that cannot be loaded is reported, and the others are loaded.

The broker ends with SIGINT (Ctrl-C) or SIGTERM, with the end of the input of its console, or when its live view is
left; the modules leave in the reverse order. A second SIGINT ends it at once.

Exit status: 0; 1 when none of the libraries could be loaded; 2 for wrong usage; 130 after a second SIGINT.

Examples:
  korvo run --name torso --module arm --module ./build/libhead.so
  korvo run --console < commands.txt
  korvo run --no-memory --module ./libmine.so --log-level debug)";

const char* const kCheckMapNotes =
    R"(A line of the map is SERVICE.SIGNAL : EVENT, with # before a comment; blanks do not count.
Prints for each line one of
  N: accepted SERVICE SIGNAL EVENT
  N: rejected: REASON
  N: nothing                              for a blank or a comment
The memory reads lines of more than 511 characters in pieces, which are N.1, N.2, …

Exit status: 0; 1 when something was rejected; 2 when the file cannot be read.

Example:
  korvo check-map ~/.local/share/korvo/hxmemory_map_signal_event.txt)";

/// What the chosen subcommand does.
using Action = std::function<int()>;

std::string checkName(const std::string& name) {
  const auto isPlain = [](unsigned char c) {
    return (c < 0x80 && std::isalnum(c)) || c == '-' || c == '_' || c == '.';
  };
  if (!name.empty() && std::ranges::all_of(name, isPlain) && name != "." && name != "..") return {};
  return "a name has letters, digits, '-', '_' and '.' only: " + name;
}

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
  return fmt::format("no level {}; there is {}", name, fmt::join(levelNames(), ", "));
}

mw::LogLevel levelOf(const std::string& name) {
  const auto names = levelNames();
  return static_cast<mw::LogLevel>(std::ranges::find(names, name) - names.begin());
}

/// Each option that may be repeated takes one value at a time, so that it cannot swallow what follows.
void addRepeated(CLI::App& app, const char* name, std::vector<std::string>& values, const char* help,
                 const char* placeholder, const CLI::Validator& check = {}) {
  app.add_option(name, values, help)->allow_extra_args(false)->check(check)->type_name(placeholder);
}

void addRun(CLI::App& program, Action& chosen) {
  auto options = std::make_shared<RunOptions>();
  CLI::App& app = *program.add_subcommand("run",
                                          "Hosts a broker: loads its memory and modules, and runs until told to "
                                          "stop.");
  app.footer(kRunNotes);
  app.add_option("--name", options->name, "Name of the broker")
      ->check(CLI::Validator(checkName, ""))
      ->type_name("NAME")
      ->capture_default_str();
  addRepeated(app, "--module", options->modules, "Loads a module library; may be repeated", "LIBRARY");
  auto* noMemory = app.add_flag_callback(
      "--no-memory", [options] { options->memory = false; }, "Does not load the memory");
  auto* console = app.add_flag("--console", options->console, "Executes commands from standard input until it ends");
  app.add_flag("--live", options->live, "Shows the memory as it changes; needs it, and not with --console")
      ->excludes(console)
      ->excludes(noMemory);
  addRepeated(app, "--data-dir", options->dataDirs, "Looks for data files here first; may be repeated, first one first",
              "DIR", CLI::ExistingDirectory);
  app.add_option_function<std::string>(
         "--log-level", [options](const std::string& name) { options->logLevel = levelOf(name); },
         "Shows records up to this level on standard error: " + fmt::format("{}", fmt::join(levelNames(), ", ")))
      ->check(CLI::Validator(checkLevel, ""))
      ->type_name("LEVEL")
      ->default_str("info");
  app.callback([&chosen, options] { chosen = [options] { return run(*options); }; });
}

void addCheckMap(CLI::App& program, Action& chosen) {
  auto file = std::make_shared<std::string>();
  CLI::App& app =
      *program.add_subcommand("check-map", "Says of each line of a signal-to-event map what the memory makes of it.");
  app.footer(kCheckMapNotes);
  app.add_option("FILE", *file, "The map file")->required();
  app.callback([&chosen, file] { chosen = [file] { return checkMap(*file, std::cout, std::cerr); }; });
}

}  // namespace

int runProgram(int argc, const char* const* argv) {
  // For the characters that a person types; numbers keep their dots.
  std::setlocale(LC_CTYPE, "");
  CLI::App program("Korvo: a shared memory of named values and events for the modules of a robot.", "korvo");
  program.set_version_flag("--version", "korvo " KORVO_VERSION);
  program.require_subcommand(1);
  program.footer(kExamples);
  Action chosen;
  addRun(program, chosen);
  addCheckMap(program, chosen);
  try {
    program.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return program.exit(error) == 0 ? 0 : kWrongUsage;
  }
  try {
    return chosen();
  } catch (const std::exception& error) {
    std::cerr << "error: " << error.what() << '\n';
    return 1;
  }
}

}  // namespace korvo
