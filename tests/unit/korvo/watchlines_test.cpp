#include "commands/watchlines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvo {
namespace {

using HX::journal::Change;
using HX::journal::Gap;
using testing::EndsWith;
using testing::StartsWith;

TEST(WatchLines, TellWhatHappenedToWhatAndByWhom) {
  Change change;
  change.key = " odd";
  change.value = HX::HXValue::list({1, "a"});
  change.what = HX::journal::What::RaisedMicro;
  change.at = {7, 300};
  change.nth = 12;
  change.leftOut = 3;
  change.author = "process 4711,\nkorvo set";
  EXPECT_THAT(WatchLines(false).of(change),
              EndsWith("  micro     \" odd\"  [1,\"a\"]  and 3 before it left out  by process 4711,\\nkorvo set"));
  EXPECT_THAT(
      WatchLines(true).of(change),
      testing::AllOf(StartsWith("{\"key\":\" odd\",\"what\":\"micro\",\"value\":[1,\"a\"],\"time\":\""),
                     EndsWith("\"at\":\"7:300\",\"nth\":12,\"leftOut\":3,\"author\":\"process 4711,\\nkorvo set\"}")));
  change = {};
  change.key = "K";
  change.what = HX::journal::What::Removed;
  EXPECT_THAT(WatchLines(false).of(change), EndsWith("  removed   K"));
  EXPECT_THAT(WatchLines(true).of(change), StartsWith("{\"key\":\"K\",\"what\":\"removed\",\"time\":\""));
}

TEST(WatchLines, CountWhatAGapLeftOutWhereThatIsKnown) {
  const Gap counted{{7, 300}, {7, 1300}, false};
  EXPECT_EQ(WatchLines(false).of(counted), "-- gap: 1000 changes were missed; what they left follows");
  EXPECT_EQ(WatchLines(true).of(counted), "{\"gap\":{\"from\":\"7:300\",\"to\":\"7:1300\",\"changes\":1000}}");
  EXPECT_EQ(WatchLines(false).of(Gap{{7, 300}, {7, 301}, false}),
            "-- gap: 1 change was missed; what they left follows");
  for (const Gap& other : {Gap{{7, 300}, {8, 1300}, true}, Gap{{7, 0}, {7, 9}, true}, Gap{{7, 9}, {7, 8}, true}}) {
    EXPECT_EQ(WatchLines(false).of(other), "-- gap: an unknown number of changes was missed; what they left follows");
  }
}

TEST(Position, IsReadBackAndNothingElseIs) {
  const HX::journal::Position place{9007199254740991, 18446744073709551615U};
  EXPECT_EQ(toPosition(formatPosition(place)), place);
  for (const char* text : {"", ":", "1", "1:", ":1", "a:1", "1:2 ", "1:2:3", "-1:2", "1:18446744073709551616"}) {
    EXPECT_EQ(toPosition(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace korvo
