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

TEST(Fit, CutsBetweenCharactersAndLetsNothingThroughThatSteersATerminal) {
  EXPECT_EQ(fit("höhe", 4), "höhe");
  EXPECT_EQ(fit("höhe", 3), "hö…");
  EXPECT_EQ(fit("höhe", 1), "…");
  EXPECT_EQ(fit("höhe", 0), "");
  EXPECT_EQ(fit("a\x1b[2J\x7f\xc2\x9b.", 20), "a?[2J??.");
}

TEST(FormatRate, TellsNothingFromNotKnown) {
  EXPECT_EQ(formatRate(std::nullopt), "");
  EXPECT_EQ(formatRate(0.0), "-");
  EXPECT_EQ(formatRate(0.25), "0.2/s");
  EXPECT_EQ(formatRate(48.3), "48/s");
}

class DrawTable : public testing::Test {
 protected:
  LiveRow row(std::string key, std::string kind, HX::HXValue value, std::chrono::seconds age) const {
    return {std::move(key), LiveFacts{std::move(kind), std::move(value), now - age, 2}, 0.5};
  }
  const mw::SystemTimePoint now{1000s};
};

TEST_F(DrawTable, AlignsItsColumnsByCharacters) {
  const std::vector<LiveRow> rows{row("Höhe", "Data", 1.5, 1s), row("A", "MicroEvent", "x", 90s), {"B", {}, {}}};
  EXPECT_THAT(drawTable(rows, 0, now), ElementsAre("KEY   KIND          AGE    RATE  SUBS  VALUE",  //
                                                   "Höhe  Data         1.0s   0.5/s     2  1.5",    //
                                                   "A     MicroEvent    90s   0.5/s     2  \"x\"",  //
                                                   "B                                      "));
}

TEST_F(DrawTable, FitsItsLinesIntoTheWidth) {
  const std::vector<LiveRow> rows{row("AVeryLongKeyOfAModule", "Data", "a long value", 0s)};
  EXPECT_THAT(drawTable(rows, 38, now), ElementsAre("KEY                  KIND          AG…",  //
                                                    "AVeryLongKeyOfAMod…  Data         0.0…"));
}

TEST(SplitKeys, TellsSequencesFromCharacters) {
  EXPECT_THAT(splitKeys("/ö\x1b[5~q\x1bOA\x1b"), ElementsAre("/", "ö", "\x1b[5~", "q", "\x1bOA", "\x1b"));
  EXPECT_THAT(splitKeys("\x1b["), ElementsAre("\x1b["));
}

}  // namespace
}  // namespace korvo
