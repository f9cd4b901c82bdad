#include "metrics.h"

#include "metricstext.h"

#include <hxjournal/filter.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <fstream>
#include <map>
#include <unistd.h>

namespace HX::web {
namespace {

constexpr std::size_t kMostKeys = 1000;

void addChanges(MetricsText& text, const Tree& tree) {
  constexpr std::array<std::string_view, journal::kWhats> kNames{"stored",   "raised",    "raised_micro",
                                                                 "declared", "described", "removed"};
  text.family("korvo_changes_total", "counter", "Changes of the memory since it is followed, by what happened.");
  for (std::uint8_t what = 0; what < journal::kWhats; ++what) {
    text.sample(static_cast<double>(tree.changesOf(static_cast<journal::What>(what))), {{"what", kNames[what]}});
  }
}

void addKeys(MetricsText& text, const Tree& tree) {
  // By the memory's numbers of its kinds.
  constexpr std::array<std::pair<std::uint8_t, std::string_view>, 3> kKinds{
      {{std::uint8_t{1}, "data"}, {std::uint8_t{3}, "event"}, {std::uint8_t{4}, "micro_event"}}};
  text.family("korvo_keys", "gauge", "Keys of the memory, by kind.");
  for (const auto& [kind, name] : kKinds) text.sample(tree.keysOf(kind), {{"kind", name}});
}

bool isWanted(std::string_view key, const std::vector<std::string>& patterns) {
  return std::ranges::any_of(patterns, [&](const auto& each) { return journal::Filter::globMatches(each, key); });
}

/// Of the chosen keys those with numbers, the same ones each time.
std::vector<const Node*> chosen(const Tree& tree, const std::vector<std::string>& patterns) {
  std::vector<const Node*> nodes;
  for (const auto& [key, node] : tree.all()) {
    if (isWanted(key, patterns) && numberAt(node->value, {})) nodes.push_back(node);
  }
  std::ranges::sort(nodes, [](const Node* a, const Node* b) { return a->path < b->path; });
  return nodes;
}

void addValues(MetricsText& text, const Tree& tree, const std::vector<std::string>& patterns) {
  if (patterns.empty()) return;
  std::vector<const Node*> nodes = chosen(tree, patterns);
  const std::size_t left = nodes.size() > kMostKeys ? nodes.size() - kMostKeys : 0;
  nodes.resize(nodes.size() - left);
  text.family("korvo_key_value", "gauge", "The number that a chosen key holds; a bool is 0 or 1.");
  for (const Node* node : nodes) text.sample(*numberAt(node->value, {}), {{"key", node->path}});
  text.family("korvo_key_age_seconds", "gauge", "Since when a chosen key has not been written.");
  const double now = millisecondsOf(std::chrono::system_clock::now());
  for (const Node* node : nodes) text.sample(std::max(0.0, now - node->time) / 1000, {{"key", node->path}});
  text.family("korvo_keys_not_told", "gauge", "Chosen keys beyond the number that is told.");
  text.sample(static_cast<double>(left));
}

void addSubscribers(MetricsText& text, const HXValue& figures, std::uint64_t dropped) {
  text.family("korvo_subscriptions", "gauge", "Subscriptions to events.");
  text.sample(figures["subscriptions"].toDouble());
  text.family("korvo_subscriptions_slow", "gauge", "Subscriptions whose last call took 100 ms or more.");
  text.sample(figures["slow"].toDouble());
  text.family("korvo_subscriptions_dropped_total", "counter", "Subscriptions that ended because their calls failed.");
  text.sample(static_cast<double>(dropped));
  std::vector<double> bounds;
  for (const HXValue& bound : figures["bounds"].asList()) bounds.push_back(bound.toDouble());
  text.family("korvo_subscriber_call_seconds", "histogram", "How long subscribers took when they were called.");
  for (const HXValue& each : figures["calls"].asList()) {
    std::vector<std::uint64_t> counts;
    for (const HXValue& count : each[1].asList()) counts.push_back(static_cast<std::uint64_t>(count.toInt64()));
    text.histogram(bounds, counts, each[2].toDouble(), {{"subscriber", each[0].asString()}});
  }
}

/// By their names, of which several may have one.
void addFollowers(MetricsText& text, const HXValue& followers) {
  struct Sum {
    double count = 0, behind = 0, gaps = 0;
  };
  std::map<std::string, Sum> byName;
  for (const HXValue& each : followers.asList()) {
    Sum& sum = byName[each["who"].asString()];
    sum.count += 1;
    sum.behind = std::max(sum.behind, each["behind"].toDouble());
    sum.gaps += each["gaps"].toDouble();
  }
  text.family("korvo_followers", "gauge", "Who follows the changes, and how many of that name.");
  for (const auto& [name, sum] : byName) text.sample(sum.count, {{"follower", name}});
  text.family("korvo_follower_behind", "gauge", "Changes that a follower has not been told yet; of several the most.");
  for (const auto& [name, sum] : byName) text.sample(sum.behind, {{"follower", name}});
  text.family("korvo_follower_gaps", "gauge", "How often a present follower has missed changes.");
  for (const auto& [name, sum] : byName) text.sample(sum.gaps, {{"follower", name}});
}

/// Lists of [key, age, limit, whether it is overdue].
void addFreshness(MetricsText& text, const HXValue& expectations) {
  text.family("korvo_key_overdue", "gauge", "Whether an expected key has not been written in time.");
  for (const HXValue& each : expectations.asList()) {
    text.sample(each[3].toBool() ? 1 : 0, {{"key", each[0].asString()}});
  }
  text.family("korvo_key_silence_seconds", "gauge", "Since when an expected key has not been written.");
  for (const HXValue& each : expectations.asList()) text.sample(each[1].toDouble(), {{"key", each[0].asString()}});
}

void addProcess(MetricsText& text) {
  double pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  text.family("process_resident_memory_bytes", "gauge", "Memory of this process.");
  text.sample(pages * static_cast<double>(sysconf(_SC_PAGESIZE)));
}

}  // namespace

std::string metricsOf(const Tree& tree, const std::vector<std::string>& keys, const ServerFigures& figures) {
  MetricsText text;
  text.family("korvo_info", "gauge", "Which version this is.");
  text.sample(1, {{"version", figures.version}});
  text.family("korvo_memory_complete", "gauge", "Whether the figures of the memory are whole, or still being read.");
  text.sample(tree.isComplete() ? 1 : 0);
  addKeys(text, tree);
  addChanges(text, tree);
  text.family("korvo_journal_gaps_total", "counter", "How often changes came faster than they were followed.");
  text.sample(static_cast<double>(tree.gaps()));
  text.family("korvo_web_connections", "gauge", "Open connections to this server.");
  text.sample(static_cast<double>(figures.connections));
  text.family("korvo_web_batches_total", "counter", "Batches that pages were sent.");
  text.sample(static_cast<double>(figures.pageBatches));
  if (figures.journal.isMap()) {
    addSubscribers(text, figures.journal, figures.dropped);
    addFollowers(text, figures.journal["followers"]);
  }
  if (figures.freshness.isList()) addFreshness(text, figures.freshness);
  addValues(text, tree, keys);
  addProcess(text);
  return text.take();
}

}  // namespace HX::web
