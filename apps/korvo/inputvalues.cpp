#include "inputvalues.h"

#include "arguments.h"
#include "linesource.h"

#include <hxvalue/json.h>

#include <stdexcept>

#include <fmt/format.h>

namespace korvo {

void forEachLine(LineSource& lines, std::string_view name, const std::function<void(std::string_view line)>& use,
                 const std::function<void(const std::string& error)>& fail) {
  for (std::size_t number = 1;; ++number) {
    std::string failure;
    try {
      const auto line = lines.next();
      if (!line) return;
      if (line->find_first_not_of(" \t\r") != std::string::npos) use(*line);
      continue;
    } catch (const std::exception& error) {
      failure = fmt::format("{} line {}: {}", name, number, error.what());
    }
    if (!fail) throw std::runtime_error(failure);
    fail(failure);
  }
}

void forEachValue(Context& context, Arguments& arguments, const std::function<void(const HX::HXValue&)>& use) {
  if (context.input && arguments.takeDash()) {
    arguments.end();
    forEachLine(*context.input, "standard input", [&](std::string_view line) { use(HX::fromJson(line)); });
    return;
  }
  const HX::HXValue value = arguments.json("JSON");
  arguments.end();
  use(value);
}

}  // namespace korvo
