#include "live/celltext.h"
#include "live/detail.h"
#include "live/table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvo {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

TEST(Fit, CutsBetweenCharactersByColumnsAndLetsNothingThroughThatSteersATerminal) {
  EXPECT_EQ(fit("höhe", 4), "höhe");
  EXPECT_EQ(fit("höhe", 3), "hö…");
  EXPECT_EQ(fit("höhe", 1), "…");
  EXPECT_EQ(fit("höhe", 0), "");
  EXPECT_EQ(fit("漢字", 4), "漢字");
  EXPECT_EQ(fit("漢字", 3), "漢…");
  EXPECT_EQ(padded("漢字x", 4), "漢… ");
  EXPECT_EQ(rightAligned("e\u0301", 3), "  e\u0301");
  EXPECT_EQ(fit("a\x1b[2J\x7f\xc2\x9b.\xff\xe6\xbc", 20), "a?[2J??.???");
}

TEST(BriefText, HasNumbersOfSixDigitsAndEndsSoon) {
  const std::pair<HX::HXValue, const char*> cases[] = {
      {0.1 + 0.2, "0.3"},
      {1.0f, "1.0"},
      {1234567.8, "1.23457e+06"},
      {1234567, "1234567"},
      {HX::HXValue(), "null"},
      {HX::HXValue::Binary(4), "<4 bytes>"},
      {HX::HXValue::list({1.00000049, "a"}), "[1.0, \"a\"]"},
      {HX::HXValue::map({{"x", 1}, {"y", true}}), "{\"x\": 1, \"y\": true}"}};
  for (const auto& [value, text] : cases) EXPECT_EQ(briefText(value, 80), text);
  EXPECT_LT(briefText(HX::HXValue::List(100'000, 1), 80).size(), 400U);
  EXPECT_LT(briefText(std::string(100'000, 'x'), 80).size(), 400U);
}

TEST(Sparkline, GoesFromTheLeastToTheGreatest) {
  EXPECT_EQ(sparkline({0, 7, 3.4}), "▁█▄");
  EXPECT_EQ(sparkline({5, 5}), "▄▄");
  EXPECT_EQ(sparkline({}), "");
}

class DrawTable : public testing::Test {
 protected:
  static LiveRow row(std::string key, HX::HXValue value, std::chrono::milliseconds age, std::optional<double> rate,
                     std::string kind = "Data", std::size_t subscribers = 2) {
    return {std::move(key), LiveFacts{std::move(kind), std::move(value), kNow - age, subscribers}, rate};
  }
  static constexpr mw::SystemTimePoint kNow{360'000s};
  const Painter plain{false};
};

TEST_F(DrawTable, AlignsItsColumnsAndUsesTheUnitsThatAPersonWould) {
  const std::vector<LiveRow> rows{row("Höhe", 1.5, 340ms, 0.25),
                                  row("漢字", "x", 90s, 48.3),
                                  row("C", 1, 5min, 0.0),
                                  row("D", 1, 3h, 123456.0),
                                  row("E", 1, 50h, std::nullopt),
                                  row("F", {}, -5s, 0.0, "Event", 0),
                                  {"B", {}, {}}};
  EXPECT_THAT(drawTable(rows, layOut(0, 4), plain, kNow),
              ElementsAre("KEY   KIND        TYPE        AGE      RATE   SUBS  VALUE",  //
                          "Höhe  Data        Double     0.3s     0.2/s      2  1.5",    //
                          "漢字  Data        String      90s      48/s      2  \"x\"",  //
                          "C     Data        Int          5m         -      2  1",      //
                          "D     Data        Int          3h  123456/s      2  1",      //
                          "E     Data        Int          2d                2  1",      //
                          "F     Event                  0.0s         -      0  nobody asks",
                          "B                                                   "));
}

TEST_F(DrawTable, GivesUpTheValueLastAndFitsTheScreen) {
  const std::vector<LiveRow> rows{row("Left/Arm/Speed", 1.5, 5s, 1.0)};
  for (std::size_t width = 5; width < 120; ++width) {
    const auto lines = drawTable(rows, layOut(width, 14), plain, kNow);
    for (const std::string& line : lines) EXPECT_LE(columnsOf(line), std::max<std::size_t>(width, 5)) << width;
    EXPECT_EQ(lines[1].find("1.5") != std::string::npos, width > 12) << width;
    const bool isWide = width >= 2 + 14 + 2 + 16 + 12 + 9 + 8 + 10 + 7;
    EXPECT_EQ(lines[1].find("Data") != std::string::npos, isWide) << width;
  }
}

TEST_F(DrawTable, MarksWhatIsChosenAndWhatHasJustChanged) {
  std::vector<LiveRow> rows{row("A", 1, 5s, 1.0), row("B", 1, 100ms, 1.0), row("C", 1, 2min, 1.0)};
  rows[0].isChosen = true;
  const auto marks = [&](const Painter& paint) {
    std::string found;
    for (const std::string& line : drawTable(rows, layOut(80, 1), paint, kNow)) found += line.substr(0, 2) + "|";
    return found;
  };
  EXPECT_EQ(marks(plain), "  |> |* |  |");
  const auto lines = drawTable(rows, layOut(80, 1), Painter(true), kNow);
  EXPECT_THAT(lines[1], testing::AllOf(testing::StartsWith("\x1b[7m> A"), testing::EndsWith(" \x1b[0m")));
  EXPECT_THAT(lines[2], testing::EndsWith("\x1b[1;32m1\x1b[0m"));
  EXPECT_THAT(lines[3], testing::EndsWith("\x1b[2m1\x1b[0m"));
}

TEST(DrawDetail, TellsAllWithTheHistoryAsBars) {
  const mw::SystemTimePoint now{360'000s};
  LiveDetail detail;
  detail.key = "Speed";
  detail.facts = LiveFacts{"Event", 3, now - 2s, 2};
  detail.subscribers = {"A", "B"};
  detail.description = std::string(70, 'd');
  for (int i = 1; i <= 3; ++i) detail.history.push_back({i, now - 5s + i * 1s});
  const auto lines = drawDetail(detail, 1.0, 60, 20, Painter(false), now);
  EXPECT_THAT(lines, testing::IsSupersetOf({"Speed", "type           Int", "subscribers    2: A, B",
                                            "description    ddddddddddddddddddddddddddddddddddddddddddddd",
                                            "               ddddddddddddddddddddddddd", "               ▁▅█",
                                            "               from 1 to 3"}));
  for (const std::string& line : lines) EXPECT_LE(columnsOf(line), 60U) << line;
  EXPECT_EQ(drawDetail(detail, 1.0, 10, 3, Painter(false), now).size(), 3U);
}

TEST(SplitKeys, TellsSequencesFromCharacters) {
  EXPECT_THAT(splitKeys("/ö\x1b[5~q\x1bOA\x1b"), ElementsAre("/", "ö", "\x1b[5~", "q", "\x1bOA", "\x1b"));
  EXPECT_THAT(splitKeys("\x1b["), ElementsAre("\x1b["));
}

}  // namespace
}  // namespace korvo
