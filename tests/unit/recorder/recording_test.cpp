#include "expect_error.h"
#include "kit.h"
#include "random_value.h"
#include "recording/mend.h"
#include "recording/table.h"
#include "temporary_folder.h"

#include <hxvalue/json.h>

#include <algorithm>
#include <limits>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace HX::recording {
namespace {

using kit::Changes;
using kit::entriesOf;
using kit::Script;
using testing::AllOf;
using testing::AnyOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class Recordings : public testing::Test {
 protected:
  std::filesystem::path file(const std::string& name = "a.mcap") const { return folder_.path() / name; }
  ::kit::TemporaryFolder folder_;
};

TEST_F(Recordings, GiveEveryValueBackWithItsTypeAndAllThatIsKnownOfTheChange) {
  for (const Compression compression : {Compression::None, Compression::Zstd, Compression::Lz4}) {
    const auto path = file(std::string("a") + std::string(toString(compression)));
    HX::kit::RandomValues values(static_cast<std::uint32_t>(compression) + 1);
    std::vector<journal::Change> told;
    const std::vector<std::string> keys{"Arm/Speed", "Left arm", "", "korvo/log", "Scan\xff"};
    Changes changes;
    Script script(path, compression);
    for (std::size_t i = 0; i < 400; ++i) {
      constexpr What kWays[] = {What::Stored, What::Raised, What::RaisedMicro};
      told.push_back(changes.of(keys[i % keys.size()], values.next(), kWays[i % 3], i % 7 == 0 ? "arm" : ""));
      script.add(told.back());
    }
    script.finish();
    const auto found = entriesOf(path);
    ASSERT_THAT(found, SizeIs(told.size()));
    for (std::size_t i = 0; i < told.size(); ++i) {
      SCOPED_TRACE(told[i].value.toString(HXValue::Verbosity::Typed));
      ASSERT_EQ(found[i].key, told[i].key);
      ASSERT_EQ(found[i].value, told[i].value);
      ASSERT_EQ(found[i].what, told[i].what);
      ASSERT_EQ(found[i].author, told[i].author);
      ASSERT_EQ(found[i].time, told[i].time);
      ASSERT_EQ(found[i].revision, told[i].at.revision);
    }
  }
}

TEST_F(Recordings, AreWholeWithSumsThatHold) {
  Changes changes;
  Script script(file());
  for (int i = 0; i < 200; ++i) script.add(changes.of("A", i));
  script.finish();
  Reader reader(file());
  EXPECT_TRUE(reader.isWhole());
  EXPECT_TRUE(reader.hasIndex());
  EXPECT_TRUE(reader.hasRightSum());
  EXPECT_EQ(reader.statistics()->messages, 200U);
  std::string content = kit::contentOf(file());
  content[100] ^= 1;
  kit::writeContent(file("b.mcap"), content);
  EXPECT_FALSE(Reader(file("b.mcap")).hasRightSum());
}

TEST_F(Recordings, StandAloneAlsoBehindASplit) {
  Changes changes;
  Encoder encoder;
  encoder.add(changes.of("A", 1.5F, What::Stored, "arm"), kit::at(0));
  encoder.add(changes.of("Gone", 1), kit::at(0));
  journal::Change removal = changes.of("Gone", {}, What::Removed);
  encoder.add(removal, kit::at(0));
  encoder.beginFile(kit::at(9));
  encoder.add(changes.of("B", true, What::Raised), kit::at(9));
  FileWriter writer(file(), {}, true);
  Compressor compressor(Compression::Zstd);
  writer.add(seal(encoder.takeChunk(), compressor));
  writer.finish();
  const auto entries = entriesOf(file());
  ASSERT_THAT(entries, SizeIs(2));
  EXPECT_EQ(entries[0].kind, Entry::Kind::State);
  EXPECT_EQ(entries[0].key, "A");
  EXPECT_EQ(entries[0].value, HXValue(1.5F));
  EXPECT_EQ(entries[0].author, "arm");
  EXPECT_EQ(entries[0].time, kit::at(0.001)) << "when it was written";
  EXPECT_EQ(entries[0].logged, kit::at(9)) << "when the file begins";
  EXPECT_EQ(entries[1].kind, Entry::Kind::Change);
}

/// What a key of a shape plots as, and what no viewer's reader of schemas survives.
TEST(Shapes, HaveSchemasThatViewersTake) {
  const std::vector<std::pair<HXValue, std::string>> cases{
      {true, R"({"type":"boolean"})"},
      {1, R"({"type":"integer"})"},
      {1.5F, R"({"type":"number"})"},
      {"a", R"({"type":"string"})"},
      {HXValue::binary({}), R"({"type":"string","contentEncoding":"base64"})"},
      {HXValue::list({1.0, 2.0}), R"({"type":"array","items":{"type":"number"}})"},
      {HXValue::map({{"x", 1}, {"y", HXValue()}}), R"({"type":"object","properties":{"x":{"type":"integer"}}})"},
      {HXValue::list({HXValue::map({{"x", 1}})}),
       R"({"type":"array","items":{"type":"object","properties":{"x":{"type":"integer"}}}})"},
      {HXValue(), ""},
      {HXValue::list(), ""},
      {HXValue::list({1, "a"}), ""},
      {HXValue::list({HXValue::list({1})}), ""},
  };
  for (const auto& [value, schema] : cases) {
    const std::string expected = schema.empty() ? R"({"type":"object","properties":{}})"
                                                : R"({"type":"object","properties":{"value":)" + schema + "}}";
    EXPECT_EQ(Shape(value).schemaText(), expected) << value.toString();
  }
}

TEST_F(Recordings, ThatAreCutAtAnyByteAreMendedUpToTheLastWholeChunk) {
  Changes changes;
  Script script(file());
  for (int i = 0; i < 120; ++i) script.add(changes.of(i % 2 == 0 ? "A" : "B", i));
  script.finish();
  const std::string content = kit::contentOf(file());
  std::vector<std::uint64_t> ends;
  const Reader whole(file());
  for (const ChunkIndex& chunk : whole.chunks()) ends.push_back(chunk.place + chunk.length);
  for (std::size_t size = 0; size < content.size(); size += 23) {
    SCOPED_TRACE(size);
    kit::writeContent(file("cut"), content.substr(0, size));
    const auto chunks = static_cast<std::size_t>(std::ranges::count_if(ends, [&](auto end) { return end <= size; }));
    std::filesystem::remove(file("mended"));
    if (size < kMagic.size()) {
      EXPECT_THAT(errorOf([&] { mend(file("cut"), file("mended")); }), HasSubstr("no recording"));
      continue;
    }
    try {
      const Mended mended = mend(file("cut"), file("mended"));
      EXPECT_EQ(mended.messages, std::min<std::size_t>(chunks * 50, 120));
      EXPECT_THAT(entriesOf(file("mended")), SizeIs(mended.messages));
    } catch (const RecordingError&) {
      EXPECT_EQ(chunks, 0U) << "what is there must not be given up";
      EXPECT_FALSE(std::filesystem::exists(file("mended")));
    }
  }
}

TEST_F(Recordings, WithFlippedBitsAreToldOfAndNeverReadAsAnotherValue) {
  Changes changes;
  Script script(file());
  for (int i = 0; i < 120; ++i) script.add(changes.of("A", i));
  script.finish();
  const std::string content = kit::contentOf(file());
  for (std::size_t i = 0; i < content.size() * 8; i += 173) {
    SCOPED_TRACE(i);
    std::string flipped = content;
    flipped[i / 8] = static_cast<char>(flipped[i / 8] ^ (1 << (i % 8)));
    kit::writeContent(file("flipped"), flipped);
    try {
      for (const Entry& entry : entriesOf(file("flipped"))) {
        // Heads of chunks have no sum of their own, but nothing of an entry stands in them.
        ASSERT_EQ(entry.value, HXValue(static_cast<int>(entry.revision) - 1));
      }
    } catch (const RecordingError& error) {
      ASSERT_THAT(error.what(), HasSubstr("flipped"));
    }
    std::filesystem::remove(file("mended"));
    try {
      const Mended mended = mend(file("flipped"), file("mended"));
      ASSERT_TRUE(mended.messages == 120 || !mended.isAll()) << "what is lost is told";
      entriesOf(file("mended"));
    } catch (const RecordingError&) {
    }
  }
}

TEST_F(Recordings, LoseAChunkAndKeepTheOthersThatNeedItsChannels) {
  Changes changes;
  Script script(file());
  for (int i = 0; i < 150; ++i) script.add(changes.of("A", i));
  script.finish();
  std::string content = kit::contentOf(file());
  const auto first = Reader(file()).chunks().front();
  content[first.place + first.length - 3] ^= 1;
  kit::writeContent(file("damaged"), content);
  const Mended mended = mend(file("damaged"), file("mended"));
  EXPECT_EQ(mended.messages, 100U);
  EXPECT_THAT(mended.complaints, SizeIs(2)) << "the chunk, and how many that are";
  EXPECT_THAT(entriesOf(file("mended")), SizeIs(100));
}

TEST_F(Recordings, ThatClaimToBeHugeCostNoMemory) {
  std::string bomb(64 << 20, '\0');
  Compressor compressor(Compression::Zstd);
  const std::string packed = compressor.compress(bomb);
  struct Case {
    std::uint64_t size;
    const char* error;
  };
  for (const Case& one : {Case{~std::uint64_t{0}, "too much"}, Case{std::uint64_t{1} << 29U, "shorter than it says"},
                          Case{1000, "longer than it says"}}) {
    Chunk chunk;
    chunk.compression = "zstd";
    chunk.uncompressedSize = one.size;
    chunk.records = packed;
    std::string content(kMagic);
    writeHeader(content);
    write(content, chunk);
    kit::writeContent(file(), content);
    Reader reader(file());
    ASSERT_THAT(reader.chunks(), SizeIs(1));
    EXPECT_THAT(errorOf([&] { reader.load(reader.chunks().front()); }), HasSubstr(one.error));
  }
}

TEST_F(Recordings, ThatWereWrittenInAHurryOutsideOfChunksAreMended) {
  Changes changes;
  Encoder encoder;
  for (int i = 0; i < 10; ++i) encoder.add(changes.of("A", i), kit::at(0));
  std::string content(kMagic);
  writeHeader(content);
  write(content, Metadata{"korvo", {{"revision", "1"}}});
  content += encoder.chunk().records;
  kit::writeContent(file("crashed"), content + "\x05 half a record");
  const Mended mended = mend(file("crashed"), file());
  EXPECT_EQ(mended.messages, 10U);
  EXPECT_GT(mended.lostBytes, 0U);
  const auto entries = entriesOf(file());
  ASSERT_THAT(entries, SizeIs(10));
  EXPECT_EQ(entries.back().value, HXValue(9));
}

TEST_F(Recordings, HaveAtEveryMomentTheTableAsItStood) {
  for (const bool hasIndex : {true, false}) {
    const auto path = file(hasIndex ? "index" : "none");
    std::mt19937 random(3);
    Changes changes;
    Script script(path, Compression::Zstd, hasIndex);
    Table model;
    std::vector<std::pair<TimePoint, std::map<std::string, HXValue>>> moments;
    std::map<std::string, HXValue> now;
    for (int i = 0; i < 2000; ++i) {
      // Some keys are written often, others once and long ago.
      const std::string key = "Key" + std::to_string(std::min(random() % 40, random() % 40));
      journal::Change change;
      if (random() % 10 == 0 && now.contains(key)) {
        change = changes.of(key, {}, What::Removed);
        now.erase(key);
      } else {
        HXValue value = random() % 3 == 0 ? HXValue(std::numeric_limits<double>::quiet_NaN()) : HXValue(i);
        now.insert_or_assign(key, value);
        change = changes.of(key, std::move(value));
      }
      script.add(change);
      if (i % 37 == 0) moments.emplace_back(change.time, now);
    }
    script.finish();
    Reader reader(path);
    for (const auto& [time, expected] : moments) {
      std::map<std::string, HXValue> found;
      for (const auto& [key, entry] : tableAt(reader, time, {})) found.emplace(key, entry.value);
      ASSERT_EQ(found, expected) << (time - kit::at(0)).count();
    }
    EXPECT_THAT(tableAt(reader, kit::at(0), {}), IsEmpty()) << "before the first change";
    EXPECT_THAT(tableAt(reader, kit::at(9), journal::Filter({"Key3"})), SizeIs(testing::Le(1U)));
  }
}

TEST_F(Recordings, MeanTheFirstOfMomentsThatCameTwiceSinceTheClockWasSetBack) {
  Changes changes;
  Script script(file());
  const std::vector<double> seconds{100, 105, 110, 50, 55, 100, 120};
  for (std::size_t i = 0; i < seconds.size(); ++i) {
    auto change = changes.of("N", static_cast<int>(i));
    change.time = kit::at(seconds[i]);
    script.add(change);
    script.closeChunk();
  }
  script.finish();
  Reader reader(file());
  const std::vector<std::pair<double, int>> cases{{100, 0}, {107, 1}, {110, 2}, {50, 3}, {60, 4}, {115, 5}, {120, 6}};
  for (const auto& [second, number] : cases) {
    EXPECT_EQ(tableAt(reader, kit::at(second), {}).at("N").value, HXValue(number)) << second;
  }
  EXPECT_THAT(tableAt(reader, kit::at(49), {}), IsEmpty());
}

TEST_F(Recordings, HaveKeysBeyondTheNumbersOfChannelsInOneChannel) {
  Changes changes;
  Script script(file());
  std::vector<std::string> keys;
  for (std::size_t i = 0; i < Encoder::kMostChannels + 100; ++i) keys.push_back("Key" + std::to_string(i));
  for (const std::string& key : keys) script.encoder.add(changes.of(key, 2.5F, What::Raised, "arm"), kit::at(0));
  EXPECT_TRUE(script.encoder.isFull());
  script.finish();
  Reader reader(file());
  EXPECT_THAT(reader.channels(), SizeIs(testing::Le(Encoder::kMostChannels)));
  const auto entries = entriesOf(file());
  ASSERT_THAT(entries, SizeIs(keys.size()));
  EXPECT_EQ(entries.back().key, keys.back());
  EXPECT_EQ(entries.back().value, HXValue(2.5F));
  EXPECT_EQ(entries.back().author, "arm");
  EXPECT_EQ(entries.back().what, What::Raised);
  EXPECT_THAT(tableAt(reader, kit::at(1e6), {}), SizeIs(keys.size()));
}

TEST_F(Recordings, SayWhatAGapHasCost) {
  Changes changes;
  Script script(file());
  script.add(changes.of("A", 1));
  script.add(changes.of("B", 2));
  script.encoder.add(journal::Gap{{7, 2}, {7, 12}, true}, kit::at(1));
  journal::Change state = changes.of("A", 5);
  state.isState = true;
  script.add(state);
  script.encoder.forgetUnnamed(kit::at(2));
  script.finish();
  const auto entries = entriesOf(file());
  ASSERT_THAT(entries, SizeIs(5));
  EXPECT_EQ(entries[2].kind, Entry::Kind::Gap);
  EXPECT_EQ(entries[2].missed, 10U);
  EXPECT_EQ(entries[3].kind, Entry::Kind::State);
  EXPECT_EQ(entries[4].what, What::Removed);
  EXPECT_EQ(entries[4].key, "B");
  Reader reader(file());
  EXPECT_THAT(tableAt(reader, kit::at(3), {}), SizeIs(1));
}

TEST_F(Recordings, AreNotWrittenOverWhatIsThere) {
  kit::writeContent(file(), "something");
  EXPECT_THAT(errorOf([&] { FileWriter(file(), {}, true); }), AllOf(HasSubstr("a.mcap"), HasSubstr("exists")));
  EXPECT_EQ(kit::contentOf(file()), "something");
  EXPECT_THAT(errorOf([&] { Reader(folder_.path()); }), HasSubstr("no recording"));
  EXPECT_THAT(errorOf([&] { Reader(file("none")); }), HasSubstr("No such file"));
}

}  // namespace
}  // namespace HX::recording
