#include "livetable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvo {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

TEST(Fit, CutsBetweenCharactersAndLetsNothingThroughThatSteersATerminal) {
  EXPECT_EQ(fit("höhe", 4), "höhe");
  EXPECT_EQ(fit("höhe", 3), "hö…");
  EXPECT_EQ(fit("höhe", 1), "…");
  EXPECT_EQ(fit("höhe", 0), "");
  EXPECT_EQ(fit("a\x1b[2J\x7f\xc2\x9b.", 20), "a?[2J??.");
}

TEST(DrawTable, AlignsItsColumnsByCharactersAndUsesTheUnitsThatAPersonWould) {
  const mw::SystemTimePoint now{360'000s};
  const auto row = [now](std::string key, HX::HXValue value, auto age, std::optional<double> rate) {
    return LiveRow{std::move(key), LiveFacts{"Data", std::move(value), now - age, 2}, rate};
  };
  const std::vector<LiveRow> rows{
      row("Höhe", 1.5, 340ms, 0.25), row("A", "x", 90s, 48.3), row("C", 1, 5min, 0.0), row("D", 1, 3h, std::nullopt),
      row("E", 1, 50h, 0.0),         row("F", 1, -5s, 0.0),    {"B", {}, {}}};
  EXPECT_THAT(drawTable(rows, 0, now), ElementsAre("KEY   KIND          AGE    RATE  SUBS  VALUE",  //
                                                   "Höhe  Data         0.3s   0.2/s     2  1.5",    //
                                                   "A     Data          90s    48/s     2  \"x\"",  //
                                                   "C     Data           5m       -     2  1",      //
                                                   "D     Data           3h             2  1",      //
                                                   "E     Data           2d       -     2  1",      //
                                                   "F     Data         0.0s       -     2  1",      //
                                                   "B                                      "));
  EXPECT_EQ(drawTable(rows, 38, now)[1], "Höhe  Data         0.3s   0.2/s     2…");
}

TEST(SplitKeys, TellsSequencesFromCharacters) {
  EXPECT_THAT(splitKeys("/ö\x1b[5~q\x1bOA\x1b"), ElementsAre("/", "ö", "\x1b[5~", "q", "\x1bOA", "\x1b"));
  EXPECT_THAT(splitKeys("\x1b["), ElementsAre("\x1b["));
}

}  // namespace
}  // namespace korvo
