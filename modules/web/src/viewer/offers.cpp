#include "offers.h"

#include <hxjournal/filter.h>
#include <hxvalue/json.h>
#include <hxvalue/jsonschema.h>

#include <algorithm>
#include <array>
#include <set>
#include <stdexcept>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace HX::web {
namespace {

/// What a parameter of a method takes, by the name of its type; empty for anything.
std::string schemaOfType(const std::string& type) {
  // Nothing that the end of the process destroys: a thread that works for somebody may still look at it.
  constexpr std::array<std::pair<std::string_view, std::string_view>, 13> kNames{{
      {"bool", "boolean"},
      {"int", "integer"},
      {"int8", "integer"},
      {"uint8", "integer"},
      {"int16", "integer"},
      {"uint16", "integer"},
      {"int64", "integer"},
      {"uint", "integer"},
      {"uint64", "integer"},
      {"float", "number"},
      {"double", "number"},
      {"string", "string"},
      {"binary", "string"},
  }};
  if (type.starts_with("map")) return R"({"type":"object"})";
  if (type.starts_with("list<") && type.ends_with('>')) {
    const std::string items = schemaOfType(type.substr(5, type.size() - 6));
    return items.empty() ? R"({"type":"array"})" : R"({"type":"array","items":)" + items + "}";
  }
  const auto found = std::ranges::find(kNames, type, &std::pair<std::string_view, std::string_view>::first);
  return found == kNames.end() ? std::string() : fmt::format(R"({{"type":"{}"}})", found->second);
}

std::string objectSchema(const std::vector<std::pair<std::string, std::string>>& entries) {
  std::string properties;
  for (const auto& [name, type] : entries) {
    const std::string schema = schemaOfType(type);
    if (schema.empty()) continue;
    properties += fmt::format("{}{}:{}", properties.empty() ? "" : ",", toJson(name), schema);
  }
  return R"({"type":"object","properties":{)" + properties + "}}";
}

HXValue definition(const std::string& name, const std::string& schema) {
  return HXValue::map(
      {{"encoding", "json"}, {"schemaName", name}, {"schemaEncoding", "jsonschema"}, {"schema", schema}});
}

ViewerService serviceOf(const std::string& service, const HXValue& method) {
  ViewerService made;
  made.service = service;
  made.method = method["id"].toInt64();
  std::vector<std::pair<std::string, std::string>> arguments;
  for (const HXValue& parameter : method["parameters"].asList()) {
    const std::string& name = parameter["name"].asString();
    made.parameters.push_back(name.empty() ? fmt::format("argument{}", made.parameters.size() + 1) : name);
    arguments.emplace_back(made.parameters.back(), parameter["type"].asString());
  }
  const std::string type = service + "." + method["name"].asString();
  std::vector<std::pair<std::string, std::string>> result;
  if (const HXValue* const given = method.find("result")) result.emplace_back("value", (*given)["type"].asString());
  made.advertised = HXValue::map({{"type", type},
                                  {"request", definition(type + "_Request", objectSchema(arguments))},
                                  {"response", definition(type + "_Response", objectSchema(result))}});
  return made;
}

/// "string, int"
std::string typesOf(const HXValue& method) {
  std::vector<std::string> types;
  for (const HXValue& parameter : method["parameters"].asList()) types.push_back(parameter["type"].asString());
  return fmt::format("{}", fmt::join(types, ", "));
}

void addServices(ViewerServices& all, const std::string& service, const HXValue& described) {
  std::map<std::string, int> counts;
  for (const HXValue& method : described["methods"].asList()) ++counts[method["name"].asString()];
  for (const HXValue& method : described["methods"].asList()) {
    if (method["here"].asBool()) continue;  // Means something in its own process only.
    std::string name = service + "." + method["name"].asString();
    if (counts[method["name"].asString()] > 1) name += fmt::format("({})", typesOf(method));
    all.emplace(std::move(name), serviceOf(service, method));
  }
}

bool isNumberList(const HXValue& value) {
  const auto isNumber = [](const HXValue& each) { return each.isScalar() && !each.isBool(); };
  return value.isList() && value.getSize() > 0 && std::ranges::all_of(value.asList(), isNumber);
}

std::vector<std::string> textsOf(const HXValue& list) {
  std::vector<std::string> texts;
  for (const HXValue& text : list.asList()) texts.push_back(text.asString());
  return texts;
}

}  // namespace

// --- Services
// ---------------------------------------------------------------------------------------------------------

ViewerServices viewerServices(const Errands& errands) {
  ViewerServices all;
  const HXValue names = errands.services();
  for (const HXValue& name : names.asList()) {
    try {
      addServices(all, name.asString(), errands.describe(name.asString()));
    } catch (const std::exception&) {
      // It left while it was asked.
    }
  }
  return all;
}

HXValue::List argumentsOf(const ViewerService& service, const std::string& payload) {
  const HXValue given = payload.empty() ? HXValue::map() : fromJson(payload);
  if (!given.isMap()) throw std::runtime_error("the arguments are an object, by their names");
  for (const auto& [name, value] : given.asMap()) {
    if (std::ranges::count(service.parameters, name) == 0) {
      throw std::runtime_error(
          fmt::format("there is no argument {}; there is {}", name, fmt::join(service.parameters, ", ")));
    }
  }
  HXValue::List arguments;
  for (const std::string& name : service.parameters) {
    const HXValue* const value = given.find(name);
    if (!value) throw std::runtime_error("the argument " + name + " is missing");
    arguments.push_back(*value);
  }
  return arguments;
}

// --- Parameters
// -------------------------------------------------------------------------------------------------------

std::vector<std::string> ViewerParameters::offered(const Errands& errands) const {
  std::set<std::string> names;
  for (const std::string& name : errands.kept()) names.insert(name);
  if (!patterns_.empty()) {
    const journal::Filter filter(patterns_);
    for (const std::string& name : errands.dataKeys()) {
      if (filter.wantsKey(name)) names.insert(name);
    }
  }
  std::vector<std::string> sorted(names.begin(), names.end());
  if (sorted.size() > kMost) sorted.resize(kMost);
  return sorted;
}

HXValue ViewerParameters::toParameter(const std::string& name, const HXValue& value) {
  HXValue parameter = HXValue::map({{"name", name}});
  if (!value.isValid()) return parameter;
  const bool isDecimal = value.isFloat() || value.isDouble();
  if (value.isBinary()) parameter.mapSet("type", "byte_array");
  if (isDecimal) parameter.mapSet("type", "float64");
  if (isNumberList(value)) parameter.mapSet("type", "float64_array");
  parameter.mapSet("value", fromJson(toJsonMessage(value))["value"]);
  return parameter;
}

HXValue::List ViewerParameters::values(const Errands& errands, const std::vector<std::string>& names) const {
  HXValue::List values;
  for (const std::string& name : offered(errands)) {
    if (!names.empty() && std::ranges::count(names, name) == 0) continue;
    const auto value = errands.valueOf(name);
    values.push_back(toParameter(name, value ? *value : HXValue()));
  }
  return values;
}

void ViewerParameters::set(const Errands& errands, const HXValue& parameter) const {
  const std::string& name = parameter["name"].asString();
  if (std::ranges::count(offered(errands), name) == 0) {
    throw std::runtime_error(name + " is no parameter: --parameter offers keys, and what is kept is offered too");
  }
  const HXValue* const value = parameter.find("value");
  if (!value || !value->isValid()) return errands.write(HXValue::map({{"op", "remove"}, {"key", name}}));
  const auto present = errands.valueOf(name);
  const HXValue* const type = parameter.find("type");
  if (type && *type == HXValue("byte_array")) throw std::runtime_error(name + " is binary, and set by programs only");
  HXValue wish = HXValue::map({{"op", "set"}, {"key", name}, {"value", *value}});
  if (present && present->isValid()) wish.mapSet("type", HXValue::TypeToString(present->getType()));
  errands.write(wish);
}

// --- The graph
// --------------------------------------------------------------------------------------------------------

namespace {

/// What is new or different, as {name, party: [...]}, and what has gone.
HXValue::List changed(const ViewerGraph::Parties& now, const ViewerGraph::Parties& before, const char* party) {
  HXValue::List list;
  for (const auto& [name, parties] : now) {
    const auto known = before.find(name);
    if (known != before.end() && known->second == parties) continue;
    list.push_back(HXValue::map({{"name", name}, {party, HXValue(parties)}}));
  }
  // Whoever has no party any more is told with none, so that others of the same name stay.
  for (const auto& [name, parties] : before) {
    if (!now.contains(name)) list.push_back(HXValue::map({{"name", name}, {party, HXValue::list()}}));
  }
  return list;
}

}  // namespace

HXValue ViewerGraph::changesSince(const ViewerGraph& before) const {
  HXValue::List removedTopics;
  HXValue::List removedServices;
  for (const auto* parties : {&before.published, &before.subscribed}) {
    for (const auto& [name, ignored] : *parties) {
      const HXValue gone(name);
      const bool isGone = !published.contains(name) && !subscribed.contains(name);
      if (isGone && std::ranges::count(removedTopics, gone) == 0) removedTopics.push_back(gone);
    }
  }
  for (const auto& [name, ignored] : before.services) {
    if (!services.contains(name)) removedServices.emplace_back(name);
  }
  HXValue::Map update{{"publishedTopics", changed(published, before.published, "publisherIds")},
                      {"subscribedTopics", changed(subscribed, before.subscribed, "subscriberIds")},
                      {"advertisedServices", changed(services, before.services, "providerIds")},
                      {"removedTopics", std::move(removedTopics)},
                      {"removedServices", std::move(removedServices)}};
  const auto isEmpty = [](const auto& entry) { return entry.second.getSize() == 0; };
  return std::ranges::all_of(update, isEmpty) ? HXValue() : HXValue::map(std::move(update));
}

ViewerGraph viewerGraph(const Errands& errands, ViewerGraph::Parties authors) {
  ViewerGraph graph;
  graph.published = std::move(authors);
  const HXValue wiring = errands.wiring();
  for (const HXValue& event : wiring["events"].asList()) {
    const std::string& key = event["key"].asString();
    graph.published.try_emplace(key);
    if (event["subscribers"].getSize() > 0) graph.subscribed[key] = textsOf(event["subscribers"]);
  }
  for (const HXValue& module : wiring["modules"].asList()) {
    const std::string& name = module["name"].asString();
    graph.services[name] = {name};
    for (const HXValue& event : module["extracts"].asList()) {
      auto& publishers = graph.published[event.asString()];
      if (std::ranges::count(publishers, name) == 0) publishers.push_back(name);
    }
  }
  for (auto* parties : {&graph.published, &graph.subscribed}) {
    for (auto& [name, all] : *parties) std::ranges::sort(all);
  }
  return graph;
}

}  // namespace HX::web
