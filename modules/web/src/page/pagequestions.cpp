#include "pagesession.h"

#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

// What a page asks others for: see PageSession.

namespace HX::web {
namespace {

constexpr std::size_t kSignals = 16;

/// Data by the first parts of its names, with who writes it: [path, number, how many keys, authors].
HXValue dataGroups(const Tree& tree) {
  constexpr std::size_t kMost = 100;
  constexpr std::uint8_t kData = 1;
  struct Group {
    std::string path;
    std::uint32_t keys = 0;
    std::set<std::string> authors;
  };
  std::map<std::uint32_t, Group> groups;
  for (const auto& [key, node] : tree.all()) {
    if (node->kind != kData) continue;
    const Node* top = node;
    while (top->parent && top->parent->parent) top = top->parent;
    Group& group = groups[top->id];
    group.path = top->path;
    ++group.keys;
    if (node->author != 0) group.authors.insert(tree.authors()[node->author]);
  }
  HXValue::List told;
  for (const auto& [id, group] : groups) {
    if (told.size() == kMost) break;
    const std::vector<std::string> authors(group.authors.begin(), group.authors.end());
    told.push_back(HXValue::list({group.path, id, group.keys, HXValue(authors)}));
  }
  return told;
}

std::string nameOf(const HXValue& wish) { return wish["service"].asString() + "." + wish["signal"].asString(); }

}  // namespace

void PageSession::values(const HXValue& wish) {
  send(wish, [keys = wish["keys"]](const Errands& errands) { return errands.values(keys); });
}

void PageSession::about(const HXValue& wish) {
  send(wish, [key = wish["key"].asString()](const Errands& errands) { return errands.about(key); });
}

void PageSession::services(const HXValue& wish) {
  send(wish, [](const Errands& errands) { return HXValue::map({{"services", errands.services()}}); });
}

void PageSession::describe(const HXValue& wish) {
  send(wish, [service = wish["service"].asString()](const Errands& errands) { return errands.describe(service); });
}

void PageSession::wiring(const HXValue& wish) {
  send(wish, [data = dataGroups(*services_->model->lock())](const Errands& errands) {
    HXValue told = errands.wiring();
    told.mapSet("data", data);
    return told;
  });
}

/// How the memory is, in the words of the journal.
void PageSession::health(const HXValue& wish) {
  send(wish, [](const Errands& errands) {
    return HXValue::map(
        {{"report", errands.ask("HXJournal", "report")}, {"expectations", errands.ask("HXFreshness", "expectations")}});
  });
}

void PageSession::fleet(const HXValue& wish) {
  send(wish, [](const Errands& errands) { return errands.fleet(); });
}

/// What is shown beside everything else: which keys are overdue, whether there is a recording, and a fleet.
void PageSession::standing(const HXValue& wish) {
  send(wish, [](const Errands& errands) {
    return HXValue::map({{"expectations", errands.ask("HXFreshness", "expectations")},
                         {"recorder", errands.ask("HXRecorder", "state")},
                         {"fleet", errands.ask("HXFleet", "status")}});
  });
}

/// Who is called for some keys, and how long that took.
void PageSession::subscribers(const HXValue& wish) {
  send(wish, [keys = wish["keys"]](const Errands& errands) {
    return HXValue::map({{"subscribers", errands.ask("HXJournal", "subscribers", &keys)}});
  });
}

void PageSession::listen(const HXValue& wish) {
  const std::string name = nameOf(wish);
  if (const auto found = signals_.find(name); found != signals_.end()) {
    if (wish["on"].asBool()) return reply(wish, HXValue::map());
    found->second->end(services_->loop);
    signals_.erase(found);
    return reply(wish, HXValue::map());
  }
  if (!wish["on"].asBool()) return reply(wish, HXValue::map());
  if (signals_.size() == kSignals) throw std::runtime_error("so many signals are too many");
  const auto watch = signals_[name] = std::make_shared<SignalWatch>();
  send(wish, [watch, service = wish["service"].asString(), signal = wish["signal"].asString()](const Errands& errands) {
    watch->begin(errands.object(service), signal);
    return HXValue::map();
  });
}

void PageSession::endSignals() {
  for (const auto& [name, watch] : signals_) watch->end(services_->loop);
  signals_.clear();
}

HXValue PageSession::takeEmissions() {
  HXValue::List told;
  for (const auto& [name, watch] : signals_) {
    std::uint64_t count = 0;
    HXValue::List emissions;
    for (auto& [arguments, time] : watch->take(count)) emissions.push_back(HXValue::list({arguments, time}));
    if (count > 0) told.push_back(HXValue::list({name, static_cast<std::int64_t>(count), std::move(emissions)}));
  }
  return told;
}

}  // namespace HX::web
