#include "expect_error.h"
#include "print_value.h"
#include "random_value.h"

#include <hxvalue/msgpack.h>

#include <cstdint>
#include <limits>

namespace HX {
namespace {

using Bytes = std::vector<std::byte>;

Bytes bytes(std::initializer_list<int> numbers, std::size_t padding = 0) {
  Bytes result;
  for (const int number : numbers) result.push_back(static_cast<std::byte>(number));
  result.resize(result.size() + padding);
  return result;
}

/// One of each header that the writer uses.
std::vector<std::pair<HXValue, Bytes>> packedCases() {
  return {{{}, bytes({0xc0})},
          {false, bytes({0xc2})},
          {true, bytes({0xc3})},
          {127, bytes({0x7f})},
          {-32, bytes({0xe0})},
          {128, bytes({0xcc, 0x80})},
          {-33, bytes({0xd0, 0xdf})},
          {256, bytes({0xcd, 1, 0})},
          {-129, bytes({0xd1, 0xff, 0x7f})},
          {65536, bytes({0xce, 0, 1, 0, 0})},
          {std::numeric_limits<int>::min(), bytes({0xd2, 0x80, 0, 0, 0})},
          {5L, bytes({0xd3, 0, 0, 0, 0, 0, 0, 0, 5})},
          {1.0F, bytes({0xca, 0x3f, 0x80, 0, 0})},
          {1.0, bytes({0xcb, 0x3f, 0xf0, 0, 0, 0, 0, 0, 0})},
          {"\xff", bytes({0xa1, 0xff})},
          {std::string(32, '\0'), bytes({0xd9, 32}, 32)},
          {HXValue::Binary{}, bytes({0xc4, 0})},
          {HXValue::Binary(256), bytes({0xc5, 1, 0}, 256)},
          {HXValue::Binary(65536), bytes({0xc6, 0, 1, 0, 0}, 65536)},
          {HXValue::list({1, HXValue::list()}), bytes({0x92, 1, 0x90})},
          {HXValue::map({{"a", 1}, {"b", HXValue::map()}}), bytes({0x82, 0xa1, 'a', 1, 0xa1, 'b', 0x80})}};
}

TEST(Msgpack, writesAndReadsTheSameAndRefusesWhatIsCutOrFollowedByMore) {
  for (const auto& [value, packed] : packedCases()) {
    SCOPED_TRACE(value.toString().substr(0, 40));
    EXPECT_EQ(toMsgpack(value), packed);
    EXPECT_EQ(fromMsgpack(packed), value);
    const std::span all(packed);
    for (std::size_t size = 0; size < packed.size(); size += size < 16 ? 1 : packed.size() / 16) {
      EXPECT_THAT(errorOf([&] { fromMsgpack(all.first(size)); }),
                  testing::HasSubstr("the bytes end in the middle of a value"));
    }
    Bytes longer = packed;
    longer.push_back(std::byte{0});
    EXPECT_THAT(errorOf([&] { fromMsgpack(longer); }), testing::HasSubstr("bytes are left over after the value"));
  }
}

TEST(Msgpack, readsIntegersOfOtherWritersByTheirFormat) {
  EXPECT_EQ(fromMsgpack(bytes({0xce, 255, 255, 255, 255})), 4'294'967'295L);
  EXPECT_EQ(fromMsgpack(bytes({0xcf, 0, 0, 0, 0, 0, 0, 0, 5})), 5L);
  EXPECT_EQ(fromMsgpack(bytes({0xd2, 0, 0, 0, 5})), 5);
  // Every kind of header before the number: the reader must not lose its place.
  const Bytes mixed = bytes({0xdc, 0, 8,                                 // list of 8
                             0xd9, 2, 'a', 'b',                          // str
                             0xda, 0, 1,   'c',                          // str
                             0xdb, 0, 0,   0,    1,   'd',               // str
                             0xc4, 1, 0,                                 // bin
                             0xc5, 0, 1,   0,                            // bin
                             0xde, 0, 1,   0xa1, 'k', 0xdf, 0, 0, 0, 0,  // maps
                             0xdd, 0, 0,   0,    1,   0xd1, 0, 1,        // list of an int
                             0xd3, 0, 0,   0,    0,   0,    0, 0, 9});
  EXPECT_EQ(fromMsgpack(mixed), HXValue::list({"ab", "c", "d", HXValue::Binary(1), HXValue::Binary(1),
                                               HXValue::map({{"k", HXValue::map()}}), HXValue::list({1}), 9L}));
}

TEST(Msgpack, roundTripsRandomValuesWithTheirTypes) {
  kit::RandomValues random(3);
  for (int i = 0; i < 300; ++i) {
    const HXValue value = random.next();
    ASSERT_EQ(fromMsgpack(toMsgpack(value)), value);
  }
}

TEST(Msgpack, neverCrashesOnRandomBytes) {
  std::mt19937 engine(4);
  int accepted = 0;
  for (int i = 0; i < 20'000; ++i) {
    Bytes noise(engine() % 40);
    for (std::byte& byte : noise) byte = static_cast<std::byte>(engine());
    try {
      const HXValue value = fromMsgpack(noise);
      EXPECT_EQ(fromMsgpack(toMsgpack(value)), value);
      ++accepted;
    } catch (const std::runtime_error&) {
    }
  }
  EXPECT_GT(accepted, 0);
}

TEST(Msgpack, isRefusedInOneLineThatSaysWhere) {
  const std::string end = ": the bytes end in the middle of a value";
  const std::pair<Bytes, std::string> cases[] = {
      {bytes({0x92, 1, 0xc1}), "2: the byte 193 is no format"},
      {bytes({0x91, 0xd4, 5, 0}), "1: extension type 5 is no value"},
      {bytes({0xc7, 0, 0xff}), "0: extension type -1 is no value"},
      {bytes({0xcf, 0x80}, 7), "0: the integer 9223372036854775808 does not fit 64 signed bits"},
      {bytes({0x81, 0x90, 2}), "1: a map key is not a string"},
      {bytes({0x81, 0xc4, 0, 2}), "1: a map key is not a string"},
      {bytes({0x82, 0xa1, 'a', 1, 0xa1, 'a', 2}), "4: the key \"a\" occurs twice in one map"},
      // Sizes of 4 GiB that are not there.
      {bytes({0xdd, 255, 255, 255, 255}), "5" + end},
      {bytes({0xdf, 255, 255, 255, 255}), "5" + end},
      {bytes({0xdb, 255, 255, 255, 255, 'a'}), "0" + end},
      {bytes({0xc6, 255, 255, 255, 255}), "0" + end}};
  for (const auto& [packed, error] : cases) {
    EXPECT_EQ(errorOf([&packed = packed] { fromMsgpack(packed); }), "MessagePack byte " + error);
  }
}

TEST(Msgpack, keepsToTheLimitsGiven) {
  const Bytes threeLevels = bytes({0x91, 0x91, 0x90});
  EXPECT_NO_THROW(fromMsgpack(threeLevels, {.depth = 3, .values = 3}));
  EXPECT_EQ(errorOf([&] { fromMsgpack(threeLevels, {.depth = 2}); }), "MessagePack byte 2: nested deeper than 2");
  EXPECT_EQ(errorOf([&] { fromMsgpack(threeLevels, {.values = 2}); }), "MessagePack byte 2: more values than allowed");
}

}  // namespace
}  // namespace HX
