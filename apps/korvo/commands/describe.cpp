#include "describe.h"

#include "base/format.h"

#include <fmt/format.h>

namespace korvo {
namespace {

std::string signature(const mw::MetaMethod& method) {
  if (method.dynamic) return method.name + "(...)";
  std::string arguments;
  for (std::size_t i = 0; i < method.types.size(); ++i) {
    if (i > 0) arguments += ", ";
    arguments += method.types[i]->name;
    if (i < method.parameters.size()) arguments += " " + method.parameters[i].name;
  }
  const bool returns = method.resultType && method.resultType->kind != mw::TypeKind::Void;
  return fmt::format("{}({}){}{}", method.name, arguments, returns ? " -> " : "",
                     returns ? method.resultType->name : "");
}

void addLine(std::vector<std::string>& lines, std::string_view indent, std::string_view text) {
  if (!text.empty()) lines.push_back(std::string(indent) + escapeControls(text));
}

std::string toJson(const mw::MetaParameter& parameter) {
  return JsonObject().add("name", parameter.name).add("description", parameter.description).text();
}

std::string toJson(const mw::MetaMethod& method) {
  std::string parameters;
  for (const auto& parameter : method.parameters) parameters += (parameters.empty() ? "" : ",") + toJson(parameter);
  JsonObject line;
  line.add("name", method.name).add("description", method.description).add("flags", method.flags);
  line.addText("parameters", "[" + parameters + "]");
  if (method.result) line.addText("result", toJson(*method.result));
  return line.text();
}

}  // namespace

std::vector<std::string> describeObject(const mw::MetaObject& object) {
  std::vector<std::string> lines;
  addLine(lines, "", object.description());
  for (const auto& method : object.methods()) {
    addLine(lines, "", signature(method));
    addLine(lines, "    ", method.description);
    for (const auto& parameter : method.parameters) {
      addLine(lines, "      ", fmt::format("{}: {}", parameter.name, parameter.description));
    }
    if (method.result) {
      addLine(lines, "      ", fmt::format("returns {}: {}", method.result->name, method.result->description));
    }
  }
  for (const auto& signal : object.signals()) addLine(lines, "signal ", signal.name + signal.signature);
  return lines;
}

std::string methodsToJson(const mw::MetaObject& object) {
  std::string methods;
  for (const auto& method : object.methods()) methods += (methods.empty() ? "" : ",") + toJson(method);
  return "[" + methods + "]";
}

}  // namespace korvo
