#include <model/tree.h>

#include <gtest/gtest.h>

namespace {

using namespace HX::web;
using HX::HXValue;
using HX::journal::Change;
using HX::journal::What;

/// A change with what matters here.
Change change(std::string_view key, const HXValue& value, int milliseconds, What what = What::Stored) {
  Change made;
  made.key = key;
  made.value = value;
  made.time = HX::journal::TimePoint(std::chrono::milliseconds(milliseconds));
  made.at.revision = static_cast<std::uint64_t>(milliseconds);
  made.what = what;
  made.kind = what == What::Raised ? 3 : 1;
  return made;
}

Change state(std::string_view key, const HXValue& value, int milliseconds) {
  Change made = change(key, value, milliseconds);
  made.isState = true;
  return made;
}

std::string namesOf(const Node& node) {
  std::string names;
  for (const auto& [name, child] : node.children) names += "[" + std::string(name) + "]";
  return names;
}

TEST(Tree, FilesKeysByTheirParts) {
  Tree tree;
  for (const char* key : {"Arm/Left/Speed", "Arm/Left", "Base", "/x", "a//b"}) tree.change(change(key, 1, 5));
  EXPECT_EQ(namesOf(tree.root()), "[][Arm][Base][a]");
  EXPECT_EQ(tree.keys(), 5U);
  const Node* const left = tree.key("Arm/Left");
  ASSERT_TRUE(left);
  EXPECT_EQ(left->name(), "Left");
  EXPECT_EQ(left->keys, 2U) << "itself and the one below";
  EXPECT_FALSE(tree.key("Arm")) << "a group is no key";
  tree.change(change("Arm/Left/Speed", {}, 6, What::Removed));
  EXPECT_TRUE(tree.key("Arm/Left")->children.empty());
  tree.change(change("Arm/Left", {}, 7, What::Removed));
  EXPECT_EQ(namesOf(tree.root()), "[][Base][a]") << "a group goes with its last key";
}

TEST(Tree, CountsChangesUpToTheRoot) {
  Tree tree;
  tree.beginSnapshot();
  tree.change(state("A/b", 1, 5));
  tree.complete();
  EXPECT_EQ(tree.root().changes, 0U) << "a first state is no change";
  const std::uint64_t before = tree.count();
  Change left = change("A/b", 2, 6);
  left.leftOut = 2;
  tree.change(left);
  EXPECT_EQ(tree.root().changes, 3U);
  EXPECT_EQ(tree.changesOf(What::Stored), 3U);
  EXPECT_GT(tree.key("A/b")->parent->seen, before);
  EXPECT_EQ(tree.keysOf(1), 1U);
}

TEST(Tree, DropsAfterAGapWhatIsNotNamedAgain) {
  Tree tree;
  tree.beginSnapshot();
  for (const char* key : {"a", "b", "c"}) tree.change(state(key, 1, 5));
  tree.complete();
  tree.beginSnapshot();
  tree.change(state("a", 2, 6));
  tree.unchanged("b");
  EXPECT_EQ(tree.keys(), 3U) << "until all is told";
  tree.complete();
  EXPECT_EQ(namesOf(tree.root()), "[a][b]");
  EXPECT_EQ(tree.gaps(), 1U);
  ASSERT_FALSE(tree.movements().empty());
  EXPECT_EQ(tree.node(tree.movements().back().child), nullptr) << "who looks at movements sees that it has gone";
}

TEST(Tree, FindsKeysWhateverTheCaseOfLetters) {
  Tree tree;
  for (const char* key : {"Arm/Speed", "Base/SPEED", "Base/Load", "speed"}) tree.change(change(key, 1, 5));
  std::size_t total = 0;
  auto found = tree.find("sPeE", "", 2, total);
  EXPECT_EQ(total, 3U);
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0]->path, "Arm/Speed");
  EXPECT_EQ(found[1]->path, "Base/SPEED");
  found = tree.find("E", "Base", 2, total);
  EXPECT_EQ(total, 1U) << "what is below is looked at without the name above";
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0]->path, "Base/SPEED");
}

TEST(Tree, RemembersRaisesAndNoStoring) {
  Tree tree;
  tree.change(change("Door", true, 5, What::Raised));
  tree.change(change("Door", true, 6));
  for (std::size_t i = 0; i < Tree::kRaises + 5; ++i) tree.change(change("Bell", 1, 7, What::Raised));
  EXPECT_EQ(tree.raises().size(), Tree::kRaises);
  EXPECT_EQ(tree.raises().front().key, "Bell");
}

TEST(Tap, LosesNoSpike) {
  Tree tree;
  Tap tap;
  tap.path = {"x", "1"};
  tree.tap("Pose", tap);  // Before there is such a key.
  const auto pose = [](double x) { return HXValue::map({{"x", HXValue::list({0.0, x})}}); };
  int time = 0;
  for (const double x : {1.0, 2.0, 900.0, 3.0, -900.0, 4.0}) tree.change(change("Pose", pose(x), ++time));
  tree.change(change("Pose", "no pose", ++time));
  const auto points = tap.take();
  std::vector<double> values;
  for (const auto& point : points) values.push_back(point.value);
  EXPECT_EQ(values, (std::vector<double>{1, 900, -900, 4}));
  EXPECT_TRUE(tap.take().empty());
  tree.untap(tap);
  tree.change(change("Pose", pose(5), ++time));
  EXPECT_TRUE(tap.take().empty());
}

TEST(Brief, CostsWhatItShows) {
  EXPECT_EQ(brief(HXValue::map({{"a", 1}, {"b", HXValue::list({true, 2.5})}}), 80), "{a: 1, b: [true, 2.5]}");
  EXPECT_EQ(brief(std::string(1000, 'x'), 5), "\"xxxxx…\"");
  EXPECT_EQ(brief("äöü", 3), "\"ä…\"") << "no half characters";
  HXValue::List many(100000, HXValue(7));
  EXPECT_LT(brief(many, 50).size(), 80U);
  EXPECT_NE(brief(many, 50).find("100000 in all"), std::string::npos);
  HXValue deep = 1;
  for (int i = 0; i < 100000; ++i) deep = HXValue::list({deep});
  EXPECT_LT(brief(deep, 50).size(), 80U);
}

TEST(NumberAt, IsWhereThePathLeads) {
  const HXValue value = HXValue::map({{"a", HXValue::list({1, 2.5, true, "text"})}});
  EXPECT_EQ(numberAt(value, {"a", "1"}), 2.5);
  EXPECT_EQ(numberAt(value, {"a", "2"}), 1.0);
  for (const ValuePath& path :
       {ValuePath{}, {"a"}, {"a", "3"}, {"a", "4"}, {"a", "-1"}, {"a", "1x"}, {"b"}, {"a", "0", "0"}}) {
    EXPECT_FALSE(numberAt(value, path)) << path.size();
  }
}

}  // namespace
