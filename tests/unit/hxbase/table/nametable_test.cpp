#include <hxbase/detail/nametable.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace HX {
namespace {

using Table = NameTable<const std::string>;

void file(Table& table, std::string name) {
  auto item = std::make_shared<const std::string>(std::move(name));
  const std::string_view kept = *item;
  table.insert(kept, std::move(item));
}

TEST(NameTable, HoldsWhatAMapHolds) {
  std::mt19937 random(11);
  Table table;
  std::map<std::string, std::shared_ptr<const std::string>> model;
  for (int step = 0; step < 100'000; ++step) {
    // Few enough names that all are filed, found and taken out again many times, at every fill of the table.
    const std::string name = fmt::format("Device/{}", random() % (step % 2000 < 1000 ? 30 : 700));
    const auto* found = table.find(name);
    ASSERT_EQ(found ? *found : nullptr, model.contains(name) ? model.at(name) : nullptr) << name;
    if (!found) {
      file(table, name);
      model[name] = *table.find(name);
    } else if (random() % 2 == 0) {
      EXPECT_EQ(table.extract(name), model.at(name));
      model.erase(name);
    }
    ASSERT_EQ(table.size(), model.size());
  }
  std::map<std::string, std::shared_ptr<const std::string>> walked;
  table.forEach([&](std::string_view name, const auto& item) { walked.emplace(name, item); });
  EXPECT_EQ(walked, model);
}

TEST(NameTable, TellsNamesApartByEveryByte) {
  const std::string longName(100, 'x');
  std::set<std::string> names{longName, longName + "x"};
  using namespace std::string_view_literals;
  for (const auto name : {""sv, "a"sv, "A"sv, "\0"sv, "a\0"sv, "12345678"sv, "12345679"sv, "123456789"sv})
    names.emplace(name);
  names.emplace("12345678x12345678");
  Table table;
  for (const std::string& name : names) file(table, name);
  for (const std::string& name : names) {
    const auto* found = table.find(name);
    ASSERT_TRUE(found) << name;
    EXPECT_EQ(**found, name);
  }
  EXPECT_FALSE(table.find("b"));
  EXPECT_FALSE(table.extract("b"));
}

// A journal's snapshot goes through the table piece by piece while others add keys.
TEST(NameTable, AWalkMeetsOnceWhoIsThereAllTheTime) {
  Table table;
  std::map<std::string, int> met;
  for (int i = 0; i < 1000; ++i) met[fmt::format("Old/{}", i)] = 0;
  for (const auto& [name, times] : met) file(table, name);
  const auto meet = [&](std::string_view name, const auto&) {
    if (const auto known = met.find(std::string(name)); known != met.end()) ++known->second;
  };
  int added = 0;
  for (std::uint64_t place = 0; place != Table::kWalked;) {
    place = table.walk(place, Table::kWalked, 7, meet);
    for (int i = 0; i < 5; ++i) file(table, fmt::format("New/{}", added++));
  }
  EXPECT_GT(added, 1000);
  for (const auto& [name, times] : met) EXPECT_EQ(times, 1) << name;
}

// Nobody reads while names are moved, so that they must not all be moved at once.
TEST(NameTable, GrowsPieceByPiece) {
  Table table;
  std::map<std::string, const void*> watched;
  std::size_t most = 0;
  std::size_t all = 0;
  for (int i = 0; i < 5000; ++i) {
    file(table, fmt::format("Key{}", i));
    if (i < 200) {
      watched[fmt::format("Key{}", i)] = nullptr;
      continue;
    }
    std::size_t moved = 0;
    for (auto& [name, at] : watched) {
      const void* const now = table.find(name);
      moved += std::exchange(at, now) != now ? 1U : 0U;
    }
    if (i > 200) most = std::max(most, moved);  // Of the first, they were nowhere before.
    all += moved;
  }
  EXPECT_GT(all, 3 * watched.size());
  EXPECT_LT(most, watched.size() / 8);
}

TEST(NameTable, AnEmptyOneFindsNothing) {
  Table table;
  EXPECT_FALSE(table.find("a"));
  EXPECT_FALSE(table.extract("a"));
  file(table, "a");
  table.clear();
  EXPECT_FALSE(table.find("a"));
  EXPECT_EQ(table.size(), 0U);
}

// A poor hash is still right and hundreds of times slower, which no other test would notice.
TEST(NameTable, HashSpreadsNamesThatDifferLittle) {
  constexpr std::size_t kNames = 10'000;
  std::set<std::uint64_t> low;
  std::set<std::uint64_t> high;
  for (std::size_t i = 0; i < kNames; ++i) {
    const std::uint64_t hash = hashOfName(fmt::format("Device/Sensor/{:07}/Value", i));
    low.insert(hash & 0xffff);
    high.insert(hash >> 48U);
  }
  // Of 65536 places, 10000 names thrown at random take about 9274.
  EXPECT_GT(low.size(), 9000U);
  EXPECT_GT(high.size(), 9000U);
}

}  // namespace
}  // namespace HX
