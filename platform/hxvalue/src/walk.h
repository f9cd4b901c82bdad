#pragma once

// Going through nested values without recursion, so that depth costs heap and not stack.

#include <hxvalue/hxvalue.h>

#include <cstddef>
#include <vector>

namespace HX {

inline bool isContainer(const HXValue& value) noexcept { return value.isList() || value.isMap(); }

/// Steps through what a list or a map holds. The container must outlive it and stay as it is.
class Children {
 public:
  explicit Children(const HXValue& container)
      : container_(&container), list_(container.listIf()), map_(container.mapIf()) {
    if (map_ != nullptr) entry_ = map_->begin();
  }

  const HXValue& container() const noexcept { return *container_; }
  bool atStart() const noexcept { return list_ != nullptr ? index_ == 0 : entry_ == map_->begin(); }
  bool done() const noexcept { return list_ != nullptr ? index_ == list_->size() : entry_ == map_->end(); }
  /// Key of the present entry; null in a list.
  const std::string* key() const noexcept { return list_ != nullptr ? nullptr : &entry_->first; }
  const HXValue& value() const noexcept { return list_ != nullptr ? (*list_)[index_] : entry_->second; }
  void advance() noexcept {
    if (list_ != nullptr) {
      ++index_;
    } else {
      ++entry_;
    }
  }

 private:
  const HXValue* container_;
  const HXValue::List* list_;
  const HXValue::Map* map_;
  std::size_t index_ = 0;
  HXValue::Map::const_iterator entry_;
};

/// Visits `root` and everything in it, in order: `begin` and `end` around a container's content, `child(isFirst, key)`
/// before each of its elements (the key is null in a list), `leaf` for everything that is no container.
template <typename Visitor>
void walk(const HXValue& root, Visitor& visitor) {
  std::vector<Children> open;
  for (const HXValue* current = &root; current != nullptr;) {
    if (isContainer(*current)) {
      visitor.begin(*current);
      open.emplace_back(*current);
    } else {
      visitor.leaf(*current);
    }
    while (!open.empty() && open.back().done()) {
      visitor.end(open.back().container());
      open.pop_back();
    }
    if (open.empty()) return;
    Children& children = open.back();
    visitor.child(children.atStart(), children.key());
    current = &children.value();
    children.advance();
  }
}

}  // namespace HX
