#include "commandline.h"

#include "base/format.h"
#include "commands/arguments.h"
#include "help.h"
#include "verbs.h"

#include <hxcommon/settings.h>
#include <libmw/local.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <memory>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace korvo {
namespace {

using Words = std::vector<std::string>;

int fail(ExitStatus status, std::string_view message) {
  std::cerr << "error: " << escapeControls(message) << '\n';
  return status;
}

/// What is wrong in a file of settings, which is as wrong as a command line.
int fail(const HX::SettingsError& error) {
  for (const std::string& problem : error.problems()) fail(kWrongUsage, problem);
  return kWrongUsage;
}

/// Whether standard output is a pipe that nobody reads any more.
bool readerHasGone() {
  pollfd output{STDOUT_FILENO, 0, 0};
  return poll(&output, 1, 0) == 1 && (output.revents & POLLERR) != 0;
}

/// Ends the program as everybody ends whose reader has gone (`korvo top | head`): quietly, by the signal for it.
void endBehindReader() {
  std::signal(SIGPIPE, SIG_DFL);
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
  std::raise(SIGPIPE);
}

/// What stays in the buffer of a full disk was not done.
int withAllWritten(int status) {
  const bool isWritten = static_cast<bool>(std::cout.flush());
  if (!isWritten && readerHasGone()) endBehindReader();
  return isWritten || status != kDone ? status : fail(kFailed, "standard output cannot be written");
}

int runVerb(const Verb& verb, std::span<const std::string> words) {
  if (verb.takeOver) return verb.takeOver(words);
  const auto options = optionsOf(verb);
  GivenWords given = tellApart(*options, words);
  if (verb.readFile) verb.readFile(*options, given);
  try {
    std::ranges::reverse(given.options);  // It takes them from the end.
    options->parse(given.options);
  } catch (const CLI::CallForHelp&) {
    std::cout << helpOn(verb);
    return kDone;
  } catch (const CLI::ParseError& error) {
    throw InputError(error.what());
  }
  Arguments arguments(std::move(given.arguments), std::move(given.values));
  mw::setProgramName(fmt::format("korvo {}", verb.name));
  return verb.run(arguments);
}

int runWords(std::span<const std::string> words) {
  if (words.empty()) return fail(kWrongUsage, "a command is missing; korvo --help lists them");
  const std::string& name = words.front();
  if (name == "--help" || name == "-h") {
    std::cout << helpOnAll();
    return kDone;
  }
  if (name == "--version") {
    std::cout << "korvo " KORVO_VERSION "\n";
    return kDone;
  }
  const Verb* const verb = findVerb(name);
  if (!verb) return fail(kWrongUsage, noSuchVerb(name));
  try {
    return runVerb(*verb, words.subspan(1));
  } catch (const InputError& error) {
    return fail(kWrongUsage, fmt::format("{}: {} (usage: korvo {}; korvo {} --help tells more)", name, error.what(),
                                         synopsis(*verb), name));
  }
}

}  // namespace

int runProgram(int argc, const char* const* argv) {
  try {
    return withAllWritten(runWords(Words(argv + 1, argv + argc)));
  } catch (const HX::SettingsError& error) {
    return fail(error);
  } catch (const mw::NoBrokerError& error) {
    return fail(kNoBroker, error.what());
  } catch (const std::exception& error) {
    return fail(kFailed, error.what());
  }
}

}  // namespace korvo
