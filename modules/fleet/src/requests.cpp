#include "requests.h"

#include <hxcommon/hxbroker.h>
#include <hxcommon/hxmodule.h>
#include <hxproxies/hxmemoryproxy.h>
#include <hxvalue/exactjson.h>
#include <hxvalue/json.h>
#include <libmw/metaobject.h>
#include <libmw/remoteerror.h>

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace HX::fleet {
namespace {

constexpr std::size_t kAtOnce = 32;
constexpr std::size_t kWaiting = 256;
const char* const kMemory = "HXMemory";

/// A failure with the number that programs know it by.
class RequestError : public std::runtime_error {
 public:
  RequestError(int code, const std::string& text) : std::runtime_error(text), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

const std::string& textOf(const HXValue& value, const char* what) {
  const std::string* const text = value.stringIf();
  if (!text) throw RequestError(kWrongArguments, fmt::format("{} is missing, as a text of JSON", what));
  return *text;
}

/// The parts of the subject behind the verb, each the name that `toToken` made it of.
std::string fromToken(const std::string& token) {
  // A slash within it was written as a byte, which `toKey` takes for no key of its own.
  std::string name;
  for (std::size_t begin = 0;;) {
    const auto slash = token.find("=2F", begin);
    const auto part = token.substr(begin, slash - begin);
    if (!part.empty()) name += toKey(part);
    if (slash == std::string::npos) return name;
    name += '/';
    begin = slash + 3;
  }
}

std::vector<std::string> overloads(const mw::MetaObject& object) {
  std::vector<std::string> all;
  for (const mw::MetaMethod& method : object.methods()) {
    if (method.flags == mw::kSameProcessOnly) continue;
    const bool returns = method.resultType && method.resultType->kind != mw::TypeKind::Void;
    all.push_back(method.signature() + (returns ? " -> " + method.resultType->name : ""));
  }
  return all;
}

}  // namespace

bool Permissions::allow(const std::string& service, const std::string& method) const {
  const std::string name = service + "/" + method;
  return allowed.match(name) && !denied.match(name);
}

Requests::Requests(HXModule& module, FleetSubjects subjects, Permissions permissions,
                   std::function<bool(std::string_view key)> exports)
    : module_(module),
      subjects_(std::move(subjects)),
      permissions_(std::move(permissions)),
      exports_(std::move(exports)) {}

Requests::~Requests() { end(); }

void Requests::listen(const std::shared_ptr<Connection>& connection, const Status& status) {
  constexpr std::array<std::pair<const char*, const char*>, 7> kVerbs{{{"get", ""},
                                                                       {"list", ""},
                                                                       {"describe", ""},
                                                                       {"set", ".>"},
                                                                       {"raise", ".>"},
                                                                       {"remove", ".>"},
                                                                       {"call", ".*.*"}}};
  std::vector<ServiceFace::Endpoint> endpoints;
  for (const auto& [verb, tail] : kVerbs) endpoints.push_back({verb, subjects_.of(status.robot, verb) + tail});
  const auto face = std::make_shared<ServiceFace>(status, endpoints);
  const std::weak_ptr<Connection> weak = connection;
  for (const auto& endpoint : endpoints) {
    const std::size_t begin = subjects_.of(status.robot, endpoint.name).size() + 1;
    connection->subscribe(endpoint.subject, [this, weak, face, verb = endpoint.name, begin](Message message) {
      const auto subject = message.subject();
      std::string tail(subject.substr(std::min(begin, subject.size())));
      take({weak, face, std::move(message), verb, std::move(tail)});
    });
  }
  connection->subscribe("$SRV.>", [this, weak, face](const Message& message) {
    std::string text;
    {
      const MutexLock lock(faceMutex_);
      text = face->answer(message.subject().substr(std::string_view("$SRV.").size()));
    }
    const auto held = weak.lock();
    if (text.empty() || message.reply().empty() || !held) return;
    try {
      held->publish(message.reply(), text);
    } catch (const std::exception&) {  // It has ended.
    }
  });
}

void Requests::take(Request request) {
  const auto shared = std::make_shared<const Request>(std::move(request));
  {
    const MutexLock lock(mutex_);
    if (ended_) return;
    if (running_ < kAtOnce) {
      ++running_;
    } else if (waiting_.size() < kWaiting) {
      waiting_.push_back(shared);
      return;
    } else {
      const Failure failure = toFailure(std::runtime_error("too many requests are waiting"), kTooMany);
      return answer(*shared, failure.body, &failure);
    }
  }
  runNext(shared);
}

/// Posts a request whose place among those that run is taken.
void Requests::runNext(const RequestPointer& request) {
  const auto broker = module_.findParentBroker();
  const auto run = [this, request] {
    serve(*request);
    RequestPointer next;
    {
      const MutexLock lock(mutex_);
      if (waiting_.empty() || ended_) {
        --running_;
        changed_.notify_all();
      } else {
        next = std::move(waiting_.front());
        waiting_.pop_front();
      }
    }
    if (next) runNext(next);
  };
  if (broker && broker->session()->eventLoop().post(run)) return;
  const MutexLock lock(mutex_);
  --running_;
  changed_.notify_all();
}

void Requests::end() {
  MutexLock lock(mutex_);
  ended_ = true;
  waiting_.clear();
  changed_.wait(lock.native(), [&]() HX_REQUIRES(mutex_) { return running_ == 0; });
}

void Requests::serve(const Request& request) {
  const auto begin = std::chrono::steady_clock::now();
  std::optional<Failure> failure;
  HXValue result;
  try {
    result = perform(request);
  } catch (const RequestError& error) {
    failure = toFailure(error, error.code());
  } catch (const mw::NoSuchMethodError& error) {
    failure = toFailure(error, kWrongArguments);
  } catch (const std::exception& error) {
    failure = toFailure(error);
  }
  {
    const MutexLock lock(faceMutex_);
    request.face->count(request.verb, std::chrono::steady_clock::now() - begin, failure ? failure->text : "");
  }
  answer(request, failure ? failure->body : toJson(result), failure ? &*failure : nullptr);
}

void Requests::answer(const Request& request, const std::string& data, const Failure* failure) {
  const auto connection = request.connection.lock();
  const std::string reply = request.message.reply();
  if (!connection || reply.empty()) return;
  Letter letter{reply, data};
  if (failure) {
    std::string line = failure->text;
    std::ranges::replace_if(
        line, [](char c) { return c == '\n' || c == '\r'; }, ' ');
    letter.headers = {{"Nats-Service-Error-Code", std::to_string(failure->code)}, {"Nats-Service-Error", line}};
  }
  const std::size_t most = connection->largestMessage();
  constexpr std::size_t kHeaders = 512;
  if (most > kHeaders && data.size() > most - kHeaders) {
    const Failure tooLarge = toFailure(
        std::runtime_error(fmt::format("the answer has {} bytes, and the server takes {}", data.size(), most)));
    return answer(request, tooLarge.body, &tooLarge);
  }
  try {
    connection->publish(letter);
  } catch (const std::exception&) {  // It has ended; so whoever asked is told by the server.
  }
}

HXValue Requests::perform(const Request& request) {
  HXValue argument;
  std::string tail;
  try {
    if (!request.message.data().empty()) argument = fromJson(request.message.data());
    if (!request.tail.empty() && request.verb != "call") tail = toKey(request.tail);
  } catch (const std::exception& error) {
    throw RequestError(kWrongArguments, error.what());
  }
  if (request.verb == "get") return get(argument);
  if (request.verb == "list") return list(argument);
  if (request.verb == "describe") return describe(argument);
  if (request.verb != "call") return change(request.verb, tail, argument);
  const auto dot = request.tail.find('.');
  return call(fromToken(request.tail.substr(0, dot)), fromToken(request.tail.substr(dot + 1)), argument);
}

void Requests::requireVisible(const std::string& key) const {
  if (!exports_(key)) throw RequestError(kNotFound, fmt::format("there is no key {} that the fleet may see", key));
}

void Requests::requireAllowed(const std::string& service, const std::string& method) const {
  if (permissions_.allow(service, method)) return;
  throw RequestError(kNotAllowed, fmt::format("{}.{} is not allowed from the fleet", service, method));
}

/// One value, or those of a list of keys.
HXValue Requests::get(const HXValue& key) {
  if (key.isList()) {
    HXValue all = HXValue::list();
    for (const HXValue& each : key.asList()) all.arrayPush(get(each));
    return all;
  }
  const std::string& name = textOf(key, "a key");
  requireVisible(name);
  try {
    return module_.memory().getData(name);
  } catch (const HXError& error) {
    throw RequestError(kNotFound, error.what());
  }
}

HXValue Requests::list(const HXValue& pattern) {
  const Pattern wanted(pattern.isValid() ? textOf(pattern, "a pattern") : "**");
  auto keys = module_.memory().getDataListName();
  std::erase_if(keys, [&](const std::string& key) { return !wanted.matches(key) || !exports_(key); });
  std::ranges::sort(keys);
  return HXValue(keys);
}

/// The methods of a service, or, without one, of all services that may be called.
HXValue Requests::describe(const HXValue& service) {
  const auto broker = module_.getParentBroker();
  HXValue::Map all;
  for (const mw::ServiceInfo& info : broker->session()->reachableServices().value()) {
    if (service.isValid() && info.name != textOf(service, "a service")) continue;
    const auto proxy = broker->getProxy(info.name);
    if (!proxy) continue;
    auto methods = overloads(proxy->asObject()->metaObject());
    std::erase_if(methods, [&](const std::string& method) {
      return !permissions_.allow(info.name, method.substr(0, method.find('(')));
    });
    if (!methods.empty()) all[info.name] = HXValue(methods);
  }
  if (service.isValid() && all.empty()) throw RequestError(kNotFound, fmt::format("no service {}", service.toString()));
  return HXValue(std::move(all));
}

HXValue Requests::change(const std::string& verb, const std::string& key, const HXValue& value) {
  requireVisible(key);
  auto memory = module_.memory();
  if (verb == "set") {
    requireAllowed(kMemory, "insertData");
    memory.insertData(key, value);
    return {};
  }
  std::string kind;
  try {
    kind = memory.getType(key);
  } catch (const HXError& error) {
    if (verb == "remove") throw RequestError(kNotFound, error.what());
  }
  const bool isMicro = kind == "MicroEvent";
  const bool isRaise = verb == "raise";
  const char* const method = isRaise ? (isMicro ? "raiseMicroEvent" : "raiseEvent")
                                     : (isMicro           ? "removeMicroEvent"
                                        : kind == "Event" ? "removeEvent"
                                                          : "removeData");
  requireAllowed(kMemory, method);
  if (isRaise) {
    memory.proxy()->call(method, key, value);
  } else {
    memory.proxy()->call(method, key);
  }
  return {};
}

HXValue Requests::call(const std::string& service, const std::string& method, const HXValue& arguments) {
  if (arguments.isValid() && !arguments.isList()) throw RequestError(kWrongArguments, "the arguments are no list");
  requireAllowed(service, method);
  const auto proxy = module_.getParentBroker()->getProxy(service);
  if (!proxy) throw RequestError(kNotFound, fmt::format("no service {}", service));
  const mw::AnyObject object = proxy->asObject();
  if (object->metaObject().findMethods(method).empty()) {
    throw RequestError(kNotFound, fmt::format("{}.{}: no such method", service, method));
  }
  std::vector<mw::AnyReference> parameters;
  const HXValue::List none;
  for (const HXValue& argument : arguments.isValid() ? arguments.asList() : none) {
    parameters.push_back(mw::AnyReference::of(argument));
  }
  const mw::AnyValue result = object->callNow(object->metaObject().resolve(method, parameters).id, parameters);
  HXValue value;
  if (result.reference().type() && !result.reference().toValue(value)) {
    throw std::runtime_error(fmt::format("{}.{} returns no value, but an object", service, method));
  }
  return value;
}

}  // namespace HX::fleet
