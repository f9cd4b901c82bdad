#include "inputvalues.h"

#include "arguments.h"
#include "linesource.h"

#include <hxvalue/json.h>

#include <stdexcept>

#include <fmt/format.h>

namespace korvo {

namespace {

void forEachLine(LineSource& lines, const std::function<void(std::string_view line)>& use) {
  for (std::size_t number = 1;; ++number) {
    try {
      const auto line = lines.next();
      if (!line) return;
      if (!isBlank(*line)) use(*line);
    } catch (const std::exception& error) {
      throw std::runtime_error(lineError("standard input", number, error.what()));
    }
  }
}

}  // namespace

bool isBlank(std::string_view line) { return line.find_first_not_of(" \t\r") == std::string_view::npos; }

std::string lineError(std::string_view source, std::size_t number, std::string_view reason) {
  return fmt::format("{} line {}: {}", source, number, reason);
}

void forEachValue(Context& context, Arguments& arguments, const std::function<void(const HX::HXValue&)>& use) {
  if (context.input && arguments.takeDash()) {
    arguments.end();
    forEachLine(*context.input, [&](std::string_view line) { use(HX::fromJson(line)); });
    return;
  }
  const HX::HXValue value = arguments.json("JSON");
  arguments.end();
  use(value);
}

}  // namespace korvo
