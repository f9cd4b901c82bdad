#include "viewersession.h"

#include <hxvalue/json.h>

#include <stdexcept>
#include <utility>

#include <fmt/format.h>

// What a viewer wishes: see ViewerSession.

namespace HX::web {
namespace {

constexpr std::size_t kSubscriptions = 2000;
constexpr std::size_t kPublished = 1000;

std::uint32_t wholeOf(const HXValue& value) {
  const std::int64_t number = value.toInt64();
  if (number < 0 || number > UINT32_MAX) throw std::runtime_error(value.toString() + " is no number of anything");
  return static_cast<std::uint32_t>(number);
}

std::vector<std::string> namesIn(const HXValue& wish) {
  std::vector<std::string> names;
  for (const HXValue& name : wish["parameterNames"].asList()) names.push_back(name.asString());
  return names;
}

/// Answers go back with the name of their question.
void addId(HXValue::Map& answer, const HXValue& wish) {
  if (const HXValue* const id = wish.find("id"); id && id->isString()) answer.emplace("id", *id);
}

}  // namespace

const std::map<std::string_view, ViewerSession::Operation>& ViewerSession::operations() {
  static const std::map<std::string_view, Operation> all{
      {"subscribe", &ViewerSession::subscribe},
      {"unsubscribe", &ViewerSession::unsubscribe},
      {"advertise", &ViewerSession::advertise},
      {"unadvertise", &ViewerSession::unadvertise},
      {"getParameters", &ViewerSession::getParameters},
      {"setParameters", &ViewerSession::setParameters},
      {"subscribeParameterUpdates", &ViewerSession::subscribeParameters},
      {"unsubscribeParameterUpdates", &ViewerSession::unsubscribeParameters},
      {"subscribeConnectionGraph", &ViewerSession::subscribeGraph},
      {"unsubscribeConnectionGraph", &ViewerSession::unsubscribeGraph},
  };
  return all;
}

void ViewerSession::requireRight() const {
  if (right_ != Right::Write) {
    throw std::runtime_error("this connection may only look: start the server with --allow-write, and use its token");
  }
}

// --- Channels
// ---------------------------------------------------------------------------------------------------------

void ViewerSession::subscribe(const HXValue& wish) {
  for (const HXValue& each : wish["subscriptions"].asList()) {
    const std::uint32_t id = wholeOf(each["id"]);
    const std::uint32_t channel = wholeOf(each["channelId"]);
    const std::string key(channels_.keyOf(channel));
    if (key.empty()) {
      complain(fmt::format("there is no channel {}", channel));
    } else if (subscriptions_.contains(id) || subscribed_.contains(channel)) {
      complain(fmt::format("channel {} or subscription {} is subscribed already", channel, id));
    } else if (subscriptions_.size() == kSubscriptions) {
      complain(fmt::format("{} subscriptions are the most", kSubscriptions));
    } else {
      subscriptions_[id] = channel;
      subscribed_[channel] = id;
      channels_.find(key)->revision = 0;  // Its state is told anew.
    }
  }
  followWanted();
}

void ViewerSession::unsubscribe(const HXValue& wish) {
  for (const HXValue& each : wish["subscriptionIds"].asList()) {
    const auto found = subscriptions_.find(wholeOf(each));
    if (found == subscriptions_.end()) continue;
    subscribed_.erase(found->second);
    subscriptions_.erase(found);
  }
  followWanted();
}

void ViewerSession::advertise(const HXValue& wish) {
  requireRight();
  for (const HXValue& each : wish["channels"].asList()) {
    const std::string& topic = each["topic"].asString();
    if (each["encoding"] != HXValue("json")) {
      complain(topic + " is not published: messages are JSON here, and not " + each["encoding"].toString());
    } else if (published_.size() == kPublished) {
      complain(fmt::format("{} channels are the most", kPublished));
    } else {
      published_[wholeOf(each["id"])] = topic;
    }
  }
}

void ViewerSession::unadvertise(const HXValue& wish) {
  for (const HXValue& each : wish["channelIds"].asList()) published_.erase(wholeOf(each));
}

void ViewerSession::publish(const viewer::Request& request) {
  requireRight();
  const auto found = published_.find(request.channel);
  if (found == published_.end()) throw std::runtime_error(fmt::format("channel {} is not advertised", request.channel));
  HXValue value = fromJson(request.payload);
  // What we send has the value in an entry, and what comes back of it is the same.
  if (value.isMap() && value.getSize() == 1 && value.find("value")) value = HXValue(value["value"]);
  send([topic = found->second, value = std::move(value)](const Errands& errands) -> Reply {
    errands.raise(topic, value);
    return {};
  });
}

// --- Parameters
// -------------------------------------------------------------------------------------------------------

void ViewerSession::getParameters(const HXValue& wish) {
  send([wish, parameters = parameters_](const Errands& errands) -> Reply {
    HXValue::Map answer{{"parameters", parameters->values(errands, namesIn(wish))}};
    addId(answer, wish);
    return [answer = std::move(answer)](const ViewerSession& self) { self.tell("parameterValues", answer); };
  });
}

void ViewerSession::setParameters(const HXValue& wish) {
  requireRight();
  send([wish, parameters = parameters_](const Errands& errands) -> Reply {
    std::vector<std::string> names;
    std::map<std::string, std::string> errors;
    for (const HXValue& each : wish["parameters"].asList()) {
      names.push_back(each["name"].asString());
      try {
        parameters->set(errands, each);
      } catch (const std::exception& error) {
        errors[names.back()] = error.what();
      }
    }
    HXValue::List values = names.empty() ? HXValue::List() : parameters->values(errands, names);
    return
        [wish, errors, values = std::move(values)](const ViewerSession& self) { self.tellSet(wish, values, errors); };
  });
}

/// Viewers show what they wish for, so they are told what stands, refused or not; but for what they are told anyway,
/// since some answer each telling with a wish.
void ViewerSession::tellSet(const HXValue& wish, HXValue::List values,
                            const std::map<std::string, std::string>& errors) const {
  const HXValue* const id = wish.find("id");
  if (!id) {
    std::erase_if(values, [&](const HXValue& each) {
      const std::string& name = each["name"].asString();
      return parameterKeys_.contains(name) && !errors.contains(name);
    });
  }
  HXValue::Map answer{{"parameters", std::move(values)}};
  addId(answer, wish);
  if (id || answer.at("parameters").getSize() > 0) tell("parameterValues", answer);
  for (const auto& [name, error] : errors) complain(error);
}

void ViewerSession::subscribeParameters(const HXValue& wish) {
  for (std::string& name : namesIn(wish)) {
    if (parameterKeys_.size() < ViewerParameters::kMost) parameterKeys_.insert(std::move(name));
  }
  followWanted();
}

void ViewerSession::unsubscribeParameters(const HXValue& wish) {
  for (const std::string& name : namesIn(wish)) parameterKeys_.erase(name);
  followWanted();
}

// --- The graph, and services
// --------------------------------------------------------------------------------------------------------

void ViewerSession::subscribeGraph(const HXValue& /*wish*/) {
  wantsGraph_ = true;
  graph_ = {};
}

void ViewerSession::unsubscribeGraph(const HXValue& /*wish*/) { wantsGraph_ = false; }

void ViewerSession::call(const viewer::Request& request) {
  const auto fail = [this, service = request.service, call = request.call](const std::string& why) {
    tell("serviceCallFailure", {{"serviceId", service}, {"callId", call}, {"message", why}});
  };
  try {
    requireRight();
    const auto name = offered_.find(request.service);
    if (name == offered_.end()) throw std::runtime_error(fmt::format("there is no service {}", request.service));
    if (request.encoding != "json") throw std::runtime_error("arguments are JSON here");
    const ViewerService& service = known_.at(name->second);
    const HXValue wish = HXValue::map({{"service", service.service},
                                       {"method", service.method},
                                       {"arguments", argumentsOf(service, std::string(request.payload))}});
    send([wish, service = request.service, call = request.call](const Errands& errands) -> Reply {
      try {
        return [service, call, answer = toJson(errands.call(wish))](const ViewerSession& self) {
          self.socket_->send(viewer::answerFrame(service, call, answer));
        };
      } catch (const std::exception& error) {
        return [service, call, why = std::string(error.what())](const ViewerSession& self) {
          self.tell("serviceCallFailure", {{"serviceId", service}, {"callId", call}, {"message", why}});
        };
      }
    });
  } catch (const std::exception& error) {
    fail(error.what());
  }
}

}  // namespace HX::web
