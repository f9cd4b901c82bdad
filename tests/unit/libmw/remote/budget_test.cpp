#include "remote/budget.h"

#include <deque>
#include <memory_channel.h>

#include <gtest/gtest.h>

namespace mw::remote {
namespace {

constexpr std::size_t kMegabyte = std::size_t{1} << 20;

struct Holding {
  const char* peer;
  std::size_t megabytes;
  bool isEnded;  ///< Once there is room for eight.
};

struct Case {
  const char* name;
  std::vector<Holding> holdings;
};

class Budgets : public testing::TestWithParam<Case> {};

TEST_P(Budgets, AreKeptAtTheCostOfThePeerThatHoldsMost) {
  Budget budget("megabytes");
  std::vector<std::shared_ptr<kit::MemoryChannel>> channels;
  std::deque<Budget::Share> shares;
  std::size_t kept = 0;
  for (const Holding& holding : GetParam().holdings) {
    channels.push_back(std::make_shared<kit::MemoryChannel>(holding.peer));
    shares.emplace_back(budget, 8 * kMegabyte).join(holding.peer, channels.back());
    shares.back().add(holding.megabytes * kMegabyte);
    kept += holding.isEnded ? 0 : holding.megabytes;
  }
  shares.front().keepLimit();
  for (std::size_t i = 0; i < channels.size(); ++i) {
    EXPECT_EQ(channels[i]->isEnded(), GetParam().holdings[i].isEnded) << i;
    EXPECT_EQ(shares[i].isOver(), GetParam().holdings[i].isEnded) << i;
  }
  EXPECT_EQ(budget.bytes(), kept * kMegabyte);
  for (Budget::Share& share : shares) share.set(0);
  EXPECT_EQ(budget.bytes(), 0U);
  shares.back().add(kMegabyte);
  shares.clear();
  EXPECT_EQ(budget.bytes(), 0U);
}

const Case kCases[] = {
    {"WhoFitsStays", {{"one", 4, false}, {"other", 4, false}}},
    {"TheLargestGoes", {{"one", 2, false}, {"other", 5, true}, {"third", 3, false}}},
    {"ManyConnectionsOfOnePeerCountTogether",
     {{"many", 2, false}, {"one", 4, false}, {"many", 3, true}, {"many", 2, false}}},
    {"SoManyGoAsItTakes", {{"one", 7, true}, {"other", 6, true}, {"one", 2, false}, {"third", 3, false}}},
};
INSTANTIATE_TEST_SUITE_P(Budget, Budgets, testing::ValuesIn(kCases),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace mw::remote
