#include "signalmapline.h"

#include <ostream>

#include <gmock/gmock.h>

namespace HX {

using Verdict = SignalMapLine::Verdict;

struct Line {
  const char* text;
  Verdict verdict;
  const char* service;
  const char* signal;
  const char* event;
};

void PrintTo(const Line& line, std::ostream* out) { *out << testing::PrintToString(std::string(line.text)); }

namespace {

class SignalMap : public testing::TestWithParam<Line> {};

TEST_P(SignalMap, ReadsALine) {
  const Line& expected = GetParam();
  const SignalMapLine line = parseSignalMapLine(expected.text);
  EXPECT_EQ(line.verdict, expected.verdict);
  EXPECT_EQ(line.service, expected.service);
  EXPECT_EQ(line.signal, expected.signal);
  EXPECT_EQ(line.event, expected.event);
  EXPECT_EQ(line.reason.empty(), expected.verdict != Verdict::Rejected);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, SignalMap,
    testing::Values(
        Line{"Svc.signal:Event", Verdict::Accepted, "Svc", "signal", "Event"},
        Line{"Svc.sig:Event\n", Verdict::Accepted, "Svc", "sig", "Event"},
        Line{"a.bb:Event\r\n", Verdict::Accepted, "a", "bb", "Event"},
        Line{"a.bb:Event\r", Verdict::Accepted, "a", "bb", "Event\r"},
        Line{"a.bb:Ev\rent\n", Verdict::Accepted, "a", "bb", "Ev\rent"},
        Line{" a . bcd : x y # note", Verdict::Accepted, "a", "bcd", "xy"},
        Line{"\ta\t.b\t:\tx\n", Verdict::Accepted, "a", "b", "x"},
        Line{"a.bb:c.d:e", Verdict::Accepted, "a", "bb", "c.d:e"},
        Line{"a.bb.cc:e", Verdict::Accepted, "a", "bb.cc", "e"}, Line{"a:b.cc:e", Verdict::Rejected, "a:b", "", ""},
        Line{"a:b.ccc:e", Verdict::Accepted, "a:b", "ccc", "e"}, Line{"a.bb:e#.c:d", Verdict::Accepted, "a", "bb", "e"},
        Line{"Service.sig:Event", Verdict::Rejected, "Service", "", ""},
        Line{"no dot:Event", Verdict::Rejected, "", "", ""}, Line{"a.nocolon", Verdict::Rejected, "a", "", ""},
        Line{"a.bb#:e", Verdict::Rejected, "a", "", ""}, Line{".bb:e", Verdict::Rejected, "", "", ""},
        Line{"a.:e", Verdict::Rejected, "a", "", ""}, Line{"a.bb:", Verdict::Rejected, "a", "bb", ""},
        Line{"a.bb:\r\n", Verdict::Rejected, "a", "bb", ""},
        Line{"a.bb: # no event\n", Verdict::Rejected, "a", "bb", ""}, Line{"", Verdict::Nothing, "", "", ""},
        Line{" \t \r\n", Verdict::Nothing, "", "", ""}, Line{"# Door.opened : E", Verdict::Nothing, "", "", ""}));

}  // namespace
}  // namespace HX
