#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

class Arguments;
class Output;
class Target;
class Watches;

/// What a command works with.
struct Context {
  Target& target;
  Output& output;
  Watches& watches;
};

/// One command of the console. It reads its arguments to the end of the line before it does anything, prints its result
/// on the context's output, and throws what went wrong.
struct Command {
  std::string_view name;
  std::string_view arguments;  ///< As in the synopsis: "KEY [TEXT]".
  std::string_view summary;    ///< One line.
  std::string_view details;    ///< More lines, or none.
  void (*run)(Context& context, Arguments& arguments);
};

// The commands by what they are about, each group in a source of its own name.
std::span<const Command> valueCommands();
std::span<const Command> eventCommands();
std::span<const Command> serviceCommands();

/// All of them, `help` included, in the order in which help lists them.
const std::vector<Command>& commands();
/// @return Null when there is none of that name.
const Command* findCommand(std::string_view name);
/// "set KEY JSON"
std::string synopsis(const Command& command);

}  // namespace korvo
