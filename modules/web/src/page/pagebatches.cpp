#include "batch.h"
#include "pagesession.h"

#include <hxvalue/json.h>

#include <algorithm>

// What a page is sent of its own accord: see PageSession.

namespace HX::web {
namespace {

constexpr std::size_t kLargeValue = 256 << 10;
constexpr std::size_t kRaisesAtOnce = 300;

/// Whole where that is of a size that somebody reads.
HXValue wholeOrBrief(const HXValue& value) {
  std::string line = brief(value, kLargeValue);
  return line.size() < kLargeValue ? value : HXValue(std::move(line));
}

}  // namespace

void PageSession::sendState() {
  std::string trouble = services_->model->trouble();
  if (trouble == trouble_) return;
  trouble_ = std::move(trouble);
  socket_->send(Message::text(toJson(HXValue::map({{"op", "state"}, {"trouble", trouble_}}))));
}

void PageSession::tick() {
  if (!socket_) return;
  sendState();
  if (sent_ != drawn_) return;
  Batch batch;
  HXValue emissions = takeEmissions();
  const bool isEmitted = emissions.getSize() > 0;
  if (isEmitted) batch.add("emitted", std::move(emissions));
  {
    const auto tree = services_->model->lock();
    if (!isEmitted && !hasNewWishes_ && tree->count() == seen_ && tree->isComplete() == wasComplete_) return;
    collect(batch, *tree);
    seen_ = tree->count();
    wasComplete_ = tree->isComplete();
  }
  hasNewWishes_ = false;
  fresh_.clear();
  ++services_->batches;
  socket_->send(Message::binary(batch.bytes(++sent_)));
}

void PageSession::collect(Batch& batch, Tree& tree) {
  for (const std::uint32_t id : watched_) {
    const Node* const node = tree.node(id);
    if (node && (node->seen > seen_ || std::ranges::binary_search(fresh_, id))) batch.addRow(*node);
  }
  for (const auto& [series, plot] : plots_) batch.addPoints(series, plot->tap.take());
  collectMovements(batch, tree);
  if (showsTimeLine_) collectRaises(batch, tree);
  if (!key_.empty()) collectKey(batch, tree);
  if (const Node* const node = key_.empty() ? nullptr : tree.key(key_)) keyTold_ = node->seen;
  const auto& authors = tree.authors();
  HXValue::List names;
  for (; authorsSent_ < authors.size(); ++authorsSent_) names.emplace_back(authors[authorsSent_]);
  if (!names.empty()) batch.add("authors", std::move(names));
  batch.add("keys", tree.keys());
  batch.add("changes", tree.root().changes);
  batch.add("complete", tree.isComplete());
}

void PageSession::collectMovements(Batch& batch, const Tree& tree) {
  const auto& movements = tree.movements();
  if (open_.empty() || movements.empty() || movements.back().number <= seen_) return;
  // Of those that have been forgotten, this page might have wanted some.
  if (movements.size() == Tree::kMovements && movements.front().number > seen_) return batch.add("reopen", true);
  HXValue::List told;
  std::set<std::uint32_t> done;
  for (auto each = movements.rbegin(); each != movements.rend() && each->number > seen_; ++each) {
    if (!open_.contains(each->parent) || !done.insert(each->child).second) continue;
    const Node* const node = tree.node(each->child);
    told.push_back(node ? HXValue::list({each->parent, Batch::childOf(*node, node->name())})
                        : HXValue::list({each->parent, each->child}));
  }
  if (!told.empty()) batch.add("moved", std::move(told));
}

void PageSession::collectRaises(Batch& batch, const Tree& tree) {
  const auto& raises = tree.raises();
  HXValue::List told;
  std::size_t left = 0;
  for (auto each = raises.rbegin(); each != raises.rend() && each->number > seenRaises_; ++each) {
    if (told.size() == kRaisesAtOnce) {
      ++left;
      continue;
    }
    told.push_back(HXValue::list({static_cast<std::int64_t>(each->number), each->key, each->value, each->time,
                                  static_cast<std::int32_t>(each->author), each->isMicro}));
  }
  seenRaises_ = tree.count();
  if (told.empty()) return;
  std::ranges::reverse(told);
  batch.add("raises", std::move(told));
  if (left > 0) batch.add("raisesLeftOut", static_cast<std::int64_t>(left));
}

void PageSession::collectKey(Batch& batch, const Tree& tree) const {
  const Node* const node = tree.key(key_);
  if (!node) {
    if (tree.isComplete()) batch.add("key", HXValue::map({{"key", key_}, {"gone", true}}));
    return;
  }
  if (node->seen <= keyTold_) return;
  const HXValue value = wholeOrBrief(node->value);
  batch.add("key", HXValue::map({{"key", key_},
                                 {"id", node->id},
                                 {"value", value},
                                 {"whole", value.getType() == node->value.getType()},
                                 {"facts", Batch::factsOf(*node)},
                                 {"time", node->time},
                                 {"revision", static_cast<std::int64_t>(node->revision)},
                                 {"nth", node->nth}}));
}

}  // namespace HX::web
