#include <libmw/metaobject.h>
#include <libmw/remoteerror.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <stdexcept>
#include <unordered_map>
#include <utility>

#include <fmt/format.h>

namespace mw {
namespace {

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
  return fmt::format("{}", fmt::join(parts, separator));
}

std::string typesOf(GenericFunctionParameters parameters) {
  std::vector<std::string> names;
  for (const AnyReference& parameter : parameters) {
    const AnyReference given = parameter.content();
    if (const auto* value = given.getIf<HX::HXValue>()) {
      names.emplace_back(HX::HXValue::TypeToString(value->getType()));
    } else {
      names.push_back(given ? given.type()->name : "nothing");
    }
  }
  return joined(names, ", ");
}

/// How well arguments suit a method; smaller is better: the worst of the single fits, and then the sum of them.
std::pair<Fit, unsigned> rank(GenericFunctionParameters parameters, const MetaMethod& method) {
  if (method.dynamic) return {Fit::Variant, std::numeric_limits<unsigned>::max()};
  if (parameters.size() != method.types.size()) return {Fit::None, 0};
  std::pair<Fit, unsigned> all{Fit::Exact, 0};
  for (std::size_t i = 0; i < parameters.size() && all.first != Fit::None; ++i) {
    const Fit one = parameters[i].fit(method.types[i]);
    all.first = std::max(all.first, one);
    all.second += static_cast<unsigned>(one);
  }
  return all;
}

/// "argument 1: 300 does not fit uint8" where that is all that is wrong with a call; empty otherwise.
std::string numberOutOfRange(GenericFunctionParameters parameters, std::span<const MetaMethod* const> candidates) {
  if (candidates.size() != 1 || candidates.front()->types.size() != parameters.size()) return {};
  std::string found;
  for (std::size_t i = 0; i < parameters.size(); ++i) {
    const TypeInterface* wanted = candidates.front()->types[i];
    if (parameters[i].fit(wanted) != Fit::None) continue;
    const std::string misfit = detail::misfit(parameters[i].content(), wanted);
    if (misfit.empty() || !found.empty()) return {};
    found = fmt::format("argument {}: {}", i + 1, misfit);
  }
  return found;
}

/// Lets names be looked up without making strings of them.
struct NameHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view name) const noexcept { return std::hash<std::string_view>{}(name); }
};

std::int32_t nextUid() {
  static std::atomic<std::int32_t> last{0};
  return ++last;
}

}  // namespace

std::string MetaMethod::signature() const {
  if (dynamic) return name + "(...)";
  std::vector<std::string> names;
  for (const TypeInterface* type : types) names.push_back(type->name);
  return fmt::format("{}({})", name, joined(names, ", "));
}

MetaMethodBuilder::MetaMethodBuilder(std::string name, std::string module, std::string description, int flags) {
  method_.name = std::move(name);
  method_.module = std::move(module);
  method_.description = std::move(description);
  method_.flags = flags;
}

MetaMethodBuilder& MetaMethodBuilder::addParameter(std::string name, std::string description) {
  method_.parameters.push_back({std::move(name), std::move(description)});
  return *this;
}

MetaMethodBuilder& MetaMethodBuilder::setReturn(std::string name, std::string description) {
  method_.result = MetaParameter{std::move(name), std::move(description)};
  return *this;
}

struct MetaObject::Data {
  explicit Data(Members given) : members(std::move(given)), uid(nextUid()) {
    for (const MetaMethod& method : members.methods) {
      overloads[method.name].push_back(&method);
      if (method.id >= byId.size()) byId.resize(method.id + 1);
      byId[method.id] = &method;
    }
  }

  const Members members;
  const std::int32_t uid;
  std::unordered_map<std::string, std::vector<const MetaMethod*>, NameHash, std::equal_to<>> overloads;
  std::vector<const MetaMethod*> byId;
};

MetaObject::MetaObject() {
  static const auto empty = std::make_shared<const Data>(Members{});
  data_ = empty;
}

MetaObject::MetaObject(Members members) : data_(std::make_shared<const Data>(std::move(members))) {}

const std::string& MetaObject::typeName() const { return data_->members.typeName; }
const std::string& MetaObject::description() const { return data_->members.description; }
std::span<const MetaMethod> MetaObject::methods() const { return data_->members.methods; }
std::span<const MetaSignal> MetaObject::signals() const { return data_->members.signals; }
std::span<const MetaProperty> MetaObject::properties() const { return data_->members.properties; }
std::int32_t MetaObject::uid() const { return data_->uid; }

std::span<const MetaMethod* const> MetaObject::findMethods(std::string_view name) const {
  const auto found = data_->overloads.find(name);
  if (found == data_->overloads.end()) return {};
  return found->second;
}

const MetaMethod* MetaObject::method(unsigned id) const { return id < data_->byId.size() ? data_->byId[id] : nullptr; }

int MetaObject::signalId(std::string_view name) const {
  for (const MetaSignal& signal : signals()) {
    if (signal.name == name) return static_cast<int>(signal.id);
  }
  return -1;
}

int MetaObject::propertyId(std::string_view name) const {
  for (const MetaProperty& property : properties()) {
    if (property.name == name) return static_cast<int>(property.id);
  }
  return -1;
}

const MetaMethod& MetaObject::resolve(std::string_view name, GenericFunctionParameters parameters) const {
  const auto candidates = findMethods(name);
  const std::string& owner = typeName();
  const std::string_view dot = owner.empty() ? "" : ".";
  if (candidates.empty()) throw NoSuchMethodError(fmt::format("{}{}{}: no such method", owner, dot, name));
  const MetaMethod* best = nullptr;
  std::pair<Fit, unsigned> bestRank{Fit::None, 0};
  for (const MetaMethod* candidate : candidates) {
    const auto candidateRank = rank(parameters, *candidate);
    if (candidateRank >= bestRank) continue;
    best = candidate;
    bestRank = candidateRank;
    if (bestRank.first == Fit::Exact) break;
  }
  if (best) return *best;
  if (const auto number = numberOutOfRange(parameters, candidates); !number.empty()) {
    throw std::runtime_error(fmt::format("{}{}{}: {}", owner, dot, name, number));
  }
  std::vector<std::string> known;
  for (const MetaMethod* candidate : candidates) known.push_back(candidate->signature());
  throw NoSuchMethodError(fmt::format("{}{}{}({}): no overload takes these arguments; there is {}", owner, dot, name,
                                      typesOf(parameters), joined(known, ", ")));
}

}  // namespace mw
