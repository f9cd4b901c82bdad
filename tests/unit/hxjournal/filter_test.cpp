#include <hxjournal/filter.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace HX::journal {
namespace {

struct Row {
  std::vector<std::string> patterns;
  std::vector<std::string> wanted;
  std::vector<std::string> unwanted;
};

TEST(Filter, WantsTheKeysThatItsPatternsMean) {
  const Row rows[] = {
      {{}, {"", "a", "Arm/Speed"}, {}},
      {{"Arm/Speed"}, {"Arm/Speed"}, {"Arm/Speed2", "Arm/", "", "arm/speed"}},
      {{"Arm/"}, {"Arm/", "Arm/Left/Speed"}, {"Arm", "Arms/", "xArm/"}},
      {{"*/Battery"}, {"Arm/Battery", "Arm/Left/Battery", "/Battery"}, {"Battery", "Arm/Battery/Low"}},
      {{"Arm*Speed"}, {"ArmSpeed", "Arm/Speed/Speed"}, {"Arm/Speed/", "arm/Speed"}},
      {{"a?c"}, {"abc", "a?c"}, {"ac", "abbc"}},
      {{"*a*b*"}, {"ab", "xaxbx", "aab"}, {"ba", "a"}},
      {{"*aab"}, {"aaab", "aab"}, {"aaba", "ab"}},
      {{"Arm/", "Leg/Speed", "*?Low"}, {"Arm/x", "Leg/Speed", "xLow"}, {"Leg/", "Low"}},
  };
  for (const Row& row : rows) {
    const Filter filter(row.patterns);
    for (const auto& key : row.wanted) EXPECT_TRUE(filter.wantsKey(key)) << key << " by " << row.patterns[0];
    for (const auto& key : row.unwanted) EXPECT_FALSE(filter.wantsKey(key)) << key << " by " << row.patterns[0];
  }
}

TEST(Filter, LeavesOutWhatIsNotNamedWhole) {
  Filter filter;
  filter.exclude("HXMemory/").exclude("*/Secret").exclude("Plain").addPrefix("").addKey("HXMemory/KeyAdded");
  EXPECT_TRUE(filter.wantsKey("Arm"));
  EXPECT_TRUE(filter.wantsKey("HXMemory/KeyAdded"));
  for (const char* key : {"HXMemory/KeyRemoved", "Arm/Secret", "Plain"}) EXPECT_FALSE(filter.wantsKey(key)) << key;
  EXPECT_TRUE(filter.wantsKey("Plainer"));
}

TEST(Filter, ChoosesAmongChanges) {
  Filter filter;
  EXPECT_TRUE(filter.wantsChange(What::Stored, 1, false));
  filter.addWhat(What::Raised).addWhat(What::Removed).addKind(3).addAuthor("Arm");
  EXPECT_TRUE(filter.wantsChange(What::Raised, 3, false));
  EXPECT_FALSE(filter.wantsChange(What::Stored, 3, false));
  EXPECT_FALSE(filter.wantsChange(What::Raised, 1, false));
  EXPECT_TRUE(filter.wantsChange(What::Raised, 1, true)) << "a key that leaves the wanted kinds";
  EXPECT_TRUE(filter.wantsAuthor("Arm"));
  EXPECT_FALSE(filter.wantsAuthor("Ar"));
  EXPECT_THROW(filter.addKind(32), std::runtime_error);
}

TEST(Filter, IsExactWhileItNamesKeysOnly) {
  Filter filter({"b", "a", "b"});
  EXPECT_TRUE(filter.isExact());
  EXPECT_EQ(filter.keys(), (std::vector<std::string>{"a", "b"}));
  EXPECT_FALSE(filter.add("c/").isExact());
  EXPECT_FALSE(Filter().isExact());
}

}  // namespace
}  // namespace HX::journal
