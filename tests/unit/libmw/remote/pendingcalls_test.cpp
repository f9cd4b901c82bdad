#include "remote/pendingcalls.h"

#include <algorithm>
#include <map>
#include <random>

#include <gtest/gtest.h>

namespace mw::remote {
namespace {

/// Many for a short while and some for long, against a map.
TEST(PendingCalls, HaveANumberThatNoOtherHasAndGoOnce) {
  PendingCalls<int> calls;
  std::map<std::uint32_t, int> known;
  std::mt19937 random(7);
  std::size_t most = 40;
  for (int i = 0; i < 200'000; ++i) {
    if (random() % 20'000 == 0) most = 1 + random() % 9000;
    if (known.size() < most && random() % 2 == 0) {
      const std::uint32_t number = calls.add(int{i});
      ASSERT_NE(number, 0U);
      ASSERT_TRUE(known.emplace(number, i).second);
    } else if (!known.empty()) {
      const bool isOldest = random() % 4 != 0;
      const auto one = isOldest ? known.begin() : std::prev(known.end());
      ASSERT_EQ(calls.take(one->first), one->second);
      ASSERT_EQ(calls.take(one->first), std::nullopt);
      known.erase(one);
    }
    ASSERT_EQ(calls.count(), known.size());
    ASSERT_EQ(calls.take(static_cast<std::uint32_t>(random()) | 0x8000'0000U), std::nullopt);
  }
  auto left = calls.takeAll();
  std::ranges::sort(left);
  std::vector<int> expected;
  for (const auto& [number, call] : known) expected.push_back(call);
  std::ranges::sort(expected);
  EXPECT_EQ(left, expected);
  EXPECT_EQ(calls.count(), 0U);
  EXPECT_NE(calls.add(1), 0U);
}

}  // namespace
}  // namespace mw::remote
