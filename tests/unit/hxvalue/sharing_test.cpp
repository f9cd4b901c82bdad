#include "expect_error.h"
#include "print_value.h"
#include "together.h"

#include <hxvalue/hxvalue.h>

namespace HX {
namespace {

TEST(Sharing, aChangeIsSeenOnlyThroughTheValueThatWasChanged) {
  const HXValue originals[] = {HXValue::list({1, HXValue::list({2})}), "a", HXValue::Binary{}, HXValue::map()};
  HXValue copies[] = {originals[0], originals[1], originals[2], originals[3]};
  copies[0].arrayPush(3);
  copies[1].editString() += "b";
  copies[2].editBinary().push_back(std::byte{1});
  copies[3].mapSet("k", 1);
  const HXValue expected[] = {HXValue::list({1, HXValue::list({2})}), "a", HXValue::Binary{}, HXValue::map()};
  for (std::size_t i = 0; i < std::size(copies); ++i) {
    EXPECT_EQ(originals[i], expected[i]);
    EXPECT_NE(copies[i], expected[i]);
  }
  EXPECT_EQ(&copies[0][1].asList(), &originals[0][1].asList()) << "what did not change stays shared";
}

TEST(Sharing, aContentWithOneOwnerIsChangedInPlace) {
  HXValue list = HXValue::list({1});
  const HXValue::List* content = &list.asList();
  { const HXValue passing = list; }  // NOLINT(performance-unnecessary-copy-initialization): owns it for a moment.
  list.arraySet(0, 2);
  EXPECT_EQ(&list.asList(), content);
}

TEST(Sharing, aValueMayBePutIntoItself) {
  const HXValue inner = HXValue::list({1});
  HXValue list = inner;
  list.arrayPush(list);
  list.arraySet(0, list);
  EXPECT_EQ(list, HXValue::list({HXValue::list({1, inner}), inner}));
  list = list[1];
  EXPECT_EQ(list, inner);
  HXValue map = HXValue::map();
  map.mapSet("self", map);
  EXPECT_EQ(map, HXValue::map({{"self", HXValue::map()}}));
}

TEST(Sharing, threadsCopyChangeAndDropOneContentIndependently) {
  const HXValue shared = HXValue::list({HXValue(std::string(100, 'x')), HXValue::map({{"k", 1}})});
  const HXValue expected = HXValue::list({"xx", HXValue::map({{"k", 2}})});
  ::kit::together(4, [shared, &expected] {
    bool right = true;
    for (int round = 0; round < 2000; ++round) {
      HXValue copy = shared;
      copy.editList()[0].editString().assign(2, 'x');
      copy.editList()[1].mapSet("k", 2);
      right = right && copy == expected;
    }
    EXPECT_TRUE(right);
  });
}

}  // namespace
}  // namespace HX
