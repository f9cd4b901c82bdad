#pragma once

#include <hxvalue/hxvalue.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace HX {

/// Puts a value together from a reader's events. The reader sees to it that they are in order: containers closed,
/// a key before each entry of a map.
///
/// Errors (std::runtime_error) say what is wrong; the reader adds where.
class Builder {
 public:
  explicit Builder(std::size_t depthLimit) : depthLimit_(depthLimit) {}

  /// @param value  Made into a value where it belongs, for long lists consist of numbers.
  template <HXStorable T>
  void add(T&& value) {
    if (!open_.empty() && !open_.back().isMap) {
      open_.back().list.emplace_back(std::forward<T>(value));
    } else {
      addElsewhere(HXValue(std::forward<T>(value)));
    }
  }
  /// @param size  So many elements may come: as far as that is believed, there is room for them.
  void beginList(std::size_t size = 0) {
    begin(false);
    constexpr std::size_t kBelieved = 1024;
    open_.back().list.reserve(std::min(size, kBelieved));
  }
  void beginMap() { begin(true); }
  void key(std::string name);
  void end();

  HXValue take() { return std::move(root_); }

 private:
  struct Level {
    bool isMap;
    HXValue::List list;
    HXValue::Map map;
    HXValue* entry = nullptr;  // In `map`, whose entries stay where they are.
  };

  void begin(bool isMap);
  void addElsewhere(HXValue value);

  std::size_t depthLimit_;
  std::vector<Level> open_;
  HXValue root_;
};

}  // namespace HX
