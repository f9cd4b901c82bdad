#include "commands.h"

#include "arguments.h"
#include "format.h"
#include "output.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>

namespace korvo {
namespace {

/// A shell needs quotes around JSON, the console has no use for them.
std::string consoleExample(const Command& command) {
  std::string example(command.example);
  std::erase(example, '\'');
  return example;
}

void listCommands(Output& output) {
  for (const Command& command : commands()) output.line(fmt::format("{:<34}{}", synopsis(command), command.summary));
  output.line("");
  output.line("KEY and other names are bare words, or JSON strings where they have blanks: get \"Left arm\".");
  output.line("JSON is one JSON text, blanks included: set Pose {\"x\": 1, \"y\": [2, 3]}.");
  output.line("Values are printed as JSON, one line each; lists of names one name a line.");
}

void describeCommand(Output& output, const std::string& name) {
  const Command* command = findCommand(name);
  if (!command) throw InputError(fmt::format("no command {}", excerpt(name)));
  output.line(synopsis(*command));
  output.line(fmt::format("  {}", command->summary));
  for (std::string_view rest = command->details; !rest.empty();) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    output.line(fmt::format("  {}", rest.substr(0, end)));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  output.line(fmt::format("  Example: {}", consoleExample(*command)));
}

void help(Context& context, Arguments& arguments) {
  if (arguments.atEnd()) return listCommands(context.output);
  const std::string name = arguments.word("COMMAND");
  arguments.end();
  describeCommand(context.output, name);
}

constexpr std::array kHelp{
    Command{"help", "[COMMAND]", "Lists the commands, or tells more of one.", "", "help get", help, {}, Use::Console}};

}  // namespace

const std::vector<Command>& commands() {
  static const std::vector<Command> all = [] {
    std::vector<Command> joined;
    for (const auto group :
         {valueCommands(), eventCommands(), serviceCommands(), transferCommands(), std::span<const Command>(kHelp)}) {
      joined.insert(joined.end(), group.begin(), group.end());
    }
    return joined;
  }();
  return all;
}

const Command* findCommand(std::string_view name) {
  const auto found = std::ranges::find(commands(), name, &Command::name);
  return found == commands().end() ? nullptr : &*found;
}

std::string synopsis(const Command& command) {
  return fmt::format("{}{}{}", command.name, command.arguments.empty() ? "" : " ", command.arguments);
}

}  // namespace korvo
