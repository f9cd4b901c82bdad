#include "hxfleet.h"

#include <hxcommon/settings.h>

#include <algorithm>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

// What the module is told when it starts.

namespace HX {
namespace {

std::vector<std::string> textsOf(const HXValue& list) {
  std::vector<std::string> texts;
  for (const HXValue& text : list.asList()) texts.push_back(text.asString());
  return texts;
}

std::vector<std::string> commaSeparated(const std::string& text) {
  std::vector<std::string> parts;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    if (end > begin) parts.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

std::string hostName() {
  std::string name(256, '\0');
  if (::gethostname(name.data(), name.size() - 1) != 0) return "host";
  name.resize(name.find('\0'));
  return name;
}

}  // namespace

void HXFleet::addSettings() {
  addSetting(Setting::text("url", "nats://127.0.0.1:4222", "The hub's servers, with commas between them.").required());
  addSetting(Setting::text("robot", "", "What this robot is called in the fleet; the machine's name by default."));
  addSetting(Setting::text("fleet", "fleet", "What the fleet is called."));
  addSetting(Setting::text("domain", "hub", "Of the hub's store."));
  addSetting(Setting::text("ca", "", "File of the certificate that the hub's is signed with."));
  addSetting(Setting::text("seed", "", "File with this robot's key, which only its owner may read."));
  addSetting(Setting::flag("insecure", false, "Let a plain connection leave this machine."));
  addSetting(Setting::texts("export", {"**"}, "Keys that the fleet may see: * is one part of a key, ** the rest."));
  addSetting(Setting::texts("hide", {"_*", "_*/**", "HXMemory/**", "HXFleet/**"}, "Keys among them that it may not."));
  addSetting(Setting::texts("keep", {}, "Events that are stored by the hub, each once and in order."));
  addSetting(Setting::texts("live", {}, "Events among them that are not."));
  addSetting(Setting::texts("follow", {}, "Other robots, whose keys and services are to be here under their names."));
  addSetting(
      Setting::texts("allow", {"**"}, "What the fleet may call: Arm/stop, Arm/*. What changes keys is HXMemory/*."));
  addSetting(Setting::texts("deny", {"Broker/*", "HXFleet/*"}, "What among that it may not."));
}

void HXFleet::readSettings() {
  const HXValue& given = settings();
  const auto tryTo = [&](const char* what, const auto& action) {
    try {
      action();
    } catch (const std::exception& error) {
      refuseSetting(what, error.what());
    }
  };
  access_.servers = commaSeparated(given["url"].asString());
  access_.authority = given["ca"].asString();
  access_.seed = given["seed"].asString();
  access_.insecure = given["insecure"].asBool();
  tryTo("url", [&] { check(access_); });
  host_ = hostName();
  robot_ = given["robot"].asString();
  if (robot_.empty()) {
    robot_ = host_;
    std::ranges::replace_if(
        robot_, [](char c) { return !fleet::isName(std::string(1, c)); }, '-');
  }
  if (!fleet::isName(robot_)) {
    refuseSetting("robot", fmt::format("\"{}\" is no name of a robot: letters, digits, _ and -, 64 at most", robot_));
  }
  tryTo("fleet", [&] { subjects_.emplace(given["fleet"].asString(), given["domain"].asString()); });
  followed_ = textsOf(given["follow"]);
  fleet::Selection selection;
  std::vector<std::string> others;
  for (const std::string& robot : followed_) {
    if (!fleet::isName(robot)) refuseSetting("follow", fmt::format("\"{}\" is no name of a robot", robot));
    if (robot == robot_) refuseSetting("follow", "a robot cannot follow itself");
    others.push_back(robot + "/**");
  }
  for (const auto& [name, patterns] :
       {std::pair{"export", &selection.exported}, std::pair{"hide", &selection.hidden},
        std::pair{"keep", &selection.kept}, std::pair{"live", &selection.live},
        std::pair{"allow", &permissions_.allowed}, std::pair{"deny", &permissions_.denied}}) {
    const char* const setting = name;
    fleet::Patterns* const read = patterns;
    tryTo(setting, [&] { *read = fleet::Patterns(textsOf(given[setting])); });
  }
  settings();  // Throws when one was refused: there is nothing to set up then.
  selection.others = fleet::Patterns(others);
  outgoing_.emplace(std::move(selection), fleet::Outgoing::Bounds());
}

}  // namespace HX
