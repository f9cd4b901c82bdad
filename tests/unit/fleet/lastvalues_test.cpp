#include "lastvalues.h"

#include "print_value.h"

#include <map>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace HX::fleet {
namespace {

using namespace std::chrono_literals;
using testing::IsEmpty;
using testing::SizeIs;

KeyNamePointer nameOf(const std::string& key) { return std::make_shared<const KeyName>(KeyName{key, key}); }
Record valued(int value) { return {{}, value, "Data", 0, {}, {}}; }

/// A bucket that takes a put only behind the message that it says it follows.
class Bucket {
 public:
  void take(LastValues& values, const LastValues::Put& put, bool answerArrives) {
    auto& [sequence, value] = keys_[put.key->key];
    if (put.follows != sequence) {
      if (answerArrives) values.refused(put.id, sequence);
      return;
    }
    sequence = ++last_;
    value = put.record ? put.record->value : HXValue();
    if (answerArrives) values.stored(put.id, sequence);
  }
  HXValue valueOf(const std::string& key) { return keys_[key].second; }
  void clear() { keys_.clear(); }

 private:
  std::map<std::string, std::pair<std::uint64_t, HXValue>> keys_;
  std::uint64_t last_ = 0;
};

TEST(LastValues, AreRightInTheEndWhateverTheLineDoes) {
  for (unsigned seed = 0; seed < 100; ++seed) {
    std::mt19937 random(seed);
    LastValues values({8, 3, 200ms});
    Bucket bucket;
    std::map<std::string, HXValue> truth;
    std::vector<LastValues::Put> underWay;
    std::vector<LastValues::Put> heldUp;  // In connections that have died.
    LastValues::Clock::time_point now{};
    const auto deliver = [&](std::vector<LastValues::Put>& from, bool answerArrives) {
      if (from.empty()) return;
      const auto chosen = from.begin() + static_cast<std::ptrdiff_t>(random() % from.size());
      bucket.take(values, *chosen, answerArrives);
      from.erase(chosen);
    };
    for (int i = 0; i < 2000; ++i) {
      const std::string key(1, static_cast<char>('a' + random() % 6));
      switch (random() % 8) {
        case 0:
          heldUp.insert(heldUp.end(), underWay.begin(), underWay.end());
          underWay.clear();
          values.giveBack();
          break;
        case 1:
          deliver(heldUp, false);
          break;
        case 2:
          values.remove(key);
          truth[key] = HXValue();
          break;
        case 3:
        case 4:
          for (auto& put : values.take(now += 100ms)) underWay.push_back(std::move(put));
          break;
        case 5:
          deliver(underWay, true);
          break;
        default:
          values.set(nameOf(key), valued(i));
          truth[key] = HXValue(i);
      }
    }
    values.giveBack();
    while (!values.isIdle()) {
      for (const auto& put : values.take(now += 1s)) bucket.take(values, put, true);
      deliver(heldUp, false);
    }
    while (!heldUp.empty()) deliver(heldUp, false);
    for (const auto& [key, value] : truth) EXPECT_EQ(bucket.valueOf(key), value) << key << ", seed " << seed;
  }
}

TEST(LastValues, ArePutSoOftenAtMost) {
  LastValues values({8, 8, 200ms});
  const LastValues::Clock::time_point begin{};
  values.set(nameOf("A"), valued(1));
  const auto first = values.take(begin);
  ASSERT_THAT(first, SizeIs(1));
  values.set(nameOf("A"), valued(2));
  EXPECT_THAT(values.take(begin + 1s), IsEmpty()) << "the first is still in flight";
  values.stored(first[0].id, 1);
  values.set(nameOf("A"), valued(3));
  EXPECT_EQ(values.nextDue(), begin + 200ms);
  EXPECT_THAT(values.take(begin + 199ms), IsEmpty());
  const auto second = values.take(begin + 200ms);
  ASSERT_THAT(second, SizeIs(1));
  EXPECT_EQ(second[0].record->value, HXValue(3));
  EXPECT_EQ(second[0].follows, 1U);
}

TEST(LastValues, HaveABound) {
  LastValues values({2, 1, 200ms});
  EXPECT_TRUE(values.set(nameOf("A"), valued(1)));
  EXPECT_TRUE(values.set(nameOf("B"), valued(1)));
  EXPECT_FALSE(values.set(nameOf("C"), valued(1)));
  EXPECT_TRUE(values.set(nameOf("A"), valued(2)));
  EXPECT_EQ(values.turnedAway(), 1U);
  EXPECT_THAT(values.take({}), SizeIs(1)) << "one in flight at a time";
  EXPECT_THAT(values.take({}), IsEmpty());
}

TEST(LastValues, AreAllPutIntoANewBucket) {
  LastValues values({8, 8, 200ms});
  Bucket bucket;
  for (const char* key : {"A", "B"}) values.set(nameOf(key), valued(1));
  for (const auto& put : values.take({})) bucket.take(values, put, true);
  EXPECT_TRUE(values.isIdle());
  bucket.clear();
  values.beginAnew();
  for (const auto& put : values.take(LastValues::Clock::time_point{} + 1s)) bucket.take(values, put, true);
  EXPECT_TRUE(values.isIdle());
  EXPECT_EQ(bucket.valueOf("B"), HXValue(1));
}

TEST(LastValues, LeaveAKeyThatTheHubWillNotTakeUntilItChanges) {
  LastValues values({8, 8, 200ms});
  values.set(nameOf("A"), valued(1));
  values.rejected(values.take({})[0].id);
  EXPECT_TRUE(values.isIdle());
  values.set(nameOf("A"), valued(2));
  EXPECT_FALSE(values.isIdle());
}

}  // namespace
}  // namespace HX::fleet
