#pragma once

#include "commands/arguments.h"

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace korvo {

/// What was given to a verb, told apart. Options may stand anywhere; a word `--` ends them. A word with a single hyphen
/// is an argument, for it may be a negative number, unless an option has that one letter.
struct GivenWords {
  std::vector<std::string> options;  ///< As they stand there.
  GivenOptions values;               ///< The same by their names.
  std::vector<std::string> arguments;
};

/// What a shell can ask the program for: `korvo NAME [OPTION...] ARGUMENTS`. The help, the manual pages and the
/// completion are made of it.
struct Verb {
  std::string_view name;
  std::string_view arguments;  ///< As in the synopsis: "KEY [TEXT]".
  std::string_view summary;    ///< One line.
  std::string_view details;    ///< More lines, or none; a blank line ends a paragraph.
  std::string_view examples;   ///< Lines, each what follows `korvo` in a shell.
  std::string_view group;      ///< Heading of the list that it is in.
  std::string_view statuses;   ///< Lines, each an exit status that it can have and what that means.
  /// Adds its options. What they are set to is kept for `run`, which follows.
  std::function<void(CLI::App& app)> addOptions;
  /// Does it. @return The exit status. Throws InputError for wrong usage, and what went wrong otherwise.
  std::function<int(Arguments& arguments)> run;
  /// Takes the options of a file that is among what was given, before they are parsed. None for most.
  std::function<void(const CLI::App& options, GivenWords& given)> readFile = {};
  /// Takes its words as they are, `--help` included, in the place of all of the above. None for most.
  std::function<int(std::span<const std::string> words)> takeOver = {};
};

/// All of them but those that only other programs use, in the order in which the help lists them.
const std::vector<Verb>& verbs();
/// @return Null when there is none of that name.
const Verb* findVerb(std::string_view name);
// What most verbs can end with.
inline constexpr std::string_view kStatusesOfAll = "0  done\n1  what was asked for failed\n2  wrong usage\n";
inline constexpr std::string_view kStatusesOfAsking =
    "0  done\n1  what was asked for failed\n2  wrong usage\n3  there is no broker to ask\n";

/// What is wrong in a command line that asks for `name`: "no command NAME; …".
std::string noSuchVerb(std::string_view name);

// The verbs by where they do their work, each group in a source of its own name.
std::vector<Verb> hostingVerbs();  ///< In this process.
Verb webVerb();                    ///< In this process too.
std::vector<Verb> remoteVerbs();   ///< In a running broker.
/// Adds those about recordings, of which two are what others of their names do for files.
void addRecordings(std::vector<Verb>& verbs);
std::vector<Verb> servantVerbs();  ///< For shells and for the build: not listed.

/// A verb whose options set nothing that another one reads, for trying them.
/// @param name  Of a verb that there is.
Verb freshVerb(std::string_view name);

/// An application of CLI11 with the options of `verb` and --help, to parse with or to ask.
std::unique_ptr<CLI::App> optionsOf(const Verb& verb);

/// "--json" and the like, the long ones.
std::vector<std::string> optionNames(const CLI::App& options);

/// @throws InputError for an option that there is not.
GivenWords tellApart(const CLI::App& options, std::span<const std::string> words);

}  // namespace korvo
