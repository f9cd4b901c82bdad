#include "expect_error.h"
#include "print_value.h"

#include <hxvalue/hxvalue.h>
#include <hxvalue/json.h>
#include <hxvalue/msgpack.h>

namespace HX {
namespace {

constexpr int kDepth = 300'000;  // Recursion of any kind runs out of stack long before.

HXValue nested(HXValue core) {
  for (int level = 0; level < kDepth; ++level) {
    HXValue outer = level % 2 == 0 ? HXValue::list() : HXValue::map();
    if (outer.isList()) {
      outer.arrayPush(std::move(core));
    } else {
      outer.mapSet("k", std::move(core));
    }
    core = std::move(outer);
  }
  return core;
}

TEST(DeepNesting, isComparedPrintedAndDestroyed) {
  const HXValue one = nested(1);
  const HXValue two = nested(2);
  EXPECT_TRUE(one < two);
  EXPECT_TRUE(one == nested(1));
  EXPECT_EQ(one.toString().size(), kDepth / 2 * std::size_t{9} + 1);
}

TEST(DeepNesting, isWrittenInFullAndRefusedOnReading) {
  const HXValue value = nested(1);
  const std::string json = toJson(value);
  const std::vector<std::byte> packed = toMsgpack(value);
  EXPECT_EQ(errorOf([&] { fromJson(json); }), "JSON line 1, column 1537: nested deeper than 512");
  EXPECT_EQ(errorOf([&] { fromMsgpack(packed); }), "MessagePack byte 1024: nested deeper than 512");
  EXPECT_TRUE(fromMsgpack(packed, {.depth = kDepth}) == value);
}

}  // namespace
}  // namespace HX
