#include "builder.h"

#include "quote.h"

#include <stdexcept>

namespace HX {

void Builder::addElsewhere(HXValue value) {
  if (open_.empty()) {
    root_ = std::move(value);
  } else {
    *open_.back().entry = std::move(value);
  }
}

void Builder::key(std::string name) {
  const auto [entry, isNew] = open_.back().map.try_emplace(std::move(name));
  if (!isNew) throw std::runtime_error("the key " + quote(entry->first).text + " occurs twice in one map");
  open_.back().entry = &entry->second;
}

void Builder::begin(bool isMap) {
  if (open_.size() >= depthLimit_) {
    throw std::runtime_error("nested deeper than " + std::to_string(depthLimit_));
  }
  open_.push_back({isMap, {}, {}});
}

void Builder::end() {
  Level level = std::move(open_.back());
  open_.pop_back();
  add(level.isMap ? HXValue(std::move(level.map)) : HXValue(std::move(level.list)));
}

}  // namespace HX
