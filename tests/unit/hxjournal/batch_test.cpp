#include <hxjournal/batch.h>
#include <hxjournal/request.h>

#include <chrono>
#include <expect_error.h>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

namespace HX::journal {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

Change changeOf(const char* key, HXValue value, std::uint64_t revision) {
  Change change;
  change.key = key;
  change.value = std::move(value);
  change.at = {7, revision};
  change.time = TimePoint(std::chrono::microseconds(1'000'000 + revision));
  return change;
}

TEST(Batches, ReadAsTheyWereWritten) {
  BatchWriter writer;
  BatchReader reader;
  Change first = changeOf("Arm/Speed", 1, 300);
  first.author = "Arm";
  first.nth = 4'000'000'000;
  first.leftOut = 3;
  Change second = changeOf("Leg", "x", 290);
  second.what = What::Raised;
  second.kind = 3;
  second.isState = second.changedKind = second.byAddress = true;
  writer.gap({{6, 100}, {7, 299}, false});
  writer.change(first);
  writer.change(second);
  writer.unchanged("Head", {7, 12});
  writer.complete({7, 301});
  writer.pause();
  const Batch batch = reader.read(writer.take({7, 299}, true));
  ASSERT_TRUE(batch.gap && batch.complete);
  EXPECT_EQ(batch.gap->from, (Position{6, 100}));
  EXPECT_EQ(batch.gap->to, (Position{7, 299}));
  EXPECT_FALSE(batch.gap->full);
  EXPECT_EQ(*batch.complete, (Position{7, 301}));
  EXPECT_EQ(batch.position, (Position{7, 299}));
  EXPECT_TRUE(batch.pause && batch.acknowledge);
  ASSERT_EQ(batch.lines.size(), 3U);
  const Change& read = batch.lines[0].change;
  EXPECT_EQ(read.key, "Arm/Speed");
  EXPECT_EQ(read.value, HXValue(1));
  EXPECT_EQ(read.at, first.at);
  EXPECT_EQ(read.time, first.time);
  EXPECT_EQ(read.author, "Arm");
  EXPECT_EQ(read.nth, first.nth);
  EXPECT_EQ(read.leftOut, 3U);
  EXPECT_FALSE(read.isState || read.changedKind || read.byAddress || read.withheld);
  const Change& state = batch.lines[1].change;
  EXPECT_EQ(state.at.revision, 290U);
  EXPECT_EQ(state.what, What::Raised);
  EXPECT_EQ(state.kind, 3);
  EXPECT_EQ(state.author, "");
  EXPECT_TRUE(state.isState && state.changedKind && state.byAddress);
  EXPECT_TRUE(batch.lines[2].isUnchanged);
  EXPECT_EQ(batch.lines[2].change.key, "Head");
  EXPECT_EQ(batch.lines[2].change.at.revision, 12U);

  // Names are told once, until they are forgotten on both sides.
  writer.change(first);
  const HXValue known = writer.take({7, 300}, false);
  EXPECT_EQ(known.find("names"), nullptr);
  EXPECT_EQ(reader.read(known).lines.at(0).change.key, "Arm/Speed");
  writer.startOver();
  writer.change(second);
  EXPECT_EQ(reader.read(writer.take({7, 300}, false)).lines.at(0).change.key, "Leg");
}

// A column is one number until a line differs, and keys are looked for where they came the last time.
TEST(Batches, TellWhatDiffersLateAndKeysInAnyOrder) {
  BatchWriter writer;
  BatchReader reader;
  const auto differ = [](Change& change) {
    change.what = What::Removed;
    change.kind = 4;
    change.nth = 5;
    change.leftOut = 6;
    change.author = "Arm";
    change.byAddress = true;
  };
  const auto tell = [](const Change& change) {
    return HXValue::list({change.key, change.value, change.at.revision, change.time.time_since_epoch().count(),
                          static_cast<int>(change.what), change.kind, change.nth, change.leftOut, change.author,
                          change.byAddress});
  };
  for (const char* order : {"abc", "abcabc", "acbbca", "d", "abcd"}) {
    HXValue::List told;
    std::uint64_t revision = 300;
    for (const char* key = order; *key != 0; ++key) {
      const std::string name(20, *key);
      Change change = changeOf(name.c_str(), *key, revision);
      change.kind = 1;
      change.nth = 9;
      if (key - order == 2 || key - order == 4) {
        differ(change);
        ++revision;
      }
      ++revision;
      told.push_back(tell(change));
      writer.change(change);
    }
    const Batch batch = reader.read(writer.take({7, 300}, false));
    HXValue::List read;
    for (const auto& line : batch.lines) read.push_back(tell(line.change));
    EXPECT_EQ(HXValue(read), HXValue(told)) << order;
  }
}

TEST(Batches, WithholdWhatNoMessageHolds) {
  BatchWriter writer;
  HXValue deep = 1;
  for (std::size_t i = 0; i <= BatchWriter::kMostDepth; ++i) deep = HXValue::list({deep});
  writer.change(changeOf("Deep", deep, 1));
  writer.change(changeOf("Large", std::string(BatchWriter::kMostBytes + 1, 'x'), 2));
  writer.change(changeOf("Small", 1, 3));
  const Batch batch = BatchReader().read(writer.take({7, 3}, false));
  for (const auto& line : batch.lines) EXPECT_EQ(line.change.withheld, !line.change.value.isValid());
  EXPECT_TRUE(batch.lines[0].change.withheld && batch.lines[1].change.withheld);
}

TEST(Batches, ThatAreNoneAreRefused) {
  BatchWriter writer;
  writer.change(changeOf("Arm", 1, 1));
  writer.change(changeOf("Leg", 1, 3));
  const HXValue good = writer.take({7, 3}, false);
  const HXValue list = HXValue::list({1});
  const std::pair<const char*, std::vector<HXValue>> rows[] = {
      {"number", {HXValue(), 2, "1"}},
      {"position", {HXValue(), 1, list}},
      {"keys", {1, list, HXValue::list({0, 2}), HXValue::list({-1, 0}), HXValue::list({"a", 0})}},
      {"values", {HXValue(), 1, list}},
      {"first", {HXValue(), "x"}},
      {"time", {std::int64_t{1} << 62, "x"}},
      {"times", {list, HXValue::list({0, std::numeric_limits<std::int64_t>::max()})}},
      {"whats", {6, -1, HXValue::list({0, 6}), 1.5}},
      {"kinds", {256, list}},
      {"nths", {-1, std::int64_t{1} << 32}},
      {"by", {1, -1}},
      {"flags", {32, -1}},
      {"leftOut", {-1}},
      {"skips", {"x", list}},
      {"names", {1, HXValue::list({1, 2})}},
      {"gap", {1, list, HXValue::list({list, list, true})}},
      {"complete", {1}},
      {"pause", {1}}};
  for (const auto& [entry, values] : rows) {
    for (const HXValue& value : values) {
      HXValue odd = good;
      odd.mapSet(entry, value);
      SCOPED_TRACE(odd.toString());
      EXPECT_THAT(errorOf([&] { BatchReader().read(odd); }), StartsWith("a batch of changes that is none: "));
    }
  }
  BatchReader reader;
  reader.read(good);
  EXPECT_THAT(errorOf([&] { reader.read(good); }), HasSubstr("not the next one"));
}

TEST(Requests, AreWhatTheyWere) {
  Filter filter({"Key", "Prefix/", "*glob"});
  filter.exclude("Prefix/not/").exclude("*not").addAuthor("Arm").addWhat(What::Raised).addKind(3);
  FollowOptions options;
  options.snapshot = false;
  options.rate = 2.5;
  options.behind = 10;
  options.since = Position{7, 8};
  options.promptness = Promptness::Relaxed;
  const HXValue value = toValue(filter, options);
  const Request read = requestOf(value);
  EXPECT_EQ(toValue(read.filter, read.options), value);
  EXPECT_EQ(toValue({}, {}), HXValue::map());
}

TEST(Requests, SayWhichOptionIsWrong) {
  const std::pair<HXValue::Map, const char*> rows[] = {
      {{{"speed", 1}}, "there is no speed; there are keys, "},
      {{{"keys", 1}}, "keys is to be a list of texts"},
      {{{"globs", HXValue::list({1})}}, "globs is to be a list of texts"},
      {{{"whats", HXValue::list({6})}}, "whats is to be a list of integers from 0 to 5"},
      {{{"kinds", HXValue::list({-1})}}, "kinds is to be"},
      {{{"snapshot", 1}}, "snapshot is to be true or false"},
      {{{"rate", -1}}, "rate is to be a number"},
      {{{"rate", std::numeric_limits<double>::infinity()}}, "rate is to be"},
      {{{"behind", 1.5}}, "behind is to be"},
      {{{"since", HXValue::list({1})}}, "since is to be a place"},
      {{{"relaxed", "yes"}}, "relaxed is to be"}};
  for (const auto& row : rows) {
    EXPECT_THAT(errorOf([&] { requestOf(HXValue::map(row.first)); }), HasSubstr(row.second));
  }
  EXPECT_THAT(errorOf([] { requestOf(HXValue(1)); }), HasSubstr("not a map"));
}

}  // namespace
}  // namespace HX::journal
