#include "tree.h"

#include <algorithm>
#include <limits>

namespace HX::web {
namespace {

constexpr std::size_t kShortRaise = 160;

char smallLetter(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

bool containsSmall(std::string_view text, std::string_view smallPart) {
  const auto same = [](char a, char b) { return smallLetter(a) == b; };
  return std::search(text.begin(), text.end(), smallPart.begin(), smallPart.end(), same) != text.end();
}

bool isRaise(journal::What what) { return what == journal::What::Raised || what == journal::What::RaisedMicro; }

}  // namespace

double millisecondsOf(journal::TimePoint time) {
  return std::chrono::duration<double, std::milli>(time.time_since_epoch()).count();
}

void Tap::add(Point point) {
  if (count++ == 0) {
    first = least = most = last = point;
    return;
  }
  if (point.value < least.value) least = point;
  if (point.value > most.value) most = point;
  last = point;
}

std::vector<Tap::Point> Tap::take() {
  if (count == 0) return {};
  std::vector<Point> points{first, least, most, last};
  std::ranges::sort(points, {}, &Point::time);
  const auto isSame = [](const Point& a, const Point& b) { return a.time == b.time; };
  points.erase(std::unique(points.begin(), points.end(), isSame), points.end());
  count = 0;
  return points;
}

Tree::Tree() : root_(std::make_unique<Node>()) { nodes_[0] = root_.get(); }

const Node* Tree::node(std::uint32_t id) const {
  const auto found = nodes_.find(id);
  return found == nodes_.end() ? nullptr : found->second;
}

const Node* Tree::key(std::string_view name) const {
  const auto found = keys_.find(name);
  return found == keys_.end() ? nullptr : found->second;
}

std::vector<const Node*> Tree::find(std::string_view text, std::string_view under, std::size_t most,
                                    std::size_t& total) const {
  std::string part(text);
  std::ranges::transform(part, part.begin(), smallLetter);
  std::vector<const Node*> found;
  const std::string head = under.empty() ? std::string() : std::string(under) + '/';
  for (const auto& [name, node] : keys_) {
    if (name.starts_with(head) && containsSmall(name.substr(head.size()), part)) found.push_back(node);
  }
  total = found.size();
  const auto byPath = [](const Node* a, const Node* b) { return a->path < b->path; };
  const auto end = found.begin() + static_cast<std::ptrdiff_t>(std::min(most, total));
  std::ranges::partial_sort(found, end, byPath);
  found.erase(end, found.end());
  return found;
}

void Tree::change(const journal::Change& change) {
  ++count_;
  if (change.at.epoch != 0) epoch_ = change.at.epoch;
  if (change.what == journal::What::Removed) {
    ++whats_[static_cast<std::size_t>(change.what)];
    if (const auto found = keys_.find(change.key); found != keys_.end()) removeKey(*found->second);
    return;
  }
  Node& node = fileKey(change.key);
  node.generation = generation_;
  if (change.what == journal::What::Described) {
    ++whats_[static_cast<std::size_t>(change.what)];
    return;
  }
  --kinds_[node.kind % kinds_.size()];
  ++kinds_[change.kind % kinds_.size()];
  const std::uint32_t told = change.isState ? change.nth - node.nth : 1 + change.leftOut;
  const bool isNew = change.isState && node.revision == 0 && node.time == 0;
  node.value = change.value;
  node.time = millisecondsOf(change.time);
  node.kind = change.kind;
  node.what = change.what;
  node.byAddress = change.byAddress;
  node.revision = change.at.revision;
  node.nth = change.nth;
  if (!change.isState) node.author = authorNumber(change.author);
  touch(node, isNew ? 0 : told);
  if (!isNew) whats_[static_cast<std::size_t>(change.what)] += told;
  if (node.isTapped && !isNew) feedTaps(node);
  if (!change.isState && isRaise(change.what)) noteRaise(change, node);
}

void Tree::unchanged(std::string_view key) {
  if (const auto found = keys_.find(key); found != keys_.end()) found->second->generation = generation_;
}

void Tree::beginSnapshot() {
  if (generation_++ > 0) ++gaps_;
}

void Tree::complete() {
  isComplete_ = true;
  std::vector<Node*> gone;
  for (const auto& [name, node] : keys_) {
    if (node->generation != generation_) gone.push_back(node);
  }
  for (Node* const node : gone) {
    ++count_;
    removeKey(*node);
  }
}

Node& Tree::fileKey(std::string_view key) {
  if (const auto found = keys_.find(key); found != keys_.end()) return *found->second;
  Node* node = root_.get();
  for (std::size_t begin = 0; begin <= key.size();) {
    const std::size_t end = std::min(key.find('/', begin), key.size());
    node = &child(*node, key.substr(0, end), begin);
    begin = end + 1;
  }
  node->isKey = true;
  node->isTapped = taps_.contains(key);
  keys_.emplace(node->path, node);
  ++kinds_[node->kind];
  for (Node* above = node; above; above = above->parent) ++above->keys;
  move(*node);
  return *node;
}

Node& Tree::child(Node& parent, std::string_view path, std::size_t begin) {
  const auto found = parent.children.find(path.substr(begin));
  if (found != parent.children.end()) return *found->second;
  auto made = std::make_unique<Node>();
  made->id = ++lastId_;
  made->path = path;
  made->last = begin;
  made->parent = &parent;
  Node& node = *made;
  nodes_.emplace(node.id, &node);
  const bool isFirst = parent.children.empty();
  parent.children.emplace(node.name(), std::move(made));
  if (isFirst && parent.parent) move(parent);  // It can be opened from now on.
  move(node);
  return node;
}

void Tree::removeKey(Node& removed) {
  keys_.erase(removed.path);
  --kinds_[removed.kind % kinds_.size()];
  removed.isKey = false;
  removed.value = {};
  for (Node* above = &removed; above; above = above->parent) --above->keys;
  touch(removed, 1);
  Node* node = &removed;
  move(*node);
  while (node->parent && node->children.empty() && !node->isKey) {
    Node* const parent = node->parent;
    move(*node);
    nodes_.erase(node->id);
    parent->children.erase(parent->children.find(node->name()));
    node = parent;
  }
}

void Tree::touch(Node& node, std::uint32_t changes) {
  for (Node* above = &node; above; above = above->parent) {
    above->changes += changes;
    above->seen = count_;
  }
}

void Tree::move(const Node& node) {
  if (movements_.size() == kMovements) movements_.pop_front();
  movements_.push_back({count_, node.parent ? node.parent->id : 0, node.id});
}

void Tree::tap(const std::string& key, Tap& tap) {
  taps_.emplace(key, &tap);
  if (const auto found = keys_.find(key); found != keys_.end()) found->second->isTapped = true;
}

void Tree::untap(Tap& tap) {
  std::erase_if(taps_, [&](const auto& each) { return each.second == &tap; });
}

void Tree::feedTaps(const Node& node) {
  const auto [begin, end] = taps_.equal_range(node.path);
  for (auto each = begin; each != end; ++each) {
    const auto number = numberAt(node.value, each->second->path);
    if (number) each->second->add({node.time, *number});
  }
}

void Tree::noteRaise(const journal::Change& change, const Node& node) {
  if (raises_.size() == kRaises) raises_.pop_front();
  raises_.push_back({count_, node.path, brief(change.value, kShortRaise), node.time, node.author,
                     change.what == journal::What::RaisedMicro});
}

std::uint16_t Tree::authorNumber(std::string_view author) {
  if (author.empty()) return 0;
  if (const auto found = authorNumbers_.find(author); found != authorNumbers_.end()) return found->second;
  if (authors_.size() > std::numeric_limits<std::uint16_t>::max()) return 0;
  authors_.emplace_back(author);
  return authorNumbers_[std::string(author)] = static_cast<std::uint16_t>(authors_.size() - 1);
}

}  // namespace HX::web
