#include "recordings/difference.h"

#include "../recorder/kit.h"
#include "temporary_folder.h"

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvo {
namespace {

using HX::recording::kit::at;
using HX::recording::kit::Script;
using testing::IsEmpty;
using testing::SizeIs;

/// Two recordings, which differ. With the parameter each change lies in a part of its own, so that the part in which
/// the clock was set is passed by; without, in one with what was before.
class Differing : public testing::TestWithParam<bool> {
 protected:
  struct Step {
    double second;
    int number;  // Of N; 0: Start is raised.
  };
  void record(const std::string& name, const std::vector<Step>& steps) {
    Script script(folder_.path() / name);
    HX::recording::kit::Changes changes;
    for (const auto& [second, number] : steps) {
      auto change = number == 0 ? changes.of("Start", true, HX::recording::What::Raised) : changes.of("N", number);
      change.time = at(second);
      script.add(change);
      if (GetParam()) script.closeChunk();
    }
    script.finish();
  }
  std::vector<Difference> compare() const {
    HX::recording::Reader a(folder_.path() / "a");
    HX::recording::Reader b(folder_.path() / "b");
    return differencesOf(RecordedRun{a, momentOf(a, "Start")}, RecordedRun{b, momentOf(b, "Start")}, {});
  }

 private:
  const kit::TemporaryFolder folder_;
};

TEST_P(Differing, GoesByTheOrderOfChangesWhereTheClockWasSetBack) {
  record("a", {{100, 9}, {101, 0}, {102, 1}, {103, 2}});
  record("b", {{200, 7}, {201, 8}, {50, 0}, {51, 1}, {20, 2}});
  EXPECT_THAT(compare(), IsEmpty()) << "what was before the start has later times";
}

TEST_P(Differing, TellsTheFirstChangeThatIsAnother) {
  record("a", {{100, 0}, {102, 1}, {103, 2}, {104, 3}});
  record("b", {{200, 7}, {50, 0}, {51, 1}, {20, 4}, {21, 3}});
  const auto all = compare();
  ASSERT_THAT(all, SizeIs(1));
  EXPECT_EQ(all[0].key, "N");
  EXPECT_EQ(all[0].change, 2U);
  EXPECT_EQ(all[0].first->value, HX::HXValue(2));
  EXPECT_EQ(all[0].second->value, HX::HXValue(4));
}

TEST_P(Differing, TellsWhatOnlyOneOfThemHas) {
  record("a", {{100, 0}, {102, 1}});
  record("b", {{100, 0}, {102, 1}, {50, 2}});
  const auto all = compare();
  ASSERT_THAT(all, SizeIs(1));
  EXPECT_FALSE(all[0].first);
  EXPECT_EQ(all[0].second->value, HX::HXValue(2));
}

INSTANTIATE_TEST_SUITE_P(Parts, Differing, testing::Bool());

}  // namespace
}  // namespace korvo
