#pragma once

#include <hxvalue/hxvalue.h>

#include <cstddef>
#include <string>
#include <vector>

namespace HX {

/// Puts a value together from a reader's events. The reader sees to it that they are in order: containers closed,
/// a key before each entry of a map.
///
/// Errors (std::runtime_error) say what is wrong; the reader adds where.
class Builder {
 public:
  explicit Builder(std::size_t depthLimit) : depthLimit_(depthLimit) {}

  void add(HXValue value);
  void beginList() { begin(false); }
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

  std::size_t depthLimit_;
  std::vector<Level> open_;
  HXValue root_;
};

}  // namespace HX
