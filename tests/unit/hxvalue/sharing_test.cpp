#include "expect_error.h"
#include "print_value.h"

#include <hxvalue/hxvalue.h>

#include <latch>
#include <thread>
#include <vector>

namespace HX {
namespace {

TEST(Sharing, aChangeIsSeenOnlyThroughTheValueThatWasChanged) {
  const HXValue original = HXValue::list({1, HXValue::list({2})});
  HXValue copy = original;
  copy.arrayPush(3);
  EXPECT_EQ(original, HXValue::list({1, HXValue::list({2})}));
  EXPECT_EQ(copy.getSize(), 3U);
  EXPECT_EQ(&copy[1].asList(), &original[1].asList()) << "what did not change stays shared";

  HXValue inner = original[1];
  inner.arraySet(0, "changed");
  EXPECT_EQ(original[1][0], 2);
}

TEST(Sharing, everyPayloadTypeIsCopiedOnWrite) {
  const HXValue originals[] = {"a", HXValue::Binary{}, HXValue::map()};
  HXValue copies[] = {originals[0], originals[1], originals[2]};
  copies[0].editString() += "b";
  copies[1].editBinary().push_back(std::byte{1});
  copies[2].mapSet("k", 1);
  EXPECT_EQ(copies[0], "ab");
  EXPECT_EQ(originals[0], "a");
  EXPECT_EQ(originals[1], HXValue(HXValue::Binary{}));
  EXPECT_EQ(originals[2], HXValue::map());
}

TEST(Sharing, aContentWithOneOwnerIsChangedInPlace) {
  HXValue list = HXValue::list({1});
  const HXValue::List* content = &list.asList();
  { const HXValue passing = list; }
  list.arraySet(0, 2);
  EXPECT_EQ(&list.asList(), content);
}

TEST(Sharing, aValueMayBePutIntoItself) {
  HXValue list = HXValue::list({1});
  list.arrayPush(list);
  list.arraySet(0, list);
  const HXValue inner = HXValue::list({1});
  EXPECT_EQ(list, HXValue::list({HXValue::list({1, inner}), inner}));

  HXValue map = HXValue::map();
  map.mapSet("self", map);
  EXPECT_EQ(map, HXValue::map({{"self", HXValue::map()}}));

  HXValue outer = HXValue::list({HXValue::list({7})});
  outer = outer[0];
  EXPECT_EQ(outer, HXValue::list({7}));
}

TEST(Sharing, threadsCopyChangeAndDropOneContentIndependently) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 2000;
  HXValue shared = HXValue::list({HXValue(std::string(100, 'x')), HXValue::map({{"k", 1}})});
  const HXValue expected = HXValue::list({"xx", HXValue::map({{"k", 2}})});
  std::latch start(kThreads);
  std::vector<int> wrong(kThreads);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&start, &expected, &wrong, i, own = shared] {
      start.arrive_and_wait();
      for (int round = 0; round < kRounds; ++round) {
        HXValue copy = own;
        copy.editList()[0].editString().assign(2, 'x');
        copy.editList()[1].mapSet("k", 2);
        wrong[i] += copy == expected ? 0 : 1;
      }
    });
  }
  shared = HXValue();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<int>(kThreads));
}

}  // namespace
}  // namespace HX
