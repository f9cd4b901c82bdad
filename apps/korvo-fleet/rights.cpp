#include "rights.h"

#include <algorithm>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace korvo::fleet {
namespace {

std::string user(const std::string& name, const std::string& key, const std::vector<std::string>& publish,
                 const std::vector<std::string>& subscribe) {
  return fmt::format(
      "  # {}\n  {{ nkey: {}, permissions: {{\n      publish: {{ allow: [\"{}\"] }}\n"
      "      subscribe: {{ allow: [\"{}\"] }}\n      allow_responses: true }} }}\n",
      name, key, fmt::join(publish, "\", \""), fmt::join(subscribe, "\", \""));
}

}  // namespace

std::string robotUser(const HX::fleet::FleetSubjects& subjects, const std::string& robot, const std::string& publicKey,
                      const std::vector<std::string>& followed) {
  using HX::fleet::FleetSubjects;
  // The server checks rights once it has taken the domain out of a subject.
  const std::string desired = FleetSubjects::stored(subjects.desiredBucket(), robot);
  std::vector<std::string> publish{subjects.of(robot, ">"), FleetSubjects::stored(subjects.valueBucket(), robot + ".>"),
                                   FleetSubjects::stored(subjects.statusBucket(), robot),
                                   fmt::format("$JS.API.DIRECT.GET.KV_{}.{}", subjects.desiredBucket(), desired),
                                   fmt::format("$SRV.PING.korvo.{}", robot)};
  std::vector<std::string> subscribe{subjects.of(robot, ">"), "$SRV.>", fmt::format("_INBOX.{}.>", robot)};
  for (const std::string& other : followed) {
    publish.push_back(subjects.of(other, "describe"));
    publish.push_back(subjects.of(other, "call.>"));
    subscribe.push_back(subjects.event(other, ">"));
    subscribe.push_back(FleetSubjects::stored(subjects.valueBucket(), other + ".>"));
  }
  if (!followed.empty()) publish.push_back(fmt::format("$JS.API.CONSUMER.CREATE.KV_{}", subjects.valueBucket()));
  if (std::ranges::count(followed, kAllRobots) > 0) {
    subscribe.push_back(subjects.of("*", "status"));
    publish.push_back(fmt::format("$JS.API.CONSUMER.CREATE.KV_{}", subjects.statusBucket()));
  }
  return user(robot, publicKey, publish, subscribe);
}

std::string operatorUser(const HX::fleet::FleetSubjects& subjects, const std::string& name,
                         const std::string& publicKey) {
  using HX::fleet::FleetSubjects;
  const std::string desired = FleetSubjects::stored(subjects.desiredBucket(), ">");
  return user(name, publicKey, {subjects.fleet() + ".>", desired, "$SRV.>", "$JS.API.>"},
              {subjects.fleet() + ".>", "$KV.>", "_INBOX.>"});
}

}  // namespace korvo::fleet
