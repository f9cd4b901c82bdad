#include "livetable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvo {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

TEST(FormatAge, UsesTheUnitThatAPersonWould) {
  EXPECT_EQ(formatAge(-5s), "0.0s");
  EXPECT_EQ(formatAge(340ms), "0.3s");
  EXPECT_EQ(formatAge(42s), "42s");
  EXPECT_EQ(formatAge(5min), "5m");
  EXPECT_EQ(formatAge(3h), "3h");
  EXPECT_EQ(formatAge(50h), "2d");
}

TEST(Fit, CutsBetweenCharacters) {
  EXPECT_EQ(fit("höhe", 4), "höhe");
  EXPECT_EQ(fit("höhe", 3), "hö…");
  EXPECT_EQ(fit("höhe", 1), "…");
  EXPECT_EQ(fit("höhe", 0), "");
}

TEST(Fit, LetsNothingThroughThatSteersATerminal) {
  EXPECT_EQ(fit("a\x1b[2J\x7f\xc2\x9b"
                "b",
                20),
            "a?[2J??b");
}

TEST(DrawTable, AlignsItsColumnsByCharacters) {
  const std::vector<LiveRow> rows{{"Höhe", "Data", "1.5", 1s}, {"A", "MicroEvent", "\"x\"", 90s}};
  EXPECT_THAT(drawTable(rows, 0), ElementsAre("KEY   KIND          AGE  VALUE",  //
                                              "Höhe  Data         1.0s  1.5",    //
                                              "A     MicroEvent    90s  \"x\""));
}

TEST(DrawTable, FitsItsLinesIntoTheWidth) {
  const std::vector<LiveRow> rows{{"AVeryLongKeyOfAModule", "Data", "[1,2,3,4,5,6,7,8,9]", 0s}};
  EXPECT_THAT(drawTable(rows, 38), ElementsAre("KEY                  KIND          AG…",  //
                                               "AVeryLongKeyOfAMod…  Data         0.0…"));
}

}  // namespace
}  // namespace korvo
