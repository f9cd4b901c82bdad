#include "errands.h"

#include <hxcommon/hxbroker.h>
#include <hxerror/hxerror.h>
#include <hxproxies/hxmemoryproxy.h>
#include <libmw/metaobject.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <stdexcept>
#include <vector>

#include <fmt/format.h>

namespace HX::web {
namespace {

using namespace std::chrono_literals;

/// A directory in another process may take its time; who waits is a person.
constexpr auto kLookUpLimit = 3s;

const std::string& textAt(const HXValue& wish, std::string_view name) { return wish[name].asString(); }

/// The number as a type that holds it exactly.
HXValue numberAs(const HXValue& value, mw::TypeKind kind) {
  switch (kind) {
    case mw::TypeKind::Int:
      return value.toInt();
    case mw::TypeKind::Int64:
      return value.toInt64();
    case mw::TypeKind::Float:
      return value.toFloat();
    case mw::TypeKind::Double:
      return value.toDouble();
    default:
      return value;
  }
}

HXValue suited(const HXValue& argument, const mw::TypeInterface& type) {
  const bool isNumber = argument.isScalar() && !argument.isBool();
  return isNumber ? numberAs(argument, type.kind) : argument;
}

HXValue describeMethod(const mw::MetaMethod& method) {
  HXValue::List parameters;
  for (std::size_t i = 0; i < method.types.size(); ++i) {
    const bool isDocumented = i < method.parameters.size();
    parameters.push_back(HXValue::map({{"name", isDocumented ? method.parameters[i].name : std::string()},
                                       {"text", isDocumented ? method.parameters[i].description : std::string()},
                                       {"type", method.types[i]->name}}));
  }
  HXValue described = HXValue::map({{"id", static_cast<std::int64_t>(method.id)},
                                    {"name", method.name},
                                    {"text", method.description},
                                    {"parameters", std::move(parameters)},
                                    {"here", (method.flags & mw::kSameProcessOnly) != 0},
                                    {"dynamic", method.dynamic}});
  if (method.resultType && method.resultType->kind != mw::TypeKind::Void) {
    described.mapSet("result", HXValue::map({{"type", method.resultType->name},
                                             {"text", method.result ? method.result->description : std::string()}}));
  }
  return described;
}

std::vector<mw::AnyReference> references(const HXValue::List& values) {
  std::vector<mw::AnyReference> all;
  for (const HXValue& value : values) all.push_back(mw::AnyReference::of(value));
  return all;
}

/// What a call gave, for people: a value, or what kind of thing it is.
HXValue shown(const mw::AnyValue& result) {
  const mw::AnyReference content = result.reference().content();
  if (!content) return HXValue::map();
  HXValue value;
  if (content.toValue(value)) return HXValue::map({{"value", value}});
  return HXValue::map({{"thing", content.type()->name}});
}

}  // namespace

HXValue typed(const HXValue& value, const std::string& type) {
  if (type == "Int") return value.toInt();
  if (type == "Int64") return value.toInt64();
  if (type == "Float") return value.toFloat();
  if (type == "Double") return value.toDouble();
  const auto require = [&](bool isRight) {
    if (!isRight) throw std::runtime_error(fmt::format("{} is no {}", value.toString().substr(0, 60), type));
  };
  if (type == "Bool") require(value.isBool());
  if (type == "String") require(value.isString());
  if (type == "List") require(value.isList());
  if (type == "Map") require(value.isMap());
  return value;
}

std::shared_ptr<HXBroker> Errands::broker() const {
  if (auto broker = broker_.lock()) return broker;
  throw std::runtime_error("the broker has gone");
}

/// The robot whose key this one is a copy of; empty for our own.
std::string Errands::robotOf(const std::string& key) const {
  const std::string robot = key.substr(0, key.find('/'));
  const HXValue status = robot.size() < key.size() ? ask("HXFleet", "status") : HXValue();
  const HXValue* const follows = status.isMap() ? status.find("follows") : nullptr;
  return follows && std::ranges::count(follows->asList(), HXValue(robot)) > 0 ? robot : std::string();
}

/// Asks the robot for it, since what we have of its keys is a copy.
void Errands::writeFar(const std::string& robot, const std::string& op, const std::string& key,
                       const HXValue& value) const {
  const auto memory = broker()->getProxy(robot + "/HXMemory");
  if (!memory) throw std::runtime_error(robot + " is not there, and nobody else writes its keys");
  if (op == "describe") return memory->call("setDescription", key, value);
  if (op == "declare") return memory->call("declareEvent", key);
  if (op == "set") return memory->call("insertData", key, value);
  if (op == "raise") return memory->call("raiseEvent", key, value);
  if (op == "raiseMicro") return memory->call("raiseMicroEvent", key, value);
  if (op != "remove") throw std::runtime_error("nothing is called " + op);
  const std::string kind = memory->call<HXValue>("getType", key).asString();
  memory->call(kind == "Event" ? "removeEvent" : kind == "MicroEvent" ? "removeMicroEvent" : "removeData", key);
}

void Errands::write(const HXValue& wish) const {
  const std::string& op = textAt(wish, "op");
  const std::string& key = textAt(wish, "key");
  const HXValue* const type = wish.find("type");
  const bool hasValue = op != "remove" && op != "declare";
  const HXValue value =
      hasValue ? typed(wish["value"], type && type->isString() ? type->asString() : std::string()) : HXValue();
  if (const std::string robot = robotOf(key); !robot.empty()) {
    return writeFar(robot, op, key.substr(robot.size() + 1), value);
  }
  HXMemoryProxy memory = memory_();
  if (op == "describe") return memory.setDescription(key, value.asString());
  if (op == "declare") return memory.declareEvent(key);
  if (op == "remove") {
    const std::string kind = memory.getType(key);
    if (kind == "Event") return memory.removeEvent(key);
    if (kind == "MicroEvent") return memory.removeMicroEvent(key);
    return memory.removeData(key);
  }
  if (op == "raise") return memory.raiseEvent(key, value);
  if (op == "raiseMicro") return memory.raiseMicroEvent(key, value);
  if (op != "set") throw std::runtime_error("nothing is called " + op);
  memory.insertData(key, value);
}

HXValue Errands::values(const HXValue& keys) const {
  HXValue::List told;
  for (const HXValue& key : keys.asList()) {
    const std::optional<HXValue> value = valueOf(key.asString());
    if (!value) {
      told.emplace_back();
      continue;
    }
    const bool isLong = value->isInt64();
    told.push_back(HXValue::list(
        {HXValue::TypeToString(value->getType()), isLong ? HXValue(std::to_string(value->asInt64())) : *value}));
  }
  return HXValue::map({{"values", std::move(told)}});
}

HXValue Errands::about(const std::string& key) const {
  HXMemoryProxy memory = memory_();
  HXValue told = HXValue::map({{"key", key}});
  // [name, kind, text], behind an empty entry for each key that was asked for.
  const HXValue descriptions = memory.getDescriptionList({key});
  for (std::size_t i = 0; i < descriptions.getSize(); ++i) {
    const HXValue& entry = descriptions[i];
    if (entry.getSize() >= 3 && entry[2].isString()) told.mapSet("description", entry[2]);
  }
  told.mapSet("kind", memory.getType(key));
  if (told["kind"].asString() == "Event") told.mapSet("history", memory.getEventHistory(key));
  if (told["kind"].asString() != "Data") told.mapSet("subscribers", HXValue(memory.getSubscribers(key)));
  try {
    if (const auto journal = broker()->getProxy("HXJournal")) {
      if (!journal->asObject()->metaObject().findMethods("explain").empty()) {
        told.mapSet("explanation", journal->call<HXValue>("explain", key));
      }
    }
  } catch (const std::exception&) {
    // What the memory itself tells is shown all the same.
  }
  return told;
}

HXValue Errands::services() const {
  const auto infos = broker()->session()->reachableServices().value(kLookUpLimit);
  HXValue::List names;
  for (const mw::ServiceInfo& info : infos) names.emplace_back(info.name);
  return names;
}

HXValue Errands::describe(const std::string& service) const {
  const mw::AnyObject described = object(service);
  const mw::MetaObject& offered = described->metaObject();
  HXValue::List methods;
  for (const mw::MetaMethod& method : offered.methods()) methods.push_back(describeMethod(method));
  HXValue::List signals;
  for (const mw::MetaSignal& signal : offered.signals()) {
    signals.push_back(HXValue::map({{"name", signal.name}, {"signature", signal.signature}}));
  }
  return HXValue::map({{"service", service},
                       {"text", offered.description()},
                       {"methods", std::move(methods)},
                       {"signals", std::move(signals)}});
}

HXValue Errands::call(const HXValue& wish) const {
  const std::string& service = textAt(wish, "service");
  const mw::AnyObject called = object(service);
  const auto id = static_cast<unsigned>(wish["method"].toInt64());
  const mw::MetaMethod* const method = called->metaObject().method(id);
  if (!method) throw std::runtime_error(service + " has no such method");
  HXValue::List arguments = wish["arguments"].asList();
  if (!method->dynamic && arguments.size() != method->types.size()) {
    throw std::runtime_error(fmt::format("{} takes {} arguments", method->name, method->types.size()));
  }
  for (std::size_t i = 0; i < method->types.size(); ++i) arguments[i] = suited(arguments[i], *method->types[i]);
  const auto parameters = references(arguments);
  return shown(called->metaCall(id, parameters).take());
}

void Errands::emit(const HXValue& wish) const {
  const std::string& service = textAt(wish, "service");
  const mw::AnyObject emitter = object(service);
  const int id = emitter->metaObject().signalId(textAt(wish, "signal"));
  if (id < 0) throw std::runtime_error(service + " has no such signal");
  emitter->metaPost(static_cast<unsigned>(id), references(wish["arguments"].asList()));
}

HXValue Errands::wiring() const {
  constexpr std::size_t kMost = 400;
  HXMemoryProxy memory = memory_();
  HXValue::List events;
  auto names = memory.getEventList();
  const auto micro = memory.getMicroEventList();
  names.insert(names.end(), micro.begin(), micro.end());
  const bool isCut = names.size() > kMost;
  if (isCut) names.resize(kMost);
  for (const std::string& name : names) {
    events.push_back(HXValue::map({{"key", name}, {"subscribers", HXValue(memory.getSubscribers(name))}}));
  }
  HXValue::List modules;
  const HXValue reachable = services();
  for (const HXValue& each : reachable.asList()) {
    const auto produced = memory.getExtractorEvent(each.asString());
    modules.push_back(HXValue::map({{"name", each}, {"extracts", HXValue(produced)}}));
  }
  HXValue told = HXValue::map({{"events", std::move(events)}, {"modules", std::move(modules)}, {"cut", isCut}});
  if (const HXValue figures = ask("HXJournal", "figures"); figures.isMap())
    told.mapSet("mappings", figures["mappings"]);
  return told;
}

std::string Errands::kindOf(const std::string& key) const {
  try {
    return memory_().getType(key);
  } catch (const HXError&) {
    return {};
  }
}

void Errands::raise(const std::string& key, const HXValue& value) const {
  HXMemoryProxy memory = memory_();
  const std::string kind = kindOf(key);
  if (kind == "Data") throw std::runtime_error(key + " is data, and would become an event if it were raised");
  if (kind == "MicroEvent") return memory.raiseMicroEvent(key, value);
  memory.raiseEvent(key, value);
}

HXValue Errands::fleet() const {
  const auto proxy = broker()->getProxy("HXFleet");
  if (!proxy) throw std::runtime_error("this robot is in no fleet: the module fleet does not run in its broker");
  HXValue told = HXValue::map({{"status", proxy->call<HXValue>("status")}, {"robots", HXValue::list()}});
  try {
    told.mapSet("robots", proxy->call<HXValue>("robots"));
  } catch (const std::exception& error) {
    told.mapSet("failure", error.what());
  }
  return told;
}

HXValue Errands::ask(const std::string& service, const std::string& method, const HXValue* argument) const {
  try {
    const auto proxy = broker()->getProxy(service);
    if (!proxy) return {};
    return argument ? proxy->call<HXValue>(method, *argument) : proxy->call<HXValue>(method);
  } catch (const std::exception&) {
    return {};
  }
}

mw::AnyObject Errands::object(const std::string& service) const {
  const auto proxy = broker()->getProxy(service);
  if (!proxy) throw std::runtime_error("no service named " + service);
  return proxy->asObject();
}

std::vector<std::string> Errands::dataKeys() const { return memory_().getDataListName(); }

std::vector<std::string> Errands::kept() const {
  const auto keeper = broker()->getProxy("HXKeeper");
  return keeper ? keeper->call<std::vector<std::string>>("kept") : std::vector<std::string>();
}

std::optional<HXValue> Errands::valueOf(const std::string& key) const {
  try {
    return memory_().getData(key);
  } catch (const HXError&) {
    return std::nullopt;
  }
}

}  // namespace HX::web
