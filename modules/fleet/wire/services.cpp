#include "services.h"

#include <hxvalue/json.h>

#include <limits>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace HX::fleet {
namespace {

HXValue number(std::uint64_t count) {
  return count <= std::numeric_limits<std::int32_t>::max() ? HXValue(static_cast<int>(count))
                                                           : HXValue(static_cast<std::int64_t>(count));
}

/// The member of that name, which must be of a status.
const HXValue& required(const HXValue& object, std::string_view name) {
  const HXValue* const found = object.find(name);
  if (!found) throw std::runtime_error(fmt::format("it has no {}", name));
  return *found;
}

std::uint64_t countOf(const HXValue& object, std::string_view name) {
  return static_cast<std::uint64_t>(required(object, name).toInt64());
}

}  // namespace

std::string toPayload(const Status& status, bool isWhole) {
  HXValue::Map map{{"robot", status.robot},
                   {"run", status.run},
                   {"raised", number(status.raised)},
                   {"confirmed", number(status.confirmed)},
                   {"queued", number(status.queued)},
                   {"dropped", number(status.dropped)},
                   {"missed", number(status.missed)},
                   {"keys", number(status.keys)},
                   {"turnedAway", number(status.turnedAway)},
                   {"desired", number(status.desired)},
                   {"time", toText(status.time)}};
  if (isWhole) {
    map["host"] = status.host;
    map["version"] = status.version;
    map["since"] = toText(status.since);
  }
  return toJson(HXValue(std::move(map)));
}

Status toStatus(std::string_view payload) {
  const HXValue object = fromJson(payload);
  Status status;
  status.robot = required(object, "robot").asString();
  status.run = required(object, "run").asString();
  if (object.find("host")) {
    status.host = required(object, "host").asString();
    status.version = required(object, "version").asString();
    status.since = toTime(required(object, "since").asString());
  }
  status.raised = countOf(object, "raised");
  status.confirmed = countOf(object, "confirmed");
  status.queued = countOf(object, "queued");
  status.dropped = countOf(object, "dropped");
  status.missed = countOf(object, "missed");
  status.keys = countOf(object, "keys");
  status.turnedAway = countOf(object, "turnedAway");
  status.desired = countOf(object, "desired");
  status.time = toTime(required(object, "time").asString());
  return status;
}

ServiceFace::ServiceFace(Status status, std::vector<Endpoint> endpoints)
    : status_(std::move(status)), endpoints_(std::move(endpoints)) {}

HXValue::Map ServiceFace::head(std::string_view type) const {
  HXValue::Map map;
  map["type"] = fmt::format("io.nats.micro.v1.{}_response", type);
  map["name"] = std::string(kName);
  map["id"] = status_.robot;
  map["version"] = status_.version;
  map["metadata"] = HXValue::map(
      {{"robot", status_.robot}, {"run", status_.run}, {"host", status_.host}, {"since", toText(status_.since)}});
  return map;
}

HXValue ServiceFace::listed(bool withStatistics) const {
  HXValue all = HXValue::list();
  for (const Endpoint& endpoint : endpoints_) {
    HXValue::Map entry;
    entry["name"] = endpoint.name;
    entry["subject"] = endpoint.subject;
    entry["queue_group"] = "";
    if (withStatistics) {
      const auto known = statistics_.find(endpoint.name);
      const Statistics counted = known == statistics_.end() ? Statistics() : known->second;
      entry["num_requests"] = number(counted.requests);
      entry["num_errors"] = number(counted.errors);
      entry["last_error"] = counted.lastError;
      entry["processing_time"] = number(static_cast<std::uint64_t>(counted.took.count()));
      const auto each = counted.requests == 0 ? 0 : static_cast<std::uint64_t>(counted.took.count()) / counted.requests;
      entry["average_processing_time"] = number(each);
    }
    all.arrayPush(HXValue(std::move(entry)));
  }
  return all;
}

std::string ServiceFace::answer(std::string_view asked) const {
  const std::string_view verb = asked.substr(0, asked.find('.'));
  const std::string_view whom = asked.substr(verb.size());
  const bool isMeant =
      whom.empty() || whom == fmt::format(".{}", kName) || whom == fmt::format(".{}.{}", kName, status_.robot);
  if (!isMeant) return {};
  if (verb == "PING") return toJson(HXValue(head("ping")));
  if (verb == "INFO") {
    auto info = head("info");
    info["description"] = "A robot";
    info["endpoints"] = listed(false);
    return toJson(HXValue(std::move(info)));
  }
  if (verb == "STATS") {
    auto statistics = head("stats");
    statistics["started"] = toText(status_.since);
    statistics["endpoints"] = listed(true);
    return toJson(HXValue(std::move(statistics)));
  }
  return {};
}

void ServiceFace::count(std::string_view endpoint, std::chrono::nanoseconds took, const std::string& failure) {
  auto known = statistics_.find(endpoint);
  if (known == statistics_.end()) known = statistics_.emplace(endpoint, Statistics()).first;
  ++known->second.requests;
  known->second.took += took;
  if (failure.empty()) return;
  ++known->second.errors;
  known->second.lastError = failure;
}

}  // namespace HX::fleet
