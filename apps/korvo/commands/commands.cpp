#include "commands.h"

#include "arguments.h"
#include "base/format.h"
#include "base/output.h"
#include "base/suggestion.h"

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
  output.line("Options may stand anywhere; a word -- ends them.");
  output.line("Values are printed as JSON, one line each; lists of names one name a line.");
}

void describeCommand(Output& output, const std::string& name) {
  const Command* command = findCommand(name);
  if (!command) throw InputError(noSuchCommand(name));
  output.line(synopsis(*command));
  output.line(fmt::format("  {}", command->summary));
  for (std::string_view rest = command->details; !rest.empty();) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    output.line(fmt::format("  {}", rest.substr(0, end)));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  for (const Option& option : command->options) {
    const std::string given = fmt::format("{}{}{}", option.name, option.value.empty() ? "" : " ", option.value);
    output.line(fmt::format("  {:<14}{}", given, option.summary));
  }
  output.line(fmt::format("  Example: {}", consoleExample(*command)));
}

void help(Context& context, Arguments& arguments) {
  if (arguments.atEnd()) return listCommands(context.output);
  const std::string name = arguments.word("COMMAND");
  arguments.end();
  describeCommand(context.output, name);
}

void leave(Context& context, Arguments& arguments) {
  arguments.end();
  context.leaves = true;
}

constexpr std::array kConsoleCommands{
    Command{"help", "[COMMAND]", "Lists the commands, or tells more of one.", "", "help get", help, {}, Use::Console},
    Command{"exit", "", "Ends the console, as Ctrl-D does.", "", "exit", leave, {}, Use::Console},
    Command{"quit", "", "Ends the console, as Ctrl-D does.", "", "quit", leave, {}, Use::Console},
};

std::vector<std::string> commandNames() {
  std::vector<std::string> names;
  names.reserve(commands().size());
  for (const Command& command : commands()) names.emplace_back(command.name);
  return names;
}

}  // namespace

const std::vector<Command>& commands() {
  static const std::vector<Command> all = [] {
    std::vector<Command> joined;
    for (const auto group : {valueCommands(), eventCommands(), watchCommands(), freshnessCommands(), inspectCommands(),
                             recordingCommands(), keeperCommands(), serviceCommands(), transferCommands(),
                             std::span<const Command>(kConsoleCommands)}) {
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

std::string noSuchCommand(std::string_view name) {
  const std::string suggestion = didYouMean(name, commandNames());
  return fmt::format("no command {}{}", excerpt(name), suggestion.empty() ? "; help lists them" : suggestion);
}

std::string Context::shown(std::string_view name) const {
  return formatName(name, isConsole() ? NameReader::Console : NameReader::Shell);
}

std::string synopsis(const Command& command) {
  return fmt::format("{}{}{}", command.name, command.arguments.empty() ? "" : " ", command.arguments);
}

}  // namespace korvo
