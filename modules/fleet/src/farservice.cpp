#include "farservice.h"

#include "hub.h"
#include "names.h"

#include <hxvalue/json.h>
#include <libmw/eventloop.h>
#include <libmw/metaobject.h>

#include <chrono>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace HX::fleet {
namespace {

constexpr std::chrono::seconds kLimit{30};

mw::MetaObject describe(const std::string& name, const std::vector<std::string>& signatures) {
  mw::MetaObject::Members members;
  members.typeName = name;
  members.description = "A service of another robot.";
  for (const std::string& signature : signatures) {
    const std::string method = signature.substr(0, signature.find('('));
    const bool returns = signature.find(" -> ") != std::string::npos;
    // One stands for all its overloads, of which the robot itself chooses.
    if (!members.methods.empty() && members.methods.back().name == method) {
      if (returns) members.methods.back().resultType = mw::typeOf<HXValue>();
      continue;
    }
    mw::MetaMethod described;
    described.id = static_cast<unsigned>(members.methods.size());
    described.name = method;
    described.module = name;
    described.description = signature;
    described.dynamic = true;
    described.resultType = returns ? mw::typeOf<HXValue>() : mw::typeOf<void>();
    members.methods.push_back(std::move(described));
  }
  return mw::MetaObject(std::move(members));
}

}  // namespace

FarService::FarService(std::weak_ptr<Connection> connection, const std::string& name, std::string subject,
                       const std::vector<std::string>& methods)
    : connection_(std::move(connection)), name_(name), subject_(std::move(subject)) {
  setMetaObject(describe(name, methods));
}

mw::Future<mw::AnyValue> FarService::metaCall(unsigned method, mw::GenericFunctionParameters parameters,
                                              mw::MetaCallType /*callType*/) {
  const mw::MetaMethod* const known = metaObject().method(method);
  if (!known) return mw::Future<mw::AnyValue>::failed(fmt::format("{} has no such method", name_));
  HXValue arguments = HXValue::list();
  for (const mw::AnyReference& parameter : parameters) {
    HXValue value;
    if (!parameter.toValue(value)) {
      return mw::Future<mw::AnyValue>::failed(
          fmt::format("{}.{}: an object cannot leave the robot", name_, known->name));
    }
    arguments.arrayPush(std::move(value));
  }
  return mw::defaultLoop().async([connection = connection_, subject = subject_ + "." + toToken(known->name),
                                  name = name_, data = toJson(arguments),
                                  returns = known->resultType != mw::typeOf<void>()] {
    const auto held = connection.lock();
    if (!held) throw std::runtime_error(fmt::format("{}: the fleet is not connected", name));
    HXValue result = askRobot(*held, subject, data, kLimit);
    return returns ? mw::AnyValue(std::move(result)) : mw::AnyValue();
  });
}

void FarService::metaPost(unsigned member, mw::GenericFunctionParameters parameters) {
  metaCall(member, parameters, mw::MetaCallType::Auto);
}

mw::Future<mw::SignalLink> FarService::metaConnect(unsigned /*signal*/, const mw::SignalSubscriber& /*subscriber*/) {
  return mw::Future<mw::SignalLink>::failed(fmt::format("{} has no signals: follow its robot's events", name_));
}

mw::Future<void> FarService::metaDisconnect(mw::SignalLink link) { return noSuchLink(link); }

mw::Future<mw::AnyValue> FarService::metaProperty(unsigned /*property*/) {
  return mw::Future<mw::AnyValue>::failed(fmt::format("{} has no properties", name_));
}

mw::Future<void> FarService::metaSetProperty(unsigned /*property*/, const mw::AnyValue& /*value*/) {
  return mw::Future<void>::failed(fmt::format("{} has no properties", name_));
}

}  // namespace HX::fleet
