#pragma once

#include "arguments.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

class LineSource;
class Output;
class Target;
class Watches;

/// What a command works with.
struct Context {
  Target& target;
  Output& output;
  Watches& watches;
  LineSource* input = nullptr;  ///< What `-` stands for among the arguments; null for a console, which reads it itself.
  int stop = -1;                ///< A command that goes on by itself ends as soon as this file is readable.
  bool leaves = false;          ///< The console was asked to end.

  bool isConsole() const { return !input; }
  /// A name as it is printed for whoever reads it there.
  std::string shown(std::string_view name) const;
};

/// Where a command is of use.
enum class Use {
  Everywhere,
  Console,  ///< Only among other lines.
  Lasting,  ///< Everywhere; as a program of its own it goes on until it is interrupted.
};

/// One command, of the console and of the command line alike. It reads its arguments to their end before it does
/// anything, prints its result on the context's output, and throws what went wrong.
struct Command {
  std::string_view name;
  std::string_view arguments;  ///< As in the synopsis: "KEY [TEXT]".
  std::string_view summary;    ///< One line.
  std::string_view details;    ///< More lines, or none.
  std::string_view
      example;  ///< What follows `korvo` in a shell; without its single quotes it is a line of the console.
  void (*run)(Context& context, Arguments& arguments);
  std::span<const Option> options = {};
  Use use = Use::Everywhere;
};

// The commands by what they are about, each group in a source of its own name.
std::span<const Command> valueCommands();
std::span<const Command> eventCommands();
std::span<const Command> watchCommands();
std::span<const Command> freshnessCommands();
std::span<const Command> keeperCommands();
std::span<const Command> inspectCommands();
std::span<const Command> serviceCommands();
std::span<const Command> transferCommands();
std::span<const Command> recordingCommands();

/// All of them, `help` included, in the order in which help lists them.
const std::vector<Command>& commands();
/// @return Null when there is none of that name.
const Command* findCommand(std::string_view name);
/// What is wrong with a line that asks for `name`.
std::string noSuchCommand(std::string_view name);
/// "set KEY JSON"
std::string synopsis(const Command& command);

/// What most commands that print something offer.
inline constexpr Option kJson{"--json", "", "Print each result as one object of JSON, a line each"};
inline constexpr Option kJsonOnly[] = {kJson};

}  // namespace korvo
