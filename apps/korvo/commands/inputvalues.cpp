#include "inputvalues.h"

#include "arguments.h"
#include "base/format.h"
#include "console/linesource.h"
#include "numbers.h"

#include <hxerror/hxerror.h>
#include <hxvalue/json.h>

#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace korvo {

using HX::HXValue;

bool isBlank(std::string_view line) { return line.find_first_not_of(" \t\r") == std::string_view::npos; }

std::string lineError(std::string_view source, std::size_t number, std::string_view reason) {
  return fmt::format("{} line {}: {}", source, number, reason);
}

ValueReader::ValueReader(Context& context, Arguments& arguments)
    : context_(context), arguments_(arguments), isText_(arguments.has(kString.name)) {
  const auto type = arguments.option(kType.name);
  if (!type) return;
  if (isText_) throw InputError("--string and --type exclude each other");
  wanted_ = numberType(*type);
}

HXValue ValueReader::next() {
  if (isText_) return arguments_.word("TEXT");
  return withWantedType(arguments_.json("JSON", ", or say --string"));
}

void ValueReader::forEachLine(const std::function<bool(HXValue value)>& use) {
  for (std::size_t number = 1;; ++number) {
    try {
      const auto line = context_.input->next();
      if (!line) return;
      if (!isText_ && isBlank(*line)) continue;
      if (!use(isText_ ? HXValue(*line) : withWantedType(HX::fromJson(*line)))) return;
    } catch (const std::exception& error) {
      throw std::runtime_error(lineError("standard input", number, error.what()));
    }
  }
}

HXValue ValueReader::withWantedType(HXValue value) const {
  if (!wanted_) return value;
  if (auto typed = withNumbers(value, *wanted_)) return std::move(*typed);
  throw InputError(
      fmt::format("{} does not fit the type {}", excerpt(HX::toJson(value)), *arguments_.option(kType.name)));
}

HXValue ValueReader::typed(HXValue value, HX::HXMemoryProxy& memory, const std::string& key) const {
  if (wanted_ || value.isString() || value.isBool()) return value;
  try {
    return withTypesOf(value, memory.getData(key));
  } catch (const HX::HXError&) {  // There is no such key yet.
    return value;
  }
}

}  // namespace korvo
