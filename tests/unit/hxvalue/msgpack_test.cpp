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

struct PackedCase {
  HXValue value;
  Bytes packed;
};

void PrintTo(const PackedCase& testCase, std::ostream* out) { *out << testCase.value.toString().substr(0, 40); }

class Packed : public testing::TestWithParam<PackedCase> {};

INSTANTIATE_TEST_SUITE_P(
    Msgpack, Packed,
    testing::Values(
        PackedCase{{}, bytes({0xc0})}, PackedCase{false, bytes({0xc2})}, PackedCase{true, bytes({0xc3})},
        PackedCase{127, bytes({0x7f})}, PackedCase{-32, bytes({0xe0})}, PackedCase{128, bytes({0xcc, 0x80})},
        PackedCase{-33, bytes({0xd0, 0xdf})}, PackedCase{256, bytes({0xcd, 1, 0})},
        PackedCase{-129, bytes({0xd1, 0xff, 0x7f})}, PackedCase{65536, bytes({0xce, 0, 1, 0, 0})},
        PackedCase{std::numeric_limits<int>::min(), bytes({0xd2, 0x80, 0, 0, 0})},
        PackedCase{5L, bytes({0xd3, 0, 0, 0, 0, 0, 0, 0, 5})},
        PackedCase{-1L, bytes({0xd3, 255, 255, 255, 255, 255, 255, 255, 255})},
        PackedCase{1.0F, bytes({0xca, 0x3f, 0x80, 0, 0})}, PackedCase{1.0, bytes({0xcb, 0x3f, 0xf0, 0, 0, 0, 0, 0, 0})},
        PackedCase{"", bytes({0xa0})}, PackedCase{"\xff", bytes({0xa1, 0xff})},
        PackedCase{std::string(32, '\0'), bytes({0xd9, 32}, 32)}, PackedCase{HXValue::Binary{}, bytes({0xc4, 0})},
        PackedCase{HXValue::Binary(256), bytes({0xc5, 1, 0}, 256)},
        PackedCase{HXValue::Binary(65536), bytes({0xc6, 0, 1, 0, 0}, 65536)},
        PackedCase{HXValue::list(), bytes({0x90})}, PackedCase{HXValue::map(), bytes({0x80})},
        PackedCase{HXValue::list({1, HXValue::list()}), bytes({0x92, 1, 0x90})},
        PackedCase{HXValue::map({{"a", 1}, {"b", HXValue::map()}}), bytes({0x82, 0xa1, 'a', 1, 0xa1, 'b', 0x80})}));

TEST_P(Packed, writesAndReadsTheSame) {
  const auto& [value, packed] = GetParam();
  EXPECT_EQ(toMsgpack(value), packed);
  EXPECT_EQ(fromMsgpack(packed), value);
}

TEST_P(Packed, isRefusedWhenCutAnywhereAndWhenFollowedByMore) {
  const auto& [value, packed] = GetParam();
  const std::span all(packed);
  for (std::size_t size = 0; size < packed.size(); size += size < 16 ? 1 : packed.size() / 16) {
    EXPECT_THAT(errorOf([&] { fromMsgpack(all.first(size)); }),
                testing::HasSubstr("the bytes end in the middle of a value"));
  }
  Bytes longer = packed;
  longer.push_back(std::byte{0});
  EXPECT_EQ(errorOf([&] { fromMsgpack(longer); }),
            "MessagePack byte " + std::to_string(packed.size()) + ": bytes are left over after the value");
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

TEST(Msgpack, appendsBehindWhatIsThere) {
  Bytes out = bytes({1, 2});
  appendMsgpack(out, "a");
  EXPECT_EQ(out, bytes({1, 2, 0xa1, 'a'}));
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

struct BadBytes {
  Bytes packed;
  const char* error;
};

void PrintTo(const BadBytes& testCase, std::ostream* out) { *out << testCase.error; }

class Refused : public testing::TestWithParam<BadBytes> {};

INSTANTIATE_TEST_SUITE_P(
    Msgpack, Refused,
    testing::Values(
        BadBytes{{}, "MessagePack byte 0: the bytes end in the middle of a value"},
        BadBytes{bytes({0x92, 1, 0xc1}), "MessagePack byte 2: the byte 193 is no format"},
        BadBytes{bytes({0x91, 0xd4, 5, 0}), "MessagePack byte 1: extension type 5 is no value"},
        BadBytes{bytes({0xc7, 0, 0xff}), "MessagePack byte 0: extension type -1 is no value"},
        BadBytes{bytes({0xcf, 0x80}, 7),
                 "MessagePack byte 0: the integer 9223372036854775808 does not fit 64 signed bits"},
        BadBytes{bytes({0x81, 1, 2}), "MessagePack byte 1: a map key is not a string"},
        BadBytes{bytes({0x81, 0x90, 2}), "MessagePack byte 1: a map key is not a string"},
        BadBytes{bytes({0x81, 0xc4, 0, 2}), "MessagePack byte 1: a map key is not a string"},
        BadBytes{bytes({0x82, 0xa1, 'a', 1, 0xa1, 'a', 2}),
                 "MessagePack byte 4: the key \"a\" occurs twice in one map"},
        // Sizes of 4 GiB that are not there.
        BadBytes{bytes({0xdd, 255, 255, 255, 255}), "MessagePack byte 5: the bytes end in the middle of a value"},
        BadBytes{bytes({0xdf, 255, 255, 255, 255}), "MessagePack byte 5: the bytes end in the middle of a value"},
        BadBytes{bytes({0xdb, 255, 255, 255, 255, 'a'}), "MessagePack byte 0: the bytes end in the middle of a value"},
        BadBytes{bytes({0xc6, 255, 255, 255, 255}), "MessagePack byte 0: the bytes end in the middle of a value"}));

TEST_P(Refused, isNamedInOneLineThatSaysWhere) {
  EXPECT_EQ(errorOf([&] { fromMsgpack(GetParam().packed); }), GetParam().error);
}

TEST(Msgpack, keepsToTheLimitsGiven) {
  const Bytes threeLevels = bytes({0x91, 0x91, 0x90});
  EXPECT_NO_THROW(fromMsgpack(threeLevels, {.depth = 3}));
  EXPECT_EQ(errorOf([&] { fromMsgpack(threeLevels, {.depth = 2}); }), "MessagePack byte 2: nested deeper than 2");

  const Bytes fourValues = bytes({0x93, 1, 2, 3});
  EXPECT_NO_THROW(fromMsgpack(fourValues, {.values = 4}));
  EXPECT_EQ(errorOf([&] { fromMsgpack(fourValues, {.values = 3}); }), "MessagePack byte 3: more values than allowed");
}

}  // namespace
}  // namespace HX
