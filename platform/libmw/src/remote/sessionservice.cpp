#include "sessionservice.h"

#include <hxerror/mutex.h>
#include <libmw/log.h>
#include <libmw/remoteerror.h>
#include <libmw/text.h>

#include <stdexcept>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace mw::remote {
namespace {

using HX::HXValue;

/// Of one client: each costs some hundred bytes here, and every emission a message.
constexpr std::size_t kMostConnections = 4096;

template <class T>
T argument(std::span<const AnyValue> arguments, std::size_t index, const char* what) {
  if (index >= arguments.size()) throw std::runtime_error(fmt::format("argument {} is missing: {}", index + 1, what));
  try {
    return arguments[index].reference().to<T>();
  } catch (const ConversionError&) {
    throw std::runtime_error(fmt::format("argument {} does not say {}", index + 1, what));
  }
}

}  // namespace

SessionService::SessionService(Session& session, std::string name, const std::shared_ptr<Link>& link, Role role)
    : session_(session), name_(std::move(name)), link_(link), role_(role) {}

std::shared_ptr<Link> SessionService::link() const {
  auto link = link_.lock();
  if (!link) throw ConnectionLostError("the connection has ended");
  return link;
}

void SessionService::requireBroker(std::string_view what) const {
  if (role_ != Role::Broker) throw std::runtime_error(fmt::format("korvo.{}: this process is no broker", what));
}

AnyObject SessionService::find(const std::string& service) {
  const auto pass = gate_.enter();
  return pass ? session_.ownService(service) : AnyObject();
}

SessionService::Method SessionService::methodNamed(std::string_view name) {
  static const std::map<std::string_view, Method> methods{
      {"hello", &SessionService::hello},
      {"services", &SessionService::services},
      {"register", &SessionService::registerService},
      {"unregister", &SessionService::unregisterService},
      {"watch", &SessionService::watch},
      {"release", &SessionService::release},
  };
  const auto found = methods.find(name);
  return found == methods.end() ? nullptr : found->second;
}

Future<AnyValue> SessionService::call(std::string_view method, std::span<const AnyValue> arguments) {
  const auto pass = gate_.enter();
  // What is given back at the end has been taken back already.
  if (!pass && method == "release") return Future<AnyValue>::ready(AnyValue());
  if (!pass) throw std::runtime_error("the session is closing");
  if (const Method known = methodNamed(method)) return Future<AnyValue>::ready((this->*known)(arguments));
  if (method == "service") return service(arguments);
  if (method == "connect") return connect(arguments);
  if (method == "disconnect") return disconnect(arguments);
  if (method == "property") return property(arguments);
  if (method == "setProperty") return setProperty(arguments);
  throw NoSuchMethodError(fmt::format("korvo.{}: no such method", method));
}

AnyValue SessionService::hello(Arguments arguments) {
  const auto version = argument<std::int64_t>(arguments, 0, "a protocol version");
  if (version != kProtocol) {
    throw std::runtime_error(fmt::format("protocol version {} is not spoken here, but {}", version, kProtocol));
  }
  const bool understands = arguments.size() > 2 && argument<bool>(arguments, 2, "whether authors are understood");
  link()->authors().greet(arguments.size() > 1 ? argument<std::string>(arguments, 1, "the name of a program") : "",
                          understands);
  HXValue::Map reply;
  reply["protocol"] = kProtocol;
  reply["name"] = name_;
  reply["process"] = ::getpid();
  reply["program"] = programName();
  reply["authors"] = true;
  return AnyValue(HXValue(std::move(reply)));
}

/// Whatever the session finds, also beyond this process.
Future<AnyValue> SessionService::service(Arguments arguments) {
  requireBroker("service");
  return session_.service(argument<std::string>(arguments, 0, "the name of a service"))
      .then([](const Future<AnyObject>& found) {
        try {
          return AnyValue(found.value());
        } catch (const NoSuchServiceError&) {
          return AnyValue(AnyObject());
        }
      });
}

AnyValue SessionService::services(Arguments /*arguments*/) {
  requireBroker("services");
  HXValue::List all;
  for (const ServiceInfo& info : session_.services())
    all.push_back(HXValue::List{static_cast<int>(info.id), info.name});
  return AnyValue(HXValue(std::move(all)));
}

AnyValue SessionService::registerService(Arguments arguments) {
  requireBroker("register");
  const auto name = argument<std::string>(arguments, 0, "the name of a service");
  const auto object = argument<AnyObject>(arguments, 1, "an object");
  if (name == "korvo" || name.starts_with("korvo.") || name.starts_with('@')) {
    throw std::runtime_error(fmt::format("the name {} is reserved", shorten(name)));
  }
  // The peer is not told of its own services: until this one is known as such no notice goes out.
  const Session::NoticeHold hold(session_);
  const ServiceId id = session_.registerService(name, object);
  const HX::MutexLock lock(mutex_);
  registered_.insert(id);
  return AnyValue(HXValue(static_cast<int>(id)));
}

AnyValue SessionService::unregisterService(Arguments arguments) {
  requireBroker("unregister");
  const auto id = argument<std::uint32_t>(arguments, 0, "the id of a service");
  {
    const HX::MutexLock lock(mutex_);
    if (!registered_.contains(id)) throw std::runtime_error(fmt::format("service {} is not one of yours", id));
  }
  return AnyValue(HXValue(session_.unregisterService(id)));
}

void SessionService::notify(const char* what, ServiceId id, const std::string& name) {
  {
    const HX::MutexLock lock(mutex_);
    if (registered_.contains(id)) return;
  }
  if (const auto link = link_.lock()) link->tell(what, id, name);
}

AnyValue SessionService::watch(Arguments /*arguments*/) {
  requireBroker("watch");
  const auto subscriber = [this](const char* what) {
    return SignalSubscriber([this, what](ServiceId id, const std::string& name) { notify(what, id, name); })
        .track(lifetime_.token());
  };
  const HX::MutexLock lock(mutex_);
  if (onRegistered_ != kInvalidSignalLink) return AnyValue();
  onRegistered_ = session_.serviceRegistered.connect(subscriber("korvo.registered"));
  onUnregistered_ = session_.serviceUnregistered.connect(subscriber("korvo.unregistered"));
  return AnyValue();
}

AnyObject SessionService::objectOf(Arguments arguments) const {
  const auto id = argument<std::uint32_t>(arguments, 0, "the id of an object");
  AnyObject object = link()->objects().leased(id);
  if (!object) throw std::runtime_error(fmt::format("there is no object {}", id));
  return object;
}

AnyValue SessionService::release(Arguments arguments) {
  const auto id = argument<std::uint32_t>(arguments, 0, "the id of an object");
  const auto count = argument<std::uint32_t>(arguments, 1, "how many references");
  const AnyObject last = link()->objects().release(id, count);
  return AnyValue();
}

/// A broker does for all of its clients, and keeps each of them to the limit.
void SessionService::requirePlace(std::uint32_t number) {
  if (role_ != Role::Broker) return;
  {
    const HX::MutexLock lock(mutex_);
    if (connections_.size() < kMostConnections || connections_.contains(number)) return;
  }
  const std::string reason =
      fmt::format("{} signals are connected, which is the limit for one client", kMostConnections);
  log::warning("mw.link", "connect", fmt::format("{} gets no more: {}", link()->peer(), reason));
  throw std::runtime_error(reason);
}

Future<AnyValue> SessionService::connect(Arguments arguments) {
  const AnyObject object = objectOf(arguments);
  const auto number = argument<std::uint32_t>(arguments, 2, "the number of a link");
  requirePlace(number);
  const auto* byName = arguments[1].getIf<HXValue>();
  const bool isNamed = byName && byName->isString();
  const int signal = isNamed ? object->metaObject().signalId(byName->asString())
                             : static_cast<int>(argument<std::uint32_t>(arguments, 1, "a signal"));
  if (signal < 0) {
    throw std::runtime_error(
        fmt::format("{}.{}: no such signal", object->metaObject().typeName(), byName ? byName->toString() : ""));
  }
  const SignalSubscriber subscriber(
      AnyFunction::fromParametersFunction([link = link_, number](GenericFunctionParameters emitted) {
        if (const auto held = link.lock()) held->emit(number, emitted);
      }));
  return object->metaConnect(static_cast<unsigned>(signal), subscriber)
      .andThen([self = shared_from_this(), object, number](const SignalLink& made) {
        Connection replaced{object, made};
        {
          const HX::MutexLock lock(self->mutex_);
          if (!self->ended_) std::swap(self->connections_[number], replaced);
        }
        if (replaced.object) replaced.object->disconnect(replaced.link);
        return AnyValue();
      });
}

Future<AnyValue> SessionService::disconnect(Arguments arguments) {
  const auto number = argument<std::uint32_t>(arguments, 0, "the number of a link");
  Connection connection;
  {
    const HX::MutexLock lock(mutex_);
    const auto found = connections_.find(number);
    if (found == connections_.end()) return Future<AnyValue>::ready(AnyValue());
    connection = std::move(found->second);
    connections_.erase(found);
  }
  return connection.object->disconnect(connection.link).andThen([] { return AnyValue(); });
}

Future<AnyValue> SessionService::property(Arguments arguments) {
  return objectOf(arguments)->metaProperty(argument<std::uint32_t>(arguments, 1, "the id of a property"));
}

Future<AnyValue> SessionService::setProperty(Arguments arguments) {
  const auto id = argument<std::uint32_t>(arguments, 1, "the id of a property");
  return objectOf(arguments)->metaSetProperty(id, argument<AnyValue>(arguments, 2, "a value")).andThen([] {
    return AnyValue();
  });
}

void SessionService::end() {
  gate_.drain();
  lifetime_.destroy();
  std::set<ServiceId> services;
  std::map<std::uint32_t, Connection> connections;
  SignalLink onRegistered{};
  SignalLink onUnregistered{};
  {
    const HX::MutexLock lock(mutex_);
    ended_ = true;
    onRegistered = onRegistered_;
    onUnregistered = onUnregistered_;
    services.swap(registered_);
    connections.swap(connections_);
  }
  session_.serviceRegistered.disconnect(onRegistered);
  session_.serviceUnregistered.disconnect(onUnregistered);
  for (auto& [number, connection] : connections) connection.object->disconnect(connection.link);
  for (const ServiceId id : services) session_.unregisterService(id);
}

}  // namespace mw::remote
