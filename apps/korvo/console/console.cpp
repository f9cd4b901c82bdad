#include "console.h"

#include "base/format.h"
#include "base/output.h"
#include "base/target.h"
#include "commands/arguments.h"
#include "linesource.h"

#include <algorithm>
#include <stdexcept>

#include <fmt/format.h>

namespace korvo {
namespace {

std::string_view withoutLineEnd(std::string_view line) {
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

}  // namespace

void Console::run(LineSource& lines) {
  while (context_.output.works() && !context_.leaves) {
    try {
      const auto line = lines.next();
      if (!line) return;
      execute(*line);
    } catch (const InputError& error) {
      context_.output.error(error.what());
    }
  }
}

void Console::execute(std::string_view line) noexcept {
  try {
    dispatch(withoutLineEnd(line));
  } catch (const std::exception& error) {
    context_.output.error(error.what());
  } catch (...) {
    context_.output.error("unknown exception");
  }
}

void Console::dispatch(std::string_view line) {
  requireText(line, "the line");
  Arguments arguments(line);
  if (arguments.atEnd()) return;
  const std::string name = arguments.word("COMMAND");
  const Command* command = findCommand(name);
  if (!command) throw InputError(noSuchCommand(name));
  try {
    arguments.takeOptions(command->options);
    command->run(context_, arguments);
  } catch (const InputError& error) {
    throw InputError(fmt::format("{}: {} (usage: {})", name, error.what(), synopsis(*command)));
  }
}

std::vector<std::string> Console::complete(std::string_view line) {
  const std::size_t begin = line.find_last_of(" \t") + 1;  // npos + 1 is 0
  const std::string_view word = line.substr(begin);
  std::vector<std::string> found;
  if (line.find_first_not_of(" \t") >= begin) {
    for (const Command& command : commands()) found.emplace_back(command.name);
  } else if (context_.target.find("HXMemory")) {
    found = context_.target.keys("");
  }
  std::erase_if(found, [&](const std::string& name) {
    return !name.starts_with(word) || formatName(name, NameReader::Console) != name;
  });
  std::ranges::sort(found);
  return found;
}

}  // namespace korvo
